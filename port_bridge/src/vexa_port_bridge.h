// Which devices are paired, and the threads that serve them.
#pragma once

#include <cstdio>

#include "dsutils.h"
#include "thread_info.h"

// The start-up trace channel. Silent as shipped: starting sets it to false.
extern bool port_bridge_log_enabled;
extern FILE* log_file;
void pb_get_log_enabled();

// The main pair: modem-side node, host-side node, and the entry of the modem-side reader.
struct pb_targetinfo {
    const char* mdm_chardev;
    const char* usb_chardev;
    void* (*mdm_handler)(void*);
};

// Whether a kernel release has the SMD transport: its first character alone decides.
bool is_smd_release(const char* release);
bool Check_kernel_version();
bool IsDunSoftAPMode();
// Whether the configuration asks for the PCIe pipe as the main pair's host port.
bool getHostPort();
// The main pair of a target, or false for one that is not known. The kernel and the configuration
// are asked only for the targets that depend on them.
bool find_target(ds_target_t target, bool (*has_smd)(), bool (*is_pcie_path)(),
                 pb_targetinfo& target_info);
// The same for the platform's target; ends the process with status 1 when there is none.
void pb_resolve_target(pb_targetinfo& target_info);

// Builds the bridge and joins its threads, in practice for ever. Ends the process with status 0
// in DUN+SoftAP mode, with 1 for an unknown target. Main thread only.
int init_vexa_port_bridge();
