// The QMI service's road to the modem: AT text to the local UDP AT server, its answer back.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <string_view>

// How an answer is collected.
enum VEXA_MBIM_AT_TYPE : int {
    VEXA_MBIM_AT_REQ = 0,
    VEXA_MBIM_AT_RSP = 1,  // datagrams up to a final result
    VEXA_MBIM_AT_IND = 2,  // one datagram
};

// Service thread only, without a lock.
extern int socket_fd;           // towards the UDP AT server; -1 when closed
extern sockaddr_in local_addr;  // where to send; after a receive, the sender

// 0, or -1 when the socket cannot be made or set up.
int udp_socket_init();
// 0, or -1 after closing the socket. `text` is sent as it is.
int send_at_with_udp_socket(std::string_view text);
// Appends to the text in `resp_buf` (`resp_size` bytes with the NUL). 0 at a final result, after
// one datagram of an indication, or when more than kMbimAtTextSize bytes came; -1 after seven
// waits of 2 s, counted over the whole answer, that brought nothing.
int recv_at_with_udp_socket(char* resp_buf, std::size_t resp_size, int type);

// Whether a datagram's text ends an answer: a final result code (ITU-T V.250 5.7.1) or the prompt
// of a text entry.
bool ends_answer(std::string_view text);
