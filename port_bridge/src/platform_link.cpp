#include "platform_link.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "command_match.h"
#include "log.h"
#include "mutex_guard.h"
#include "shared_int.h"
#include "vexa_socket_client.h"

namespace {

constexpr int kRetries = 50;
constexpr useconds_t kRetryPauseUs = 100'000;

constinit pthread_mutex_t g_connection_locks[kPortCount] = {
    PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER};

// Made by whichever thread asks first, once the system has a descriptor for it.
constinit pthread_mutex_t g_wake_lock = PTHREAD_MUTEX_INITIALIZER;
int g_wake = -1;

std::array<int, kPortCount> g_lacked_socket = {};  // 1, once and for all

pthread_mutex_t* connection_lock(const PortRecord& port) {
    return &g_connection_locks[port.index];
}

struct Message {
    const char* buf;
    int buf_len;
    int flag;
    char* out_buf;
    int* out_len;
    int port_mode;
};

int send_message(int socketfd, const Message& message) {
    vexa_ext_info ext_info{MSG_SYNC, message.port_mode, message.buf_len};
    return client_send_msg(socketfd, message.buf, message.buf_len, message.flag, message.out_buf,
                           message.out_len, &ext_info);
}

// On the port's connection as it is now; without a port on the one that was named.
int send_once(const PortRecord* port, int socketfd, const Message& message) {
    if (port == nullptr)
        return send_message(socketfd, message);
    const MutexGuard lock(connection_lock(*port));
    return send_message(load_shared(port->platform_socket), message);
}

// The echo shows a line as the host typed it, without the LF that follows its CR.
void keep_for_echo(const PortRecord& port, std::string_view command) {
    if (command.ends_with("\r\n"))
        command.remove_suffix(1);
    port.echo_text.assign(command);
}

bool is_worth_waiting_for(std::string_view command) {
    // No name in the table comes near this length, and the matcher wants a NUL.
    char start[64] = {};
    command.copy(start, sizeof start - 1);
    return is_ght_atcmd(start) == 1;
}

int retry(const PortRecord* port, int socketfd, const Message& message) {
    int result = -1;
    for (int attempt = 0; attempt < kRetries; ++attempt) {
        usleep(kRetryPauseUs);
        result = send_once(port, socketfd, message);
        if (result >= 0)
            return result;
    }
    VEXA_LOG("Couldn't wait plat init.\r\n");
    return result;
}

int send_to_platform(const PortRecord* port, int socketfd, const Message& message) {
    if (message.buf_len <= 0 || message.buf == nullptr || message.out_buf == nullptr ||
        message.out_len == nullptr) {
        VEXA_LOG("send_data_to_plat_modem input error.\r\n");
        return kBadArguments;
    }
    const std::string_view command(message.buf, static_cast<std::size_t>(message.buf_len));
    if (port != nullptr)
        keep_for_echo(*port, command);
    int result = send_once(port, socketfd, message);
    if (result < 0 && !is_worth_waiting_for(command))
        return kSendToCp;
    if (result < 0)
        result = retry(port, socketfd, message);
    if (result >= 0)
        VEXA_LOG("client_send_sync_msg sucess:%d,%d,%d.\r\n", result, message.buf_len,
                 message.port_mode);
    return result;
}

int init_port_connection(PortIndex index) {
    const int result = open_platform_connection(g_ports[index]);
    if (result == kNoSocket)
        store_shared(g_lacked_socket[index], 1);
    const uint64_t one = 1;
    if (write(platform_wake_descriptor(), &one, sizeof one) < 0)
        VEXA_LOG("waking the platform receiver failed, errno:%d.\r\n", errno);
    return result;
}

}  // namespace

int platform_wake_descriptor() {
    if (const int made = load_shared(g_wake); made >= 0)
        return made;
    const MutexGuard lock(&g_wake_lock);
    if (g_wake < 0)
        store_shared(g_wake, eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return g_wake;
}

bool lacked_platform_socket(const PortRecord& port) {
    return load_shared(g_lacked_socket[port.index]) == 1;
}

int open_platform_connection(const PortRecord& port) {
    const MutexGuard lock(connection_lock(port));
    if (load_shared(port.platform_socket) > 0) {
        VEXA_LOG("g_loc_client_socket > 0, no need create\r\n");
        return 0;
    }
    const int sockfd = make_platform_socket();
    if (sockfd < 0) {
        VEXA_LOG("client socket failed, info:%s,\r\n", strerror(errno));
        return kNoSocket;
    }
    const int result = connect_to_platform(sockfd);
    const int error = errno;
    if (result == 0) {
        VEXA_LOG("client conenct local OK.\r\n");
        client_report_port_name(sockfd, port.platform_name);
    }
    store_shared(port.platform_socket, sockfd);
    if (result == 0)
        return 0;
    VEXA_LOG("client conenct failed, info:%s,\r\n", strerror(error));
    return kConnectFailed;
}

void close_platform_connection(const PortRecord& port) {
    const int sockfd = load_shared(port.platform_socket);
    if (sockfd < 0)
        return;
    shutdown(sockfd, SHUT_RDWR);
    const MutexGuard lock(connection_lock(port));
    close(sockfd);
    store_shared(port.platform_socket, -1);
}

int init_socket_client() {
    return init_port_connection(kModemPort);
}

int init_socket_client_atport() {
    return init_port_connection(kAtPort);
}

int init_socket_client_uartport() {
    return init_port_connection(kUartPort);
}

int send_data_to_app_platform(int socketfd, const char* buf, int buf_len, int flag, char* out_buf,
                              int* out_len, int cmd_type) {
    return send_to_platform(find_port(nullptr, socketfd), socketfd,
                            {buf, buf_len, flag, out_buf, out_len, cmd_type});
}

int send_data_to_app_platform(const PortRecord* port, int socketfd, const char* buf, int buf_len,
                              int flag, char* out_buf, int* out_len, int cmd_type) {
    if (port == nullptr)
        return send_data_to_app_platform(socketfd, buf, buf_len, flag, out_buf, out_len, cmd_type);
    return send_to_platform(port, -1, {buf, buf_len, flag, out_buf, out_len, cmd_type});
}
