// Which devices make the main pair on this platform, and what the start asks of the machine.
#pragma once

#include "dsutils.h"

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
