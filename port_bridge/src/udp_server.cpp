#include "udp_server.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "at_engine.h"
#include "input_source.h"
#include "log.h"
#include "mutex_guard.h"
#include "port_state.h"
#include "shared_int.h"
#include "thread_info.h"
#include "vexa_common_def.h"
#include "vexa_socket_server.h"

int g_at_over_sokcet_enable = 0;
int g_loc_udp_at_server_socket = -1;
int g_loc_udp_at_server_send_socket = -1;
std::array<vexa_udp_sock_addr_t, 5> g_udp_sock_client_addr_array{};
sockaddr_in g_udp_sock_from_client_addr{};
sockaddr_in g_udp_sock_to_client_addr{};

namespace {

constexpr unsigned kRetryPauseSeconds = 5;

// Client lock: guards the send socket's number together with the answer address, from reading
// them to the end of the send. Innermost but for the log; taken under the AT port's device mutex.
pthread_mutex_t g_client_mutex = PTHREAD_MUTEX_INITIALIZER;

vexa_udp_sock_addr_t& last_client() {
    return g_udp_sock_client_addr_array[0];
}

void open_receiving_socket() {
    while (true) {
        store_shared(g_loc_udp_at_server_socket, init_udp_at_server_socket());
        if (load_shared(g_loc_udp_at_server_socket) >= 0)
            break;
        VEXA_PRINT("init_udp_at_server_socket error sleep try again.....\r\n");
        store_shared(g_loc_udp_at_server_socket, -1);
        sleep(kRetryPauseSeconds);
    }
    VEXA_LOG("g_loc_udp_at_server_socket .%d,%d,%d.\r\n", load_shared(g_loc_udp_at_server_socket),
             0, 0);
}

void print_sender(const sockaddr_in& sender) {
    char last_addr[INET_ADDRSTRLEN] = {};
    char new_addr[INET_ADDRSTRLEN] = {};
    const sockaddr_in& last = last_client().remote_addr;
    inet_ntop(AF_INET, &last.sin_addr, last_addr, sizeof(last_addr));
    inet_ntop(AF_INET, &sender.sin_addr, new_addr, sizeof(new_addr));
    VEXA_PRINT(
        "recv_udp_cmd_from_client g_loc_udp_at_server_send_socket:<%d>, last_addr:<%s>, "
        "new_addr:<%s>, last_port:<%d>, new_port:<%d>. \r\n",
        load_shared(g_loc_udp_at_server_send_socket), last_addr, new_addr, ntohs(last.sin_port),
        ntohs(sender.sin_port));
}

// RFC 768 lets a sender leave its port out, as 0, when it expects no reply. Nothing can be sent
// there, and an AT-port answer that cannot be sent closes that port.
bool is_answerable(const sockaddr_in& sender) {
    return sender.sin_port != 0;
}

// Only the port tells clients apart: a datagram from another address with the same port counts as
// the same client, whose answers go where they went before.
bool is_served_client(const sockaddr_in& sender) {
    return load_shared(g_loc_udp_at_server_send_socket) != -1 &&
           last_client().remote_addr.sin_port == sender.sin_port;
}

// Answers to `sender` from now on, from a port of their own. False when no socket can be made.
bool take_up_client(const sockaddr_in& sender) {
    last_client() = {1, sender};
    const MutexGuard guard(&g_client_mutex);
    // The old number stands until the new one does: without the lock it is only compared with -1,
    // and an answer that comes meanwhile waits for the new client instead of going to the device.
    if (load_shared(g_loc_udp_at_server_send_socket) != -1)
        close(load_shared(g_loc_udp_at_server_send_socket));
    const int send_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    store_shared(g_loc_udp_at_server_send_socket, send_socket);
    if (send_socket < 0) {
        perror("init_udp_at_server_send_socket error.");
        return false;
    }
    g_udp_sock_to_client_addr = sender;
    g_udp_sock_to_client_addr.sin_family = AF_INET;
    VEXA_PRINT("!!!!!  the client we recv msg is a different one new fd:%d. !!!!!!!.\r\n",
               send_socket);
    return true;
}

// False when the sender cannot be answered any more.
bool settle_client(const sockaddr_in& sender) {
    store_shared(g_at_over_sokcet_enable, 1);
    VEXA_LOG("set g_at_over_sokcet_enable in udp.%d,%d,%d.\r\n", 1, 0, 0);
    print_sender(sender);
    if (!is_served_client(sender))
        return take_up_client(sender);
    VEXA_PRINT("!!!!!  the client we recv msg is the same one  !!!!!!!.\r\n");
    return true;
}

void print_wait(const thread_info_t& tinfo) {
    VEXA_PRINT("recv_udp_cmd_from_client before wait from:<%s>, fd:<%d>, to:<%s>, fd:<%d>. \r\n",
               tinfo.from_file_path, load_shared(*tinfo.from_fd), tinfo.to_file_path,
               load_shared(*tinfo.to_fd));
}

void hand_to_engine(char* buffer, int length, thread_info_t& tinfo) {
    const int result =
        common_input_atcmd_proc(load_shared(g_loc_client_socket_atport), buffer, length,
                                &g_usb_at_port_mode, &g_mut_atport, &g_cond_atport, &tinfo);
    if (result != 0)
        VEXA_LOG("proc atcmd succesfully than send result to udp client .%d,%d,%d.\r\n", result, 0,
                 0);
}

}  // namespace

int send_udp_answer(const char* buffer, int length) {
    const MutexGuard guard(&g_client_mutex);
    return send_udp_result_to_client(load_shared(g_loc_udp_at_server_send_socket), buffer, length,
                                     &g_udp_sock_to_client_addr);
}

void* remote_udp_data_handler(void* thread_info) {
    VEXA_LOG("udp_server_data_handler enter.%d,%d,%d.\r\n", 0, 0, 0);
    bind_input_source(InputSource::udp_server);
    thread_info_t tinfo = *static_cast<const thread_info_t*>(thread_info);
    char buffer[kTextAreaSize] = {};
    g_udp_sock_from_client_addr = {};
    open_receiving_socket();
    while (true) {
        print_wait(tinfo);
        const int length = recv_udp_cmd_from_client(load_shared(g_loc_udp_at_server_socket), buffer,
                                                    kDeviceReadSize, &g_udp_sock_from_client_addr);
        if (length < 1) {
            perror("recv_udp_cmd_from_client nothing sleep. ");
            continue;
        }
        if (!is_answerable(g_udp_sock_from_client_addr)) {
            VEXA_LOG("a datagram of %d bytes has no port to be answered at, dropped.%d.%d.\r\n",
                     length, 0, 0);
            continue;
        }
        if (!settle_client(g_udp_sock_from_client_addr))
            return nullptr;
        hand_to_engine(buffer, length, tinfo);
    }
}
