// Sockets of the UDP AT server. Its thread makes and reads them; whoever sends an answer holds the
// client lock (udp_server.cpp).
#pragma once

#include <netinet/in.h>

inline constexpr int kUdpAtServerPort = 5555;

// The descriptor bound to port 5555 on all addresses, or -1 after the system's error text.
int init_udp_at_server_socket(void);
// Result of recvfrom; stores a NUL behind what came, so the area needs one byte more than
// `recv_buf_len`. 0 for bad arguments.
int recv_udp_cmd_from_client(int sockfd, char* recv_buf, int recv_buf_len,
                             sockaddr_in* client_addr);
// Result of sendto; 0 for bad arguments.
int send_udp_result_to_client(int sockfd, const char* send_buf, int send_buf_len,
                              const sockaddr_in* client_addr);
