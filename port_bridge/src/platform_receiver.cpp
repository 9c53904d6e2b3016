#include "platform_receiver.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <string_view>

#include "device_io.h"
#include "line_settings.h"
#include "log.h"
#include "mhi_monitor.h"
#include "monotonic_clock.h"
#include "mutex_guard.h"
#include "mux_output.h"
#include "mux_session.h"
#include "platform_link.h"
#include "shared_int.h"
#include "signal_pause.h"
#include "signal_wait.h"
#include "vexa_socket_client.h"

namespace {

constexpr useconds_t kStartPauseUs = 500'000;
constexpr int kCpWaitSeconds = 5;
constexpr int64_t kRetryPauseMs = 1000;
constexpr int kShutDownLength = 255;
constexpr short kPollEvents = POLLIN | POLLPRI | POLLERR | POLLHUP;
static_assert(kPollEvents == 27);

// How a port is named in the lines about its connection.
constexpr std::array<const char*, kPortCount> kConnectionNames = {"modem port", "at port",
                                                                  "uart port"};

// One per port; only the receiver thread touches it.
struct Connection {
    const PortRecord* port;
    const thread_info_t* bridge;  // the to side is the host port
    int64_t retry_at_ms;          // when being re-made, else -1
};

// An answer on its way, and the work area of the echo. `text` is zero behind its text, because the
// bytes written are counted by the packs and may pass the text's end.
struct Areas {
    char text[kTextAreaSize] = {};
    char work[kTextAreaSize] = {};
};

// Whether a host reader has tried to open it, with or without success.
bool was_opened(const PortRecord& port) {
    return load_shared(port.platform_socket) >= 0 || lacked_platform_socket(port);
}

void wait_until_opened() {
    while (!was_opened(g_ports[kModemPort]) || !was_opened(g_ports[kAtPort])) usleep(kStartPauseUs);
}

void retry_later(Connection& connection) {
    connection.retry_at_ms = monotonic_ms() + kRetryPauseMs;
}

void close_and_retry_later(Connection& connection) {
    close_platform_connection(*connection.port);
    retry_later(connection);
}

// A slot that a host reader could not fill never hangs up.
void retry_if_never_made(Connection& connection) {
    if (connection.retry_at_ms < 0 && load_shared(connection.port->platform_socket) < 0 &&
        lacked_platform_socket(*connection.port))
        retry_later(connection);
}

void hang_up(Connection& connection) {
    VEXA_LOG("POLLHUP is hang up(%s), close socket it.\r\n", connection.port->log_name);
    close_and_retry_later(connection);
}

// One attempt, so that the other connections are served between two of them.
void remake_if_due(Connection& connection) {
    if (connection.retry_at_ms < 0 || monotonic_ms() < connection.retry_at_ms)
        return;
    const char* name = kConnectionNames[connection.port->index];
    const int result = open_platform_connection(*connection.port);
    if (result == 0) {
        connection.retry_at_ms = -1;
        VEXA_LOG("new connection is %s OK again.\r\n", name);
        return;
    }
    VEXA_LOG("new connection %s is failed.(m_fd:%d,at_fd:%d, uart_fd:%d)sleep 3s...\r\n", name,
             load_shared(g_loc_client_socket), load_shared(g_loc_client_socket_atport),
             load_shared(g_loc_client_socket_uartport));
    // Without a socket there is nothing to close but what a host reader may have opened since.
    if (result == kNoSocket)
        retry_later(connection);
    else
        close_and_retry_later(connection);
}

// Until the next attempt; -1, no time-out, when no connection is being re-made and whoever opens
// one can wake the poll.
int poll_time_out(std::span<const Connection> connections, bool can_be_woken) {
    int64_t wait = can_be_woken ? -1 : kRetryPauseMs;
    for (const Connection& connection : connections) {
        if (connection.retry_at_ms < 0)
            continue;
        const int64_t left = std::max<int64_t>(connection.retry_at_ms - monotonic_ms(), 0);
        wait = wait < 0 ? left : std::min(wait, left);
    }
    return static_cast<int>(wait);
}

bool is_multiplexed(const PortRecord& port) {
    return port.index == kUartPort && load_shared(g_uart_port_status) != 0;
}

void follow_mode(const PortRecord& port, int32_t cmd_type) {
    if (is_multiplexed(port))
        return;
    if (cmd_type == CMD_AT_DATA)
        move_shared(port.mode, USB_PORT_ATCMD_MODE, USB_PORT_DATA_MODE);
    else if (cmd_type == CMD_AT_CMD)
        move_shared(port.mode, USB_PORT_DATA_MODE, USB_PORT_ATCMD_MODE);
}

bool is_shut_down_signal(std::string_view answer) {
    return answer.size() == kShutDownLength &&
           std::all_of(answer.begin(), answer.end(), [](char byte) { return byte == '+'; });
}

// A command that went to CP as well is answered in the order CP, platform. Whatever ends the wait,
// the answer goes on.
void wait_for_cp(const PortRecord& port) {
    wait_for_signal(&g_cond_ap_with_cp, &g_mut_ap_with_cp, kCpWaitSeconds);
    VEXA_LOG(
        "!!!!!<<<<<<<<<<<<<<<<<<<< %s timeout <<<<<<<<<<<<<<<<<<<!!!!! cond:%p, mutex:%p, %d.\r\n",
        port.log_name, static_cast<void*>(&g_cond_ap_with_cp),
        static_cast<void*>(&g_mut_ap_with_cp), 0);
}

// Puts the kept command in front; what does not fit the work area is cut off. The new length is
// that of the text.
int put_echo_in_front(const PortRecord& port, Areas& areas) {
    const std::size_t echo_length = port.echo_text.copy_to(areas.work, sizeof areas.work);
    const std::size_t text_length = std::min(strlen(areas.text), kDeviceReadSize - echo_length);
    VEXA_LOG("atcmd response(%s). open ate1 <%s>...<%s>,%d.\r\n", port.log_name, areas.work,
             areas.text, static_cast<int>(echo_length + text_length));
    memmove(areas.text + echo_length, areas.text, text_length);
    memcpy(areas.text, areas.work, echo_length);
    areas.text[echo_length + text_length] = '\0';
    return static_cast<int>(echo_length + text_length);
}

// The AT port's answers take the same way out as the modem's: the PCIe pipe while it is live.
void write_to_host(const thread_info_t& bridge, const char* answer, int length) {
    const MutexGuard lock(bridge.to_mutex);
    if (bridge.to_fd_pcie == nullptr || !is_pcie_live()) {
        write_to_device(load_shared(*bridge.to_fd), bridge.to_file_path, length, answer);
        return;
    }
    const int pipe_fd = load_shared(*bridge.to_fd_pcie);
    if (pipe_fd < 0)
        VEXA_LOG("'%s' is closed, %d bytes of an answer dropped.\r\n", bridge.to_file_path_pcie,
                 length);
    else
        write_to_device(pipe_fd, bridge.to_file_path_pcie, length, answer);
}

void deliver(const Connection& connection, const char* answer, int length) {
    const thread_info_t& bridge = *connection.bridge;
    if (is_multiplexed(*connection.port))
        write_mux_answer(load_shared(g_mux_atcmd_dlc), answer, length, bridge.to_fd,
                         bridge.to_file_path, bridge.to_mutex);
    else
        write_to_host(bridge, answer, length);
}

void wake_waiting_command(const PortRecord& port) {
    pause_before_signal();
    pthread_cond_signal(&port.response_cond);
    VEXA_LOG("!!!!!<<<<<<<<<<<<<<<<<<<< %s app-plat<<<<<<<<<<<<<<<<<<<!!!!!\r\n", port.log_name);
}

// Nothing to read and nothing to come: the platform has at least closed its half.
bool has_ended(int sockfd) {
    char byte = 0;
    return recv(sockfd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

void handle_answer(const Connection& connection, int sockfd, int32_t cmd_type, int length,
                   Areas& areas) {
    const PortRecord& port = *connection.port;
    follow_mode(port, cmd_type);
    if (is_shut_down_signal({areas.text, static_cast<std::size_t>(length)})) {
        VEXA_LOG("recv app-plat error info .........(%s)\r\n", port.log_name);
        shutdown(sockfd, SHUT_RDWR);
        return;
    }
    if (load_shared(port.send_done) == 1)
        wait_for_cp(port);
    if (load_shared(g_is_single_char_input) == 0 && is_echo_on())
        length = put_echo_in_front(port, areas);
    deliver(connection, areas.text, length);
    wake_waiting_command(port);
}

void read_answer(Connection& connection, int sockfd, Areas& areas) {
    vexa_ext_info ext_info{MSG_SYNC, CMD_INVALID, 0};
    const int length = client_recv_data_from_platform(sockfd, areas.text, kDeviceReadSize,
                                                      MSG_DONTWAIT, &ext_info);
    if (length > 0) {
        handle_answer(connection, sockfd, ext_info.cmd_type, length, areas);
    } else {
        VEXA_LOG("read data error.\r\n");
        if (has_ended(sockfd))
            hang_up(connection);
    }
    memset(areas.text, 0, strlen(areas.text));
}

void serve(Connection& connection, const pollfd& entry, Areas& areas) {
    if (entry.revents == 0)
        return;
    if ((entry.revents & POLLERR) != 0)
        VEXA_LOG("POLLERR is err(%s).\r\n", connection.port->log_name);
    if ((entry.revents & (POLLHUP | POLLNVAL)) != 0)
        hang_up(connection);
    else
        read_answer(connection, entry.fd, areas);
}

void forget_wake_up(const pollfd& entry) {
    uint64_t count = 0;
    if ((entry.revents & POLLIN) != 0 && read(entry.fd, &count, sizeof count) < 0)
        VEXA_LOG("reading the wake-up failed, errno:%d.\r\n", errno);
}

}  // namespace

void* recv_data_handler(void* arg) {
    const auto* bridges = static_cast<const thread_info_t*>(arg);
    std::array<Connection, kPortCount> connections{};
    for (const PortRecord& port : g_ports)
        connections[port.index] = {&port, &bridges[port.index], -1};
    static constinit Areas areas;  // one receiver
    wait_until_opened();
    for (;;) {
        for (Connection& connection : connections) retry_if_never_made(connection);
        // Taken afresh on every pass: connections come late and are re-made.
        std::array<pollfd, kPortCount + 1> entries{};
        for (const PortRecord& port : g_ports)
            entries[port.index] = {load_shared(port.platform_socket), kPollEvents, 0};
        const int wake = platform_wake_descriptor();
        entries[kPortCount] = {wake, POLLIN, 0};
        poll(entries.data(), entries.size(), poll_time_out(connections, wake >= 0));
        forget_wake_up(entries[kPortCount]);
        for (Connection& connection : connections) {
            serve(connection, entries[connection.port->index], areas);
            remake_if_due(connection);
        }
    }
}
