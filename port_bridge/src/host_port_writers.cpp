#include "host_port_writers.h"

#include <cstring>

#include "descriptors.h"
#include "device_io.h"
#include "log.h"
#include "mhi_monitor.h"
#include "mutex_guard.h"
#include "port_state.h"
#include "shared_int.h"
#include "vexa_common_def.h"

namespace {

// `published` is the port's slot as start-up made it known, null before that.
// The writers' mutex keeps texts of the engine apart; the device's own one keeps the descriptor's
// number this device's for the length of the write.
int write_to_host(int* published, const char* path, pthread_mutex_t* device_mutex, const char* buf,
                  int buf_len) {
    if (published == nullptr) {
        VEXA_LOG("'%s' is not served yet.%d,%d.\r\n", path, 0, 0);
        return -1;
    }
    const MutexGuard guard(device_mutex);
    return write_to_device(*published, path, buf_len, buf);
}

void write_to_live_pipe(const char* buf, int buf_len) {
    int* pipe = load_shared(g_fd_usb_atport_device_pcie);
    if (pipe == nullptr || !is_pcie_live())
        return;
    const MutexGuard guard(&usb_atport_mutex);
    if (*pipe >= 0)
        write_to_device(*pipe, mhi_file_path, buf_len, buf);
}

bool is_nothing(const char* buf, int buf_len) {
    return buf == nullptr || buf_len <= 0;
}

void prompt_for_data(int mode) {
    send_result_to_usb_modem(">", 1, 0);
    store_shared(g_usb_modem_port_mode, mode);
}

}  // namespace

int send_result_to_usb_modem(const char* buf, int buf_len, int /*flag*/) {
    if (is_nothing(buf, buf_len)) {
        VEXA_LOG("send_result_to_usb_modem input error.%d,%d,%d.\r\n", 0, 0, 0);
        return -1;
    }
    int* device = load_shared(g_fd_usb_modem_device);
    const MutexGuard guard(&g_mutex_usb_devie);
    return write_to_host(device, usb_file_path, &usb_mutex, buf, buf_len);
}

int send_result_to_usb_atport(const char* buf, int buf_len, int /*flag*/) {
    if (is_nothing(buf, buf_len)) {
        VEXA_LOG("send_result_to_usb_atport input error.%d,%d,%d.\r\n", 0, 0, 0);
        return -1;
    }
    int* device = load_shared(g_fd_usb_atport_device);
    const MutexGuard guard(&g_mutex_usb_atport_devie);
    const int result = write_to_host(device, kUsbAtPortPath, &usb_atport_mutex, buf, buf_len);
    write_to_live_pipe(buf, buf_len);
    return result;
}

int send_result_to_usb_uartport(const char* buf, int buf_len, int /*flag*/) {
    if (is_nothing(buf, buf_len)) {
        VEXA_LOG("send_result_to_usb_uartport input error.%d,%d,%d.\r\n", 0, 0, 0);
        return -1;
    }
    int* device = load_shared(g_fd_usb_uartport_device);
    const MutexGuard guard(&g_mutex_usb_uartport_devie);
    return write_to_host(device, kUartPath, &usb_uartport_mutex, buf, buf_len);
}

void answer_usb_port(const PortRecord* port, const char* text) {
    if (port == nullptr)
        return;
    const auto length = static_cast<int>(strlen(text));
    if (port->index == kModemPort)
        send_result_to_usb_modem(text, length, 0);
    if (port->index == kAtPort)
        send_result_to_usb_atport(text, length, 0);
}

int vexa_enter_sms_mode(int timeout_exit) {
    if (timeout_exit < 0)
        return -1;
    prompt_for_data(USB_PORT_SMS_MODE);
    return 0;
}

int vexa_enter_hex_mode(int timeout_exit) {
    if (timeout_exit < 0)
        return -1;
    prompt_for_data(USB_PORT_HEX_MODE);
    return 0;
}

int vexa_enter_atcmd_mode(int timeout_do) {
    if (timeout_do < 0)
        return -1;
    store_shared(g_usb_modem_port_mode, USB_PORT_ATCMD_MODE);
    return 0;
}
