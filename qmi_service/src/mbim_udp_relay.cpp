#include "mbim_udp_relay.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "log.h"
#include "vexa_mbim_service_v01.h"
#include "vexa_socket_server.h"

namespace {

constexpr timeval kReceiveTimeout = {2, 0};
constexpr int kMostFailures = 5;  // beyond this many the next one gives up

sockaddr_in udp_at_server() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kUdpAtServerPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// One datagram as text: a NUL in it ends it.
class Datagram {
  public:
    // As recvfrom.
    int receive() {
        socklen_t address_length = sizeof(local_addr);
        const ssize_t length = recvfrom(socket_fd, text_.data(), kMbimAtTextSize, 0,
                                        reinterpret_cast<sockaddr*>(&local_addr), &address_length);
        text_[length < 0 ? 0 : static_cast<std::size_t>(length)] = '\0';
        return static_cast<int>(length);
    }
    [[nodiscard]] const char* text() const { return text_.data(); }

  private:
    std::array<char, kMbimAtTextSize + 1> text_{};
};

void append_text(char* area, std::size_t area_size, std::string_view text) {
    const std::size_t length = strnlen(area, area_size - 1);
    const std::size_t added = std::min(text.size(), area_size - 1 - length);
    memcpy(area + length, text.data(), added);
    area[length + added] = '\0';
}

// False after the wait that gives up.
bool receive_or_retry(Datagram& datagram, int& failures, int& length) {
    while (true) {
        length = datagram.receive();
        if (length >= 0)
            return true;
        if (failures > kMostFailures) {
            VEXA_LOG("n_retry %d.%d.%d.\r\n", failures, 0, 0);
            return false;
        }
        ++failures;
    }
}

}  // namespace

int socket_fd = -1;
sockaddr_in local_addr = udp_at_server();

int udp_socket_init() {
    VEXA_LOG("+++++++++++++++++++%d.%d.%d\n", 0, 0, 0);
    socket_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (socket_fd < 0) {
        VEXA_LOG("init_udp_at_server_socket error.%d.%d.%d\r\n", socket_fd, 0, 0);
        return -1;
    }
    if (setsockopt(socket_fd, SOL_SOCKET, SO_RCVTIMEO, &kReceiveTimeout, sizeof(kReceiveTimeout)) <
        0) {
        // Without its time-out one silent modem would hold the service for ever.
        VEXA_LOG("set timeout failed error.%d.%d.%d\r\n", socket_fd, 0, 0);
        close(socket_fd);
        socket_fd = -1;
        return -1;
    }
    return 0;
}

int send_at_with_udp_socket(std::string_view text) {
    local_addr = udp_at_server();
    const ssize_t sent = sendto(socket_fd, text.data(), text.size(), 0,
                                reinterpret_cast<const sockaddr*>(&local_addr), sizeof(local_addr));
    if (sent < 0) {
        VEXA_LOG("failed to send error.%d.%d.%d\r\n", static_cast<int>(sent), 0, 0);
        close(socket_fd);
        socket_fd = -1;
        return -1;
    }
    std::array<char, kMbimAtTextSize + 1> logged{};
    append_text(logged.data(), logged.size(), text);
    VEXA_LOG("%d send(%s) to fd(%d)\n", static_cast<int>(sent), logged.data(), socket_fd);
    return 0;
}

int recv_at_with_udp_socket(char* resp_buf, std::size_t resp_size, int type) {
    std::size_t total = 0;
    int failures = 0;
    while (true) {
        Datagram datagram;
        int length = 0;
        if (!receive_or_retry(datagram, failures, length))
            return -1;
        total += static_cast<std::size_t>(length);
        if (total > kMbimAtTextSize)
            return 0;
        append_text(resp_buf, resp_size, datagram.text());
        printf("====receive(%s).%d.%d.%d\r\n", datagram.text(), length, 0, 0);
        if (type == VEXA_MBIM_AT_IND)
            return 0;
        if (!ends_answer(datagram.text()))
            continue;
        printf("!!!!!<<<<<<<<<<<<<<<<<<<< at is end <<<<<<<<<<<<<<<<<<<!!!!!%d,%d,%d.\r\n", 0, 0,
               0);
        return 0;
    }
}

bool ends_answer(std::string_view text) {
    constexpr std::array<std::string_view, 7> kEnds = {
        "ok\r\n", "OK\r\n", "error\r\n", "ERROR\r\n", "no carrier", "NO CARRIER", ">",
    };
    return std::any_of(kEnds.begin(), kEnds.end(), [text](std::string_view end) {
        return text.find(end) != std::string_view::npos;
    });
}
