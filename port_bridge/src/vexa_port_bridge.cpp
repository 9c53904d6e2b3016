#include "vexa_port_bridge.h"

#include <array>
#include <cstdlib>

#include "descriptors.h"
#include "host_readers.h"
#include "log.h"
#include "mhi_monitor.h"
#include "modem_readers.h"
#include "platform_receiver.h"
#include "port_state.h"
#include "shared_device.h"
#include "shared_int.h"
#include "start_trace.h"
#include "target.h"
#include "udp_server.h"

// The AT port's directions, process-wide.
thread_info_t mdm_atport_info;
thread_info_t usb_atport_info;
thread_info_t usb_atport_info_pcie;

namespace {

using Entry = void* (*)(void*);

// The log lines around one thread; null where a thread has none.
struct ThreadTexts {
    const char* begin;
    const char* failed;
    const char* created;
    const char* joined;
    bool names_descriptors = false;  // the created and failed lines
};

constexpr const char* kJoinedAsReceiver = "recv_thread pthread_join ok....";
constexpr ThreadTexts kMainModem = {"begin mdm_handler....", "mdm_thread pthread_create failed....",
                                    "mdm_thread pthread_create suceess....",
                                    "mdm_thread pthread_join ok...."};
constexpr ThreadTexts kMainHost = {
    "begin usb_to_modem_bridge....", "usb_thread pthread_create failed....",
    "usb_thread pthread_create suceess...", "usb_thread pthread_join ok...."};
constexpr ThreadTexts kAtModem = {
    "begin mdm_handler....", "modem_to_usb_bridge_glink_atport pthread_create failed....",
    "modem_to_usb_bridge_glink_atport pthread_create suceess....", kJoinedAsReceiver, true};
constexpr ThreadTexts kAtHost = {
    "begin usb_atport_to_modem_bridge...", "usb_atport_to_modem_bridge pthread_create failed....",
    "usb_atport_to_modem_bridge pthread_create suceess....", kJoinedAsReceiver, true};
constexpr ThreadTexts kPcieHost = {
    "begin pcie_atport_to_modem_bridge...", "pcie_atport_to_modem_bridge pthread_create failed....",
    "pcie_atport_to_modem_bridge pthread_create suceess....", kJoinedAsReceiver};
// The UART's threads say the AT port's lines: readers of logs know them so.
constexpr ThreadTexts kUartModem = {nullptr, kAtModem.failed, kAtModem.created, kJoinedAsReceiver,
                                    true};
constexpr ThreadTexts kUartHost = kAtHost;
constexpr ThreadTexts kReceiver = {nullptr, "recv_data_handler pthread_create failed....",
                                   "recv_data_handler pthread_create suceess....",
                                   kJoinedAsReceiver};
constexpr ThreadTexts kUdpServer = {nullptr, "udp_at_server_thread pthread_create failed....",
                                    "udp_at_server_thread pthread_create suceess....",
                                    "udp_at_server_thread pthread_join ok...."};

// Every line ends in three numbers, the last of which is always 0.
void log_step(const char* text, int first = 0, int second = 0) {
    VEXA_LOG("%s%d,%d,0.\r\n", text, first, second);
}

class BridgeThread {
  public:
    explicit BridgeThread(const ThreadTexts& texts) : texts_(texts) {}

    void start(Entry entry, void* argument, int first = 0, int second = 0) {
        if (texts_.begin != nullptr)
            log_step(texts_.begin);
        created_ = pthread_create(&thread_, nullptr, entry, argument) == 0;
        log_step(created_ ? texts_.created : texts_.failed, first, second);
    }

    // The reader of a direction. Its line names the descriptors without their mutexes: a reader
    // that runs already may hold one for as long as a channel or a port takes.
    void start_reader(Entry entry, thread_info_t& info) {
        publish_host_port(entry, info);
        if (texts_.names_descriptors)
            start(entry, &info, load_shared(*info.from_fd), load_shared(*info.to_fd));
        else
            start(entry, &info);
    }

    void join() {
        if (created_ && pthread_join(thread_, nullptr) == 0)
            log_step(texts_.joined);
    }

  private:
    const ThreadTexts& texts_;
    pthread_t thread_{};
    bool created_ = false;
};

// A thread_info_t from the side of its source, and the same pair from the other side.
thread_info_t direction(const DeviceEnd& from, const DeviceEnd& to) {
    return {from.path, to.path, from.slot, to.slot, from.mutex, to.mutex, nullptr, nullptr, 0};
}

// Everything that lives as long as the bridge and belongs to its start-up.
struct Bridge {
    thread_info_t mdm_info{};
    thread_info_t usb_info{};
    thread_info_t mdm_uartport_info{};
    thread_info_t usb_uartport_info{};
    std::array<thread_info_t, kPortCount> answer_ends{};
    thread_info_t udp_info{};

    BridgeThread mdm_thread{kMainModem};
    BridgeThread usb_thread{kMainHost};
    BridgeThread mdm_atport_thread{kAtModem};
    BridgeThread usb_atport_thread{kAtHost};
    BridgeThread pcie_atport_thread_pcie{kPcieHost};
    BridgeThread mdm_uartport_thread{kUartModem};
    BridgeThread usb_uartport_thread{kUartHost};
    BridgeThread recv_thread{kReceiver};
    BridgeThread udp_at_server_thread{kUdpServer};

