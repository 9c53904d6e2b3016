// AT over UDP: datagrams enter the engine as AT-port input, answers leave by write_to_device.
#pragma once

#include <netinet/in.h>

#include <cstdint>

struct vexa_udp_sock_addr_t {
    int32_t flag;  // 1 once the slot holds a client
    sockaddr_in remote_addr;
};

extern int g_at_over_sokcet_enable;          // 1: AT-port answers go to the UDP client
extern int g_loc_udp_at_server_socket;       // receives; -1 when closed
extern int g_loc_udp_at_server_send_socket;  // sends answers; -1 when there is no client

// The answer address under its lock, for write_to_device.
sockaddr_in udp_answer_address();
// Sends an answer to the current client on the current send socket; the pair is read and used
// under one lock, so that a client change never closes a socket in use. Result as
// send_udp_result_to_client (vexa_socket_server.h).
int send_udp_answer(const char* buffer, int length);

void* remote_udp_data_handler(void* thread_info);
