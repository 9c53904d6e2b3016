// PCIe or USB, and the state of the MHI channel pair 32/33.
#pragma once

#include <pthread.h>
#include <semaphore.h>

#include "mhi_state.h"

enum vexa_linux_tristate_e : int {
    VEXA_LINUX_TRISTATE_FALSE = 0,
    VEXA_LINUX_TRISTATE_TRUE = 1,
    VEXA_LINUX_TRISTATE_UNKNOWN = 2,
};

extern int g_vexa_pcie_enabled;  // a tristate; 1 when the host link is PCIe
extern int g_mhi_ctrl_state;     // vexa_mhi_ctrl_state_e; written by the monitor thread only
extern sem_t g_mhi_monitor_semaphore;
extern pthread_mutex_t g_mhi_monitor_write_op;  // initialised only: no path takes it

// Main thread only.
void vexa_linux_dev_init();
int vexa_linux_does_mhi_ctrl_exist();
// 1 when the host link is PCIe. Any thread.
int vexa_pcie_is_enabled();
// Whether AT answers go over the pipe now: PCIe enabled and both channels connected. Any thread.
bool is_pcie_live();

// The monitor thread's own, no lock.
int vexa_linux_open_netlink_socket();
vexa_mhi_ctrl_state_e vexa_linux_get_mhi_state_from_uevent_file();
vexa_mhi_ctrl_state_e vexa_linux_parse_mhi_uevent(char* msg, int len);
int vexa_linux_update_mhi_channel_state(vexa_mhi_ctrl_state_e mhi_state);
void* vexa_linux_monitor_thread_entry(void*);
