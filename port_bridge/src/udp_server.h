// AT over UDP: datagrams enter the engine as AT-port input, answers leave by write_to_device.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>

struct vexa_udp_sock_addr_t {
    int32_t flag;  // 1 once the slot holds a client
    sockaddr_in remote_addr;
};
static_assert(sizeof(sockaddr_in) == 16);

// Through shared_int.h: written by the server's thread (the first also by the host readers, which
// clear it), read by everybody who writes to the AT port.
extern int g_at_over_sokcet_enable;          // 1: AT-port answers go to the UDP client
extern int g_loc_udp_at_server_socket;       // receives; -1 when closed
extern int g_loc_udp_at_server_send_socket;  // sends answers; -1 when there is no client

// The server thread's own: the client a datagram last came from (slot 0 only), and the sender of
// the last datagram.
extern std::array<vexa_udp_sock_addr_t, 5> g_udp_sock_client_addr_array;
extern sockaddr_in g_udp_sock_from_client_addr;
// Where answers go; under the client lock (udp_server.cpp).
extern sockaddr_in g_udp_sock_to_client_addr;

// Sends an answer to the current client on the current send socket; the pair is read and used
// under one lock, so that a client change never closes a socket in use. Result as
// send_udp_result_to_client (vexa_socket_server.h). Any thread.
int send_udp_answer(const char* buffer, int length);

// Thread entry; the argument is the AT port's host-to-CP thread_info_t. Ends only when no socket
// for answers can be made.
void* remote_udp_data_handler(void* thread_info);
