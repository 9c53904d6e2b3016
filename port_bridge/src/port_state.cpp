#include "port_state.h"

#include "shared_int.h"

int g_usb_modem_port_mode = USB_PORT_ATCMD_MODE;
int g_usb_at_port_mode = USB_PORT_ATCMD_MODE;
int g_usb_uart_port_mode = USB_PORT_ATCMD_MODE;
int g_is_mport_send_at_done = 0;
int g_is_atport_send_at_done = 0;
int g_is_uartport_send_at_done = 0;
int g_loc_client_socket = -1;
int g_loc_client_socket_atport = -1;
int g_loc_client_socket_uartport = -1;
pthread_mutex_t g_mut_mport = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_mut_atport = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_mut_uartport = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_cond_mport = PTHREAD_COND_INITIALIZER;
pthread_cond_t g_cond_atport = PTHREAD_COND_INITIALIZER;
pthread_cond_t g_cond_uartport = PTHREAD_COND_INITIALIZER;
pthread_mutex_t g_mut_ap_with_cp = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_cond_ap_with_cp = PTHREAD_COND_INITIALIZER;
int g_is_single_char_input = 0;
int g_is_cp_timeout_times = 0;
thread_info_t* g_modem_tinfo_for_mux = nullptr;
thread_info_t* g_atport_tinfo_for_mux = nullptr;
thread_info_t* g_uart_tinfo_for_mux = nullptr;
int* g_fd_usb_modem_device = nullptr;
int* g_fd_usb_atport_device = nullptr;
int* g_fd_usb_atport_device_pcie = nullptr;
int* g_fd_usb_uartport_device = nullptr;
pthread_mutex_t g_mutex_usb_devie = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_mutex_usb_atport_devie = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_mutex_usb_uartport_devie = PTHREAD_MUTEX_INITIALIZER;
constinit LockedText g_at_last_buf_cache[kPortCount];
constinit LockedText g_at_echo_buf_cache[kPortCount];

constexpr std::array<PortRecord, kPortCount> g_ports = {{
    {kModemPort, "mport", "/dev/at_usb0", g_usb_modem_port_mode, g_is_mport_send_at_done,
     g_loc_client_socket, PORT_AT0, g_mut_mport, g_cond_mport, g_at_last_buf_cache[kModemPort],
     g_at_echo_buf_cache[kModemPort]},
    {kAtPort, "atport", "/dev/at_usb1", g_usb_at_port_mode, g_is_atport_send_at_done,
     g_loc_client_socket_atport, PORT_AT1, g_mut_atport, g_cond_atport,
     g_at_last_buf_cache[kAtPort], g_at_echo_buf_cache[kAtPort]},
    {kUartPort, "uartport", "/dev/ttyMSM1", g_usb_uart_port_mode, g_is_uartport_send_at_done,
     g_loc_client_socket_uartport, PORT_UART, g_mut_uartport, g_cond_uartport,
     g_at_last_buf_cache[kUartPort], g_at_echo_buf_cache[kUartPort]},
}};
static_assert(is_by_port(g_ports, &PortRecord::index));

const PortRecord* find_port(const int* mode, int platform_socket) {
    const PortRecord* found = nullptr;
    int found_count = 0;
    for (const PortRecord& port : g_ports) {
        if (&port.mode == mode)
            return &port;
        if (platform_socket < 0 || load_shared(port.platform_socket) != platform_socket)
            continue;
        found = &port;
        ++found_count;
    }
    return found_count == 1 ? found : nullptr;
}
