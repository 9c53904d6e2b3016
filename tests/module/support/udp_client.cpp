#include "udp_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "module.h"

namespace {

constexpr std::uint16_t kServerPort = 5555;

}  // namespace

void UdpClient::send(std::string_view datagram) {
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(kServerPort);
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    (void)!sendto(socket_.get(), datagram.data(), datagram.size(), 0,
                  reinterpret_cast<sockaddr*>(&server), sizeof server);
}

std::string UdpClient::expect_datagram(Here here) {
    std::string datagram(65536, '\0');
    ssize_t got = -1;
    module_.wait_until(
        [&] {
            got = recv(socket_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT);
            return got >= 0;
        },
        "a datagram", here);
    datagram.resize(static_cast<std::size_t>(got));
    return datagram;
}

void UdpClient::expect(std::string_view datagram, Here here) {
    const std::string got = expect_datagram(here);
    if (got != datagram) {
        module_.fail("expected the datagram \"" + bench::visible(datagram) + "\", got \"" +
                         bench::visible(got) + "\"",
                     here);
    }
}
