// The engine's settings as the daemon starts with them, for whoever runs it again and again in one
// process: the unit tests and the engine's fuzzer.
#pragma once

#include "descriptors.h"
#include "line_settings.h"
#include "mhi_monitor.h"
#include "mux_session.h"
#include "port_state.h"
#include "shared_int.h"

inline void reset_engine_settings() {
    store_shared(g_ats3_carriage_return_char, 13);
    store_shared(g_ats4_line_feed_char, 10);
    store_shared(g_ats5_cmd_line_edit_char, 8);
    store_shared(g_client_ate_status, kEchoOn);
    store_shared(g_client_atv_status, 1);
    store_shared(g_is_single_char_input, 0);
    store_shared(g_is_cp_timeout_times, 0);
    store_shared(g_uart_port_status, 0);
    store_shared(g_qxdm_log, 0);
    store_shared(g_vexa_pcie_enabled, 0);
    store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_UNKNOWN);
}
