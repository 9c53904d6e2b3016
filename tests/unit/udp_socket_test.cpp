// The sockets of the UDP AT server: what one receive and one send do.
#include "vexa_socket_server.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <memory>
#include <tuple>

#include "udp_server.h"
#include "vexa_common_def.h"

namespace {

using testing::HasSubstr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

class UdpEnd {
  public:
    UdpEnd() : fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        socklen_t length = sizeof(address);
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    }
    ~UdpEnd() { close(fd); }
    UdpEnd(const UdpEnd&) = delete;
    UdpEnd& operator=(const UdpEnd&) = delete;

    void send_to(const UdpEnd& other, const std::string& bytes) const {
        ASSERT_EQ(sendto(fd, bytes.data(), bytes.size(), 0,
                         reinterpret_cast<const sockaddr*>(&other.address), sizeof(address)),
                  static_cast<ssize_t>(bytes.size()));
    }

    const int fd;
    sockaddr_in address{};
};

struct ReceiveRow {
    const char* name;
    std::string sent;
    int result;
    std::string text;  // what stands in the area as text
};

// By name: without this the padding between the fields is printed, which nobody has set.
void PrintTo(const ReceiveRow& row, std::ostream* out) {
    *out << row.name;
}

class ReceivedDatagram : public testing::TestWithParam<ReceiveRow> {};

TEST_P(ReceivedDatagram, EndsInANulAndTellsItsSender) {
    const UdpEnd server;
    const UdpEnd client;
    const auto area = std::make_unique<std::array<char, kTextAreaSize>>();
    area->fill('x');
    client.send_to(server, GetParam().sent);
    sockaddr_in sender{};
    CaptureStdout();
    EXPECT_EQ(recv_udp_cmd_from_client(server.fd, area->data(), kDeviceReadSize, &sender),
              GetParam().result);
    const std::string output = GetCapturedStdout();
    EXPECT_EQ(std::string(area->data()), GetParam().text);
    EXPECT_EQ(sender.sin_port, client.address.sin_port);
    EXPECT_EQ(sender.sin_addr.s_addr, client.address.sin_addr.s_addr);
    EXPECT_THAT(output, HasSubstr("recv_udp_cmd_from_client enter wait..... sockfd:" +
                                  std::to_string(server.fd) + ",0,0."));
    EXPECT_THAT(output,
                HasSubstr("recv_udp_cmd_from_client(read_len:" + std::to_string(GetParam().result) +
                          "):> 127.0.0.1 " + std::to_string(ntohs(client.address.sin_port)) +
                          " says >: " + GetParam().text +
                          ", len:" + std::to_string(GetParam().text.size()) + "."));
}

INSTANTIATE_TEST_SUITE_P(
    All, ReceivedDatagram,
    testing::Values(
        ReceiveRow{"OneByte", "A", 1, "A"}, ReceiveRow{"ALine", "AT+CGMR\r", 8, "AT+CGMR\r"},
        // a NUL ends the text, not the datagram
        ReceiveRow{"Binary", std::string("AT\0\xff\x01", 5), 5, "AT"},
        ReceiveRow{"OneBelowTheArea", std::string(16383, 'b'), 16383, std::string(16383, 'b')},
        // the NUL takes the spare byte
        ReceiveRow{"TheWholeArea", std::string(16384, 'c'), 16384, std::string(16384, 'c')},
        // the kernel cuts what does not fit
        ReceiveRow{"LargerThanTheArea", std::string(16385, 'd'), 16384, std::string(16384, 'd')}),
    [](const auto& param) { return param.param.name; });

TEST(UdpSocket, AnEmptyDatagramIsNothing) {
    const UdpEnd server;
    const UdpEnd client;
    std::array<char, 8> area{};
    area.fill('x');
    client.send_to(server, "");
    sockaddr_in sender{};
    CaptureStdout();
    EXPECT_EQ(recv_udp_cmd_from_client(server.fd, area.data(), 7, &sender), 0);
    EXPECT_THAT(GetCapturedStdout(), HasSubstr("recv_udp_cmd_from_client error info:Success.\r\n"));
    EXPECT_EQ(area[0], 'x');
}

TEST(UdpSocket, AFailedReceiveTellsWhy) {
    std::array<int, 2> pipe_ends{};
    ASSERT_EQ(pipe(pipe_ends.data()), 0);
    std::array<char, 8> area{};
    sockaddr_in sender{};
    CaptureStdout();
    EXPECT_EQ(recv_udp_cmd_from_client(pipe_ends[0], area.data(), 7, &sender), -1);
    EXPECT_THAT(GetCapturedStdout(), HasSubstr("recv_udp_cmd_from_client error info:Socket "
                                               "operation on non-socket.\r\n"));
    close(pipe_ends[0]);
    close(pipe_ends[1]);
}

