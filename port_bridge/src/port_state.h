// What the daemon keeps for each host port, and one record per port that ties it together.
#pragma once

#include <pthread.h>

#include <array>
#include <cstddef>

#include "locked_text.h"
#include "thread_info.h"
#include "vexa_common_def.h"

// usb_port_mode_type of each port; read and moved through shared_int.h.
extern int g_usb_modem_port_mode;
extern int g_usb_at_port_mode;
extern int g_usb_uart_port_mode;

// 1: a command was written to CP and its answer is awaited.
extern int g_is_mport_send_at_done;
extern int g_is_atport_send_at_done;
extern int g_is_uartport_send_at_done;

// Connection to the app platform, -1 when closed (platform_link.h).
extern int g_loc_client_socket;
extern int g_loc_client_socket_atport;
extern int g_loc_client_socket_uartport;

// The response wait of a port's command: a timed wait without a predicate.
extern pthread_mutex_t g_mut_mport;
extern pthread_mutex_t g_mut_atport;
extern pthread_mutex_t g_mut_uartport;
extern pthread_cond_t g_cond_mport;
extern pthread_cond_t g_cond_atport;
extern pthread_cond_t g_cond_uartport;

// The platform's answer to a command that went to both waits here for CP's.
extern pthread_mutex_t g_mut_ap_with_cp;
extern pthread_cond_t g_cond_ap_with_cp;

extern int g_is_single_char_input;  // 1 after a one-byte chunk was echoed
extern int g_is_cp_timeout_times;   // slow CP answers in a row

// The host-port readers' own records, for the multiplexer; null until the reader runs.
extern thread_info_t* g_modem_tinfo_for_mux;
extern thread_info_t* g_atport_tinfo_for_mux;
extern thread_info_t* g_uart_tinfo_for_mux;

// Host-port devices as published for the modem readers at start-up (publish_host_port); null until
// then. The mutexes are copies of an unlocked mutex, distinct from the devices' own (usb_mutex
// ...).
extern int* g_fd_usb_modem_device;
extern int* g_fd_usb_atport_device;
extern int* g_fd_usb_atport_device_pcie;
extern int* g_fd_usb_uartport_device;
extern pthread_mutex_t g_mutex_usb_devie;
extern pthread_mutex_t g_mutex_usb_atport_devie;
extern pthread_mutex_t g_mutex_usb_uartport_devie;

enum PortIndex : int { kModemPort = 0, kAtPort = 1, kUartPort = 2 };
inline constexpr int kPortCount = 3;

// Last line sent ("A/", PPP entry) and the command kept for the platform's echo, per port.
extern LockedText g_at_last_buf_cache[kPortCount];
extern LockedText g_at_echo_buf_cache[kPortCount];

struct PortRecord {
    PortIndex index;
    const char* log_name;   // as it stands in log lines: "mport", "atport", "uartport"
    const char* host_path;  // how a record's from_file_path names the port
    int& mode;
    int& send_done;
    int& platform_socket;
    port_name_enum_type platform_name;
    pthread_mutex_t& response_mutex;
    pthread_cond_t& response_cond;
    LockedText& last_line;
    LockedText& echo_text;
};

extern const std::array<PortRecord, kPortCount> g_ports;

// Whether a table has a row for each port, at that port's index.
template <typename Row>
consteval bool is_by_port(const std::array<Row, kPortCount>& rows, PortIndex Row::*port) {
    for (std::size_t index = 0; index < rows.size(); ++index)
        if (rows[index].*port != static_cast<PortIndex>(index))
            return false;
    return true;
}

// The port of a mode variable and a platform socket: the mode pointer decides when it is one of
// the three ports' own; else the socket, when it is open and one port's alone; else null.
const PortRecord* find_port(const int* mode, int platform_socket);
