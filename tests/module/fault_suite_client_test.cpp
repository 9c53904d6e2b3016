// A client inside the module misbehaves, one of the UDP server's or of the QMI service's, while all
// the other roads are used.
//
// Without sense: a UDP client that half-closes (datagrams know no end) or refuses (the kernel says
// so for a client that vanished: the same row); a QMI client that refuses, since nobody calls it.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstring>

#include "faulted_module.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* kUnsolicited = "\r\n+CREG: 1\r\n";

void nothing(FaultedModule& /*faulted*/) {}

// --- UDP

void take_up_another(FaultedModule& faulted) {
    faulted.traffic.add(udp_road(faulted.module));
}

// Its command is on its way, and nobody is left for the answer.
void udp_vanish(FaultedModule& faulted) {
    faulted.traffic.silence_modem(1, true);
    {
        UdpClient gone = faulted.module.udp_client();
        gone.send("AT+COPS?\r");
        faulted.traffic.run_until([&] { return !faulted.module.at_channel().received().empty(); },
                                  "the command");
    }
    faulted.traffic.silence_modem(1, false);
    faulted.traffic.run(1);
}

void bind_to(const UdpClient& client, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(client.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
        << strerror(errno);
}

// Every time from the port that it had before.
void udp_return_thrice(FaultedModule& faulted) {
    for (int time = 0; time < 3; ++time) {
        UdpClient client = faulted.module.udp_client();
        bind_to(client, 6001);
        client.send("x");
        client.expect("x");
        faulted.traffic.run(1);
    }
}

// What it does not take the kernel drops.
void udp_leave_unread(FaultedModule& faulted) {
    UdpClient deaf = faulted.module.udp_client();
    const int least = 1;
    setsockopt(deaf.fd(), SOL_SOCKET, SO_RCVBUF, &least, sizeof least);
    deaf.send("x");
    deaf.expect("x");
    constexpr int kMessages = 300;
    const DeviceControl channel = faulted.module.device(faulted.module.at_channel().path());
    const int polls = channel.polls();
    for (int time = 0; time < kMessages; ++time) {
        faulted.module.at_channel().send(kUnsolicited);
        faulted.traffic.step(0ms);
    }
    // Else whoever speaks next on the AT port has the rest of them.
    faulted.traffic.run_until([&] { return channel.polls() >= polls + kMessages; },
                              "all that the modem said to be read");
}

void udp_send_piecemeal(FaultedModule& faulted) {
    UdpClient client = faulted.module.udp_client();
    const std::string line = "AT+CFUN=0\r";
    for (const char& byte : line.substr(0, line.size() - 1)) {
        client.send({&byte, 1});
        client.expect({&byte, 1});  // single bytes are echoed
    }
    client.send("\r");
    client.expect("\r");
    std::string answer;
    faulted.traffic.run_until(
        [&] {
            char bytes[256];
            const ssize_t got = recv(client.fd(), bytes, sizeof bytes, MSG_DONTWAIT);
            answer.append(bytes, got > 0 ? static_cast<std::size_t>(got) : 0);
            return answer == "\r\n+N: 0 modem\r\n\r\nOK\r\n";
        },
        "the answer to a command in pieces");
}

// The kernel may drop the marker while its queue is full.
void wait_for_echo(FaultedModule& faulted) {
    UdpClient marker = faulted.module.udp_client();
    auto next_try = std::chrono::steady_clock::now();
    faulted.traffic.run_until(
        [&] {
            if (std::chrono::steady_clock::now() >= next_try) {
                marker.send("x");
                next_try += 200ms;
            }
            char byte = 0;
            return recv(marker.fd(), &byte, 1, MSG_DONTWAIT) == 1;
        },
        "the end of the datagrams");
}

void udp_send_garbage(FaultedModule& faulted) {
    UdpClient client = faulted.module.udp_client();
    const std::string bytes = garbage(5000);
    for (std::size_t at = 0; at < bytes.size(); at += 50) {
        client.send(std::string_view(bytes).substr(at, 50));
        faulted.traffic.step(0ms);
    }
    wait_for_echo(faulted);
}

void udp_flood(FaultedModule& faulted) {
    std::vector<UdpClient> clients;
    for (int i = 0; i < 20; ++i) {
        clients.push_back(faulted.module.udp_client());
    }
    for (int i = 0; i < 3000; ++i) {
        clients[static_cast<std::size_t>(i) % clients.size()].send("x");
        if (i % 50 == 0) {
            faulted.traffic.step(0ms);
        }
    }
    wait_for_echo(faulted);
}

// --- QMI

// Its request is on its way.
void qmi_vanish(FaultedModule& faulted) {
    faulted.traffic.silence_modem(1, true);
    faulted.qmi->road().send("AT+COPS?\r");
    faulted.traffic.run_until([&] { return !faulted.module.at_channel().received().empty(); },
                              "the request");
    faulted.qmi->disconnect();
    faulted.traffic.silence_modem(1, false);
    faulted.traffic.run(1);
}

void qmi_come_back(FaultedModule& faulted) {
    faulted.qmi->connect();
}

void qmi_return_thrice(FaultedModule& faulted) {
    for (int time = 0; time < 3; ++time) {
        faulted.qmi->disconnect();
        faulted.qmi->connect();
        faulted.traffic.run(1);
    }
}

// A peer of the service that speaks as the rows below have it.
class RawClient {
  public:
    explicit RawClient(const FaultedModule& faulted)
        : socket_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        faulted.qmi->socket().copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(
            connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
            << strerror(errno);
    }
    void send(std::string_view packet) const {
        (void)!::send(socket_.get(), packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    void half_close() const { shutdown(socket_.get(), SHUT_WR); }

  private:
    bench::UniqueFd socket_;
};

// Kept while a fault lasts; the next one's takes its place.
std::unique_ptr<RawClient>& kept() {
    static std::unique_ptr<RawClient> client;
    return client;
}

void let_go(FaultedModule& /*faulted*/) {
    kept().reset();
}

// It attaches to nothing and asks nothing.
void qmi_stall(FaultedModule& faulted) {
    kept() = std::make_unique<RawClient>(faulted);
}

void qmi_half_close(FaultedModule& faulted) {
    kept() = std::make_unique<RawClient>(faulted);
    kept()->half_close();
}

// Less than a packet's head.
void qmi_write_short(FaultedModule& faulted) {
    kept() = std::make_unique<RawClient>(faulted);
    kept()->send("\x01\x00\x01");
}

void qmi_send_garbage(FaultedModule& faulted) {
    for (int time = 0; time < 20; ++time) {
        const RawClient client(faulted);
        client.send(garbage(100 + static_cast<std::size_t>(time)));
        faulted.traffic.step(0ms);
    }
    faulted.traffic.run(1);
}

// All at once; they are answered one after the other.
void qmi_flood(FaultedModule& faulted) {
    constexpr int kRequests = 30;
    const Road road = faulted.qmi->road();
    for (int i = 0; i < kRequests; ++i) {
        road.send("AT+CFUN=0\r");
    }
    std::string expected;
    for (int i = 0; i < kRequests; ++i) {
        expected += "\r\n+N: 0 modem\r\n\r\nOK\r\n";
    }
    std::string answers;
    faulted.traffic.run_until([&] { return (answers += road.take()).size() >= expected.size(); },
                              "the answers to all requests");
    EXPECT_EQ(answers, expected);
}

// The UART's input would take the answers back in the middle of such a command.
const std::vector<std::string> kWithUart{"at", "udp", "qmi", "uart"};

const std::vector<Fault> kRows = {
    {"UdpVanishes", kWithUart, udp_vanish, take_up_another},
    {"UdpReturns", kWithUart, udp_return_thrice, take_up_another},
    {"UdpStalls", kWithUart, udp_leave_unread, take_up_another},
    {"UdpWritesShort", kWithUart, udp_send_piecemeal, nothing},
    {"UdpSendsGarbage", kWithUart, udp_send_garbage, nothing},
    {"UdpFloods", kWithUart, udp_flood, nothing},
    {"QmiVanishes", kWithUart, qmi_vanish, qmi_come_back},
    {"QmiReturns", {"qmi"}, qmi_return_thrice, nothing},
    {"QmiStalls", {}, qmi_stall, let_go},
    {"QmiHalfCloses", {}, qmi_half_close, let_go},
    {"QmiWritesShort", {}, qmi_write_short, let_go},
    {"QmiSendsGarbage", {}, qmi_send_garbage, nothing},
    {"QmiFloods", kWithUart, qmi_flood, nothing},
};

class FaultSuiteClient : public testing::TestWithParam<Fault> {};

TEST_P(FaultSuiteClient, OthersKeepTheirAnswersAndItIsServedAgain) {
    expect_survived(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Clients, FaultSuiteClient, testing::ValuesIn(kRows),
                         [](const auto& row) { return row.param.name; });

}  // namespace