TEST(UdpSocket, ReceivingWithBadArgumentsGivesZero) {
    std::array<char, 8> area{};
    sockaddr_in sender{};
    CaptureStdout();
    EXPECT_EQ(recv_udp_cmd_from_client(-1, area.data(), 7, &sender), 0);
    EXPECT_EQ(recv_udp_cmd_from_client(0, nullptr, 7, &sender), 0);
    EXPECT_EQ(recv_udp_cmd_from_client(0, area.data(), 7, nullptr), 0);
    const std::string output = GetCapturedStdout();
    EXPECT_THAT(output, HasSubstr("recv_udp_cmd_from_client input error. sockfd:-1,0,0."));
    EXPECT_THAT(output, HasSubstr("recv_udp_cmd_from_client input error. sockfd:0,0,0."));
    EXPECT_THAT(output, testing::Not(HasSubstr("enter wait")));
}

TEST(UdpSocket, SendingWithBadArgumentsGivesZero) {
    const sockaddr_in address{};
    CaptureStdout();
    EXPECT_EQ(send_udp_result_to_client(0, nullptr, 1, &address), 0);
    EXPECT_EQ(send_udp_result_to_client(0, "x", -1, &address), 0);
    EXPECT_EQ(send_udp_result_to_client(0, "x", 1, nullptr), 0);
    EXPECT_EQ(GetCapturedStdout(),
              "send_udp_result_to_client input error.\r\n"
              "send_udp_result_to_client input error.\r\n"
              "send_udp_result_to_client input error.\r\n");
}

TEST(UdpSocket, AnAnswerIsOneDatagramOfTheCountedBytes) {
    const UdpEnd server;
    const UdpEnd client;
    const std::string answer = "\r\nOK\r\nnot to be sent";  // counted bytes, no NUL behind them
    CaptureStdout();
    EXPECT_EQ(send_udp_result_to_client(server.fd, answer.data(), 6, &client.address), 6);
    const std::string output = GetCapturedStdout();
    EXPECT_THAT(output, HasSubstr("send_udp_result_to_client in. send_buf:<\r\nOK\r\n>, "
                                  "ip:<127.0.0.1>, port:<" +
                                  std::to_string(ntohs(client.address.sin_port)) + ">."));
    EXPECT_THAT(output, HasSubstr("send_udp_result_to_client sendto succesfully. send_buf_len:6, "
                                  "send_len:6.\r\n"));
    std::array<char, 64> got{};
    EXPECT_EQ(recv(client.fd, got.data(), got.size(), 0), 6);
    EXPECT_STREQ(got.data(), "\r\nOK\r\n");
}

TEST(UdpSocket, AnEmptyAnswerIsSentAndReportedAsAnError) {
    const UdpEnd server;
    const UdpEnd client;
    CaptureStdout();
    EXPECT_EQ(send_udp_result_to_client(server.fd, "", 0, &client.address), 0);
    EXPECT_THAT(GetCapturedStdout(), HasSubstr("send_udp_result_to_client sendto error.send_len:0, "
                                               "error info:Success.\r\n"));
    char byte = 0;
    EXPECT_EQ(recv(client.fd, &byte, 1, MSG_DONTWAIT), 0) << "a datagram of nothing";
}

TEST(UdpSocket, AnAnswerOfOneByteIsNoError) {
    const UdpEnd server;
    const UdpEnd client;
    CaptureStdout();
    EXPECT_EQ(send_udp_result_to_client(server.fd, "K", 1, &client.address), 1);
    EXPECT_THAT(GetCapturedStdout(), HasSubstr("sendto succesfully. send_buf_len:1, send_len:1."));
}

TEST(UdpSocket, AFailedSendIsOnlyLogged) {
    const UdpEnd client;
    CaptureStdout();
    EXPECT_EQ(send_udp_result_to_client(-1, "OK", 2, &client.address), -1);
    EXPECT_THAT(GetCapturedStdout(),
                HasSubstr("send_udp_result_to_client sendto error.send_len:-1, error info:Bad "
                          "file descriptor.\r\n"));
}

static_assert(sizeof(vexa_udp_sock_addr_t) == 20);
static_assert(offsetof(vexa_udp_sock_addr_t, flag) == 0);
static_assert(offsetof(vexa_udp_sock_addr_t, remote_addr) == 4);
static_assert(std::tuple_size_v<decltype(g_udp_sock_client_addr_array)> == 5);

TEST(UdpServerState, ServesNobodyAtStart) {
    EXPECT_EQ(g_at_over_sokcet_enable, 0);
    EXPECT_EQ(g_loc_udp_at_server_socket, -1);
    EXPECT_EQ(g_loc_udp_at_server_send_socket, -1);
    for (const vexa_udp_sock_addr_t& slot : g_udp_sock_client_addr_array) {
        EXPECT_EQ(slot.flag, 0);
        EXPECT_EQ(slot.remote_addr.sin_family, 0);
        EXPECT_EQ(slot.remote_addr.sin_port, 0);
        EXPECT_EQ(slot.remote_addr.sin_addr.s_addr, 0U);
    }
    CaptureStdout();
    EXPECT_EQ(send_udp_answer("OK", 2), -1);
    GetCapturedStdout();
}

}  // namespace