    void start_main_pair(const pb_targetinfo& target);
    void start_at_port();
    void start_pcie_at_port();
    void start_uart_port();
    void start_answer_roads();
    void join_all();
};

void Bridge::start_main_pair(const pb_targetinfo& target) {
    const DeviceEnd modem = {target.mdm_chardev, &mdm_fd, &mdm_mutex};
    const DeviceEnd host = {target.usb_chardev, &usb_fd, &usb_mutex};
    VEXA_LOG("set mdm_info....from:%d,to:%d,%d.\r\n", load_shared(*modem.slot),
             load_shared(*host.slot), 0);
    mdm_info = direction(modem, host);
    VEXA_LOG("set usb_info....from:%d,to:%d,%d.\r\n", load_shared(*host.slot),
             load_shared(*modem.slot), 0);
    usb_info = direction(host, modem);
    mdm_thread.start_reader(target.mdm_handler, mdm_info);
    usb_thread.start_reader(usb_to_modem_bridge, usb_info);
}

void Bridge::start_at_port() {
    const DeviceEnd modem = {kAtChannelPath, &mdm_atport_fd, &mdm_atport_mutex};
    const DeviceEnd host = {kUsbAtPortPath, &usb_atport_fd, &usb_atport_mutex};
    log_step("set mdm_atport_info...");
    mdm_atport_info = direction(modem, host);
    if (vexa_pcie_is_enabled()) {
        mdm_atport_info.to_file_path_pcie = mhi_file_path;
        mdm_atport_info.to_fd_pcie = &usb_atport_fd_pcie;
    }
    log_step("set usb_atport_info....");
    usb_atport_info = direction(host, modem);
    mdm_atport_thread.start_reader(modem_to_usb_bridge_glink_atport, mdm_atport_info);
    usb_atport_thread.start_reader(usb_atport_to_modem_bridge, usb_atport_info);
}

// The pipe shares the modem channel and the mutex of the USB AT port.
void Bridge::start_pcie_at_port() {
    if (!vexa_pcie_is_enabled())
        return;
    log_step("set usb_atport_info_pcie....");
    usb_atport_info_pcie = direction({mhi_file_path, &usb_atport_fd_pcie, &usb_atport_mutex},
                                     {kAtChannelPath, &mdm_atport_fd, &mdm_atport_mutex});
    usb_atport_info_pcie.pcie_valid = 1;
    pcie_atport_thread_pcie.start_reader(usb_atport_to_modem_bridge, usb_atport_info_pcie);
}

void Bridge::start_uart_port() {
    const DeviceEnd modem = {kUartChannelPath, &mdm_uartport_fd, &mdm_uartport_mutex};
    const DeviceEnd host = {kUartPath, &usb_uartport_fd, &usb_uartport_mutex};
    log_step("set mdm_uartport_info...");
    mdm_uartport_info = direction(modem, host);
    log_step("set usb_uartport_info....");
    usb_uartport_info = direction(host, modem);
    mdm_uartport_thread.start_reader(modem_to_usb_bridge_glink_uartport, mdm_uartport_info);
    usb_uartport_thread.start_reader(usb_uartport_to_modem_bridge, usb_uartport_info);
}

void Bridge::start_answer_roads() {
    answer_ends = {mdm_info, mdm_atport_info, mdm_uartport_info};
    recv_thread.start(recv_data_handler, answer_ends.data());
    udp_info = usb_atport_info;
    udp_at_server_thread.start(remote_udp_data_handler, &udp_info);
}

void Bridge::join_all() {
    udp_at_server_thread.join();
    recv_thread.join();
    mdm_thread.join();
    usb_thread.join();
    mdm_atport_thread.join();
    usb_atport_thread.join();
    if (vexa_pcie_is_enabled())
        pcie_atport_thread_pcie.join();
    mdm_uartport_thread.join();
    usb_uartport_thread.join();
}

void end_in_dun_softap_mode() {
    START_TRACE_ERROR("In DUN+SoftAP mode. Exiting !!");
    VEXA_LOG("In DUN+SoftAP mode. Exiting !!\r\n");
    close_start_trace();
    exit(0);
}

void warn_of_shared_pipe(const pb_targetinfo& target) {
    if (!vexa_pcie_is_enabled())
        return;
    if (target.usb_chardev != mhi_file_path && target.mdm_chardev != mhi_file_path)
        return;
    VEXA_LOG(
        "warning: %s is read by the main pair and by the PCIe AT port: each gets a part of "
        "the input.\r\n",
        mhi_file_path);
}

}  // namespace

int init_vexa_port_bridge() {
    VEXA_DIAG("%s enter.", "init_vexa_port_bridge");
    pb_get_log_enabled();
    log_file = stdout;
    if (IsDunSoftAPMode())
        end_in_dun_softap_mode();
    pb_targetinfo target{};
    pb_resolve_target(target);
    warn_of_shared_pipe(target);

    Bridge bridge;
    bridge.start_main_pair(target);
    bridge.start_at_port();
    bridge.start_pcie_at_port();
    bridge.start_uart_port();
    bridge.start_answer_roads();
    bridge.join_all();

    close_start_trace();
    log_step("end init_vexa_port_bridge...");
    return 0;
}
