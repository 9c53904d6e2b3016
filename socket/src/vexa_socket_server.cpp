#include "vexa_socket_server.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "log.h"
#include "vexa_common_def.h"

namespace {

// Dotted text of an address, in an area of its own: several threads send answers.
class DottedAddress {
  public:
    explicit DottedAddress(const sockaddr_in& address) {
        inet_ntop(AF_INET, &address.sin_addr, text_, sizeof(text_));
    }
    [[nodiscard]] const char* text() const { return text_; }

  private:
    char text_[INET_ADDRSTRLEN] = {};
};

// What is sent is counted bytes without a NUL; a log line wants text.
class LoggedText {
  public:
    explicit LoggedText(std::string_view bytes) {
        const std::size_t length = std::min(bytes.size(), sizeof(text_) - 1);
        memcpy(text_, bytes.data(), length);
        text_[length] = '\0';
    }
    [[nodiscard]] const char* text() const { return text_; }

  private:
    char text_[kTextAreaSize];
};

}  // namespace

int init_udp_at_server_socket(void) {
    const int sockfd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (sockfd < 0) {
        perror("init_udp_at_server_socket error.");
        return -1;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kUdpAtServerPort);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(sockfd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
        perror("init_udp_at_server_socket bind error.");
        close(sockfd);
        return -1;
    }
    VEXA_LOG("init_udp_at_server_socket exit. fd:%d,%d,%d.\r\n", sockfd, 0, 0);
    return sockfd;
}

int recv_udp_cmd_from_client(int sockfd, char* recv_buf, int recv_buf_len,
                             sockaddr_in* client_addr) {
    if (recv_buf == nullptr || client_addr == nullptr || sockfd < 0) {
        VEXA_LOG("recv_udp_cmd_from_client input error. sockfd:%d,%d,%d.\r\n", sockfd, 0, 0);
        return 0;
    }
    VEXA_LOG("recv_udp_cmd_from_client enter wait..... sockfd:%d,%d,%d.\r\n", sockfd, 0, 0);
    socklen_t address_length = sizeof(*client_addr);
    errno = 0;  // an empty datagram leaves it alone, and an old error is not this call's
    const int read_len =
        static_cast<int>(recvfrom(sockfd, recv_buf, static_cast<std::size_t>(recv_buf_len), 0,
                                  reinterpret_cast<sockaddr*>(client_addr), &address_length));
    if (read_len < 1) {
        const int error = errno;
        VEXA_PRINT("recv_udp_cmd_from_client error info:%s.\r\n", strerror(error));
        errno = error;
        return read_len;
    }
    recv_buf[read_len] = '\0';
    VEXA_PRINT("recv_udp_cmd_from_client(read_len:%d):> %s %u says >: %s, len:%d.\r\n", read_len,
               DottedAddress(*client_addr).text(), ntohs(client_addr->sin_port), recv_buf,
               static_cast<int>(strlen(recv_buf)));
    return read_len;
}

int send_udp_result_to_client(int sockfd, const char* send_buf, int send_buf_len,
                              const sockaddr_in* client_addr) {
    if (send_buf == nullptr || client_addr == nullptr || send_buf_len < 0) {
        VEXA_PRINT("send_udp_result_to_client input error.\r\n");
        return 0;
    }
    const auto length = static_cast<std::size_t>(send_buf_len);
    VEXA_LOG("send_udp_result_to_client in. send_buf:<%s>, ip:<%s>, port:<%u>.\r\n",
             LoggedText({send_buf, length}).text(), DottedAddress(*client_addr).text(),
             ntohs(client_addr->sin_port));
    errno = 0;  // sending 0 bytes leaves it alone, and an old error is not this call's
    const int send_len = static_cast<int>(sendto(sockfd, send_buf, length, 0,
                                                 reinterpret_cast<const sockaddr*>(client_addr),
                                                 sizeof(*client_addr)));
    const int error = errno;
    if (send_len < 1)
        VEXA_PRINT("send_udp_result_to_client sendto error.send_len:%d, error info:%s.\r\n",
                   send_len, strerror(error));
    else
        VEXA_PRINT(
            "send_udp_result_to_client sendto succesfully. send_buf_len:%d, send_len:%d.\r\n",
            send_buf_len, send_len);
    errno = error;
    return send_len;
}
