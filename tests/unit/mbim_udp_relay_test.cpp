// How the QMI service collects an answer from the UDP AT server's datagrams.
#include "mbim_udp_relay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>

#include "system_calls.h"
#include "vexa_mbim_service_v01.h"

namespace {

using testing::HasSubstr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

struct FinalRow {
    std::string text;
    bool is_final;
};

TEST(FinalResult, IsSeenInOneDatagram) {
    const std::vector<FinalRow> rows = {
        {"OK\r\n", true},
        {"ok\r\n", true},
        {"\r\nOK\r\n", true},
        {"ERROR\r\n", true},
        {"error\r\n", true},
        {"+CME ERROR: 10\r\n", false},  // the number stands before the line end
        {"NO CARRIER", true},           // its line end is not waited for
        {"no carrier", true},
        {"\r\n> ", true},  // the prompt of a text entry
        {"+CSQ: 9>1", true},
        {"OK\r", false},
        {"OK", false},
        {"Ok\r\n", false},
        {"No Carrier", false},
        {"+CGMR: 1\r\n", false},
        {"", false},
    };
    for (const FinalRow& row : rows) EXPECT_EQ(ends_answer(row.text), row.is_final) << row.text;
}

static_assert(VEXA_MBIM_AT_REQ == 0 && VEXA_MBIM_AT_RSP == 1 && VEXA_MBIM_AT_IND == 2);

TEST(UdpRelayAtStart, HasNoSocketAndKnowsItsServer) {
    EXPECT_EQ(socket_fd, -1);
    EXPECT_EQ(local_addr.sin_family, AF_INET);
    EXPECT_EQ(ntohs(local_addr.sin_port), 5555);
    EXPECT_EQ(ntohl(local_addr.sin_addr.s_addr), 0x7F000001U);
}

TEST(UdpRelayAtStart, ItsSocketIsADatagramSocketWithoutAPort) {
    CaptureStdout();
    ASSERT_EQ(udp_socket_init(), 0);
    EXPECT_THAT(GetCapturedStdout(), HasSubstr("+++++++++++++++++++0.0.0\n"));
    int protocol = 0;
    socklen_t length = sizeof(protocol);
    EXPECT_EQ(getsockopt(socket_fd, SOL_SOCKET, SO_PROTOCOL, &protocol, &length), 0);
    EXPECT_EQ(protocol, IPPROTO_UDP);
    sockaddr_in own{};
    length = sizeof(own);
    EXPECT_EQ(getsockname(socket_fd, reinterpret_cast<sockaddr*>(&own), &length), 0);
    EXPECT_EQ(own.sin_port, 0);
    timeval time_out{};
    length = sizeof(time_out);
    EXPECT_EQ(getsockopt(socket_fd, SOL_SOCKET, SO_RCVTIMEO, &time_out, &length), 0);
    EXPECT_EQ(time_out.tv_sec, 2) << "a silent modem holds the service so long, seven times over";
    EXPECT_EQ(time_out.tv_usec, 0);
    close(socket_fd);
    socket_fd = -1;
}

// The service's socket with a peer that answers it in advance.
class UdpRelay : public testing::Test {
  protected:
    void SetUp() override {
        CaptureStdout();
        ASSERT_EQ(udp_socket_init(), 0);
        service_.sin_family = AF_INET;
        service_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(bind(socket_fd, reinterpret_cast<sockaddr*>(&service_), sizeof(service_)), 0);
        socklen_t length = sizeof(service_);
        getsockname(socket_fd, reinterpret_cast<sockaddr*>(&service_), &length);
        peer_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    }
    void TearDown() override {
        if (socket_fd >= 0)
            close(socket_fd);
        socket_fd = -1;
        close(peer_);
        if (!output_taken_)
            GetCapturedStdout();
    }
    void say(const std::string& datagram) const {
        ASSERT_EQ(sendto(peer_, datagram.data(), datagram.size(), 0,
                         reinterpret_cast<const sockaddr*>(&service_), sizeof(service_)),
                  static_cast<ssize_t>(datagram.size()));
    }
    // What is left for the next receive.
    [[nodiscard]] std::string next_datagram() const {
        std::array<char, 2048> bytes{};
        const ssize_t length = recv(socket_fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
        return length < 0 ? "nothing" : std::string(bytes.data(), static_cast<size_t>(length));
    }
    std::string output() {
        output_taken_ = true;
        return GetCapturedStdout();
    }

    std::array<char, kMbimAtTextSize> text_{};

  private:
    sockaddr_in service_{};
    int peer_ = -1;
    bool output_taken_ = false;
};

TEST_F(UdpRelay, AReplyOfTwoDatagramsIsTheirConcatenation) {
    say("\r\n+CGMR: 1.0\r\n");
    say("\r\nOK\r\n");
    say("later");
    EXPECT_EQ(recv_at_with_udp_socket(text_.data(), text_.size(), VEXA_MBIM_AT_RSP), 0);
    EXPECT_STREQ(text_.data(), "\r\n+CGMR: 1.0\r\n\r\nOK\r\n");
    EXPECT_EQ(next_datagram(), "later");
    const std::string printed = output();
    EXPECT_THAT(printed, HasSubstr("====receive(\r\n+CGMR: 1.0\r\n)."));
    EXPECT_THAT(printed, HasSubstr("!!!!!<<<<<<<<<<<<<<<<<<<< at is end "
                                   "<<<<<<<<<<<<<<<<<<<!!!!!0,0,0.\r\n"));
}

TEST_F(UdpRelay, AFinalResultSplitAcrossTwoDatagramsIsNotSeen) {
    say("\r\nO");
    say("K\r\n");
    say("\r\nOK\r\n");
    EXPECT_EQ(recv_at_with_udp_socket(text_.data(), text_.size(), VEXA_MBIM_AT_RSP), 0);
    EXPECT_STREQ(text_.data(), "\r\nOK\r\n\r\nOK\r\n");
}

TEST_F(UdpRelay, TheSenderOfTheLastDatagramIsRemembered) {
    say("OK\r\n");
    local_addr.sin_port = 0;
    EXPECT_EQ(recv_at_with_udp_socket(text_.data(), text_.size(), VEXA_MBIM_AT_RSP), 0);
    EXPECT_NE(local_addr.sin_port, 0);
}

TEST_F(UdpRelay, AnIndicationIsOneDatagram) {
    say("+CREG: 1");
    say("+CREG: 2");
    EXPECT_EQ(recv_at_with_udp_socket(text_.data(), text_.size(), VEXA_MBIM_AT_IND), 0);
    EXPECT_STREQ(text_.data(), "+CREG: 1");
    EXPECT_EQ(next_datagram(), "+CREG: 2");
}

TEST_F(UdpRelay, TextBehindANulIsNotTaken) {
    say(std::string("+A\0OK\r\n", 7));
    say("OK\r\n");
    EXPECT_EQ(recv_at_with_udp_socket(text_.data(), text_.size(), VEXA_MBIM_AT_RSP), 0);
    EXPECT_STREQ(text_.data(), "+AOK\r\n");
}

TEST_F(UdpRelay, ExactlyTheAreasSizeLosesOnlyTheByteOfTheNul) {
    say(std::string(1020, 'a'));
    say("OK\r\n");
    say("later");
    EXPECT_EQ(recv_at_with_udp_socket(text_.data(), text_.size(), VEXA_MBIM_AT_RSP), 0);
    std::string wanted(1020, 'a');
    wanted += "OK\r";
    EXPECT_EQ(std::string(text_.data()), wanted);
    EXPECT_EQ(next_datagram(), "later");
}

TEST_F(UdpRelay, OneByteMoreCutsTheAnswerAtThePreviousDatagram) {
    say(std::string(1021, 'a'));
    say("OK\r\n");
    say("later");
    EXPECT_EQ(recv_at_with_udp_socket(text_.data(), text_.size(), VEXA_MBIM_AT_RSP), 0);
    EXPECT_EQ(std::string(text_.data()), std::string(1021, 'a'));
    EXPECT_EQ(next_datagram(), "later");
}

TEST_F(UdpRelay, ALargerDatagramIsCutByTheKernel) {
    say(std::string(3000, 'a'));
    EXPECT_EQ(recv_at_with_udp_socket(text_.data(), text_.size(), VEXA_MBIM_AT_IND), 0);
    EXPECT_EQ(std::string(text_.data()), std::string(1023, 'a'));
}

TEST_F(UdpRelay, AReplyOfManyDatagramsIsCollected) {
    std::string wanted;
    for (int i = 0; i < 100; ++i) {
        say("line " + std::to_string(i) + "\n");
        wanted += "line " + std::to_string(i) + "\n";
    }
    say("OK\r\n");
    EXPECT_EQ(recv_at_with_udp_socket(text_.data(), text_.size(), VEXA_MBIM_AT_RSP), 0);
    EXPECT_EQ(std::string(text_.data()), wanted + "OK\r\n");
}

TEST_F(UdpRelay, TheSeventhFailedReceiveGivesUp) {
    // A socket that never waits: every receive fails at once.
    ASSERT_EQ(fcntl(socket_fd, F_SETFL, O_NONBLOCK), 0);
    say("half an answer");
    EXPECT_EQ(recv_at_with_udp_socket(text_.data(), text_.size(), VEXA_MBIM_AT_RSP), -1);
    EXPECT_STREQ(text_.data(), "half an answer");
    EXPECT_THAT(output(), HasSubstr("n_retry 6.0.0.\r\n"));
}

struct FailureRow {
    int before;  // failed receives before the datagram
    int after;   // and after it
    int result;
};

TEST_F(UdpRelay, ADatagramDoesNotForgiveEarlierFailures) {
    for (const FailureRow& row :
         {FailureRow{3, 3, 0}, FailureRow{3, 4, -1}, FailureRow{6, 1, -1}}) {
        SystemCalls system;
        text_ = {};
        for (int i = 0; i < row.before; ++i) system.answer(Call::recvfrom, -1, EAGAIN);
        system.answer(Call::recvfrom, 0);
        for (int i = 0; i < row.after; ++i) system.answer(Call::recvfrom, -1, EAGAIN);
        say("half");
        say("OK\r\n");
        EXPECT_EQ(recv_at_with_udp_socket(text_.data(), text_.size(), VEXA_MBIM_AT_RSP), row.result)
            << row.before << " and " << row.after;
        EXPECT_STREQ(text_.data(), row.result == 0 ? "halfOK\r\n" : "half");
        EXPECT_EQ(next_datagram(), row.result == 0 ? "nothing" : "OK\r\n");
    }
}

TEST_F(UdpRelay, EveryFailedReceiveOfAnIndicationCountsToo) {
    SystemCalls system;
    for (int i = 0; i < 7; ++i) system.answer(Call::recvfrom, -1, EAGAIN);
    say("+CREG: 1");
    EXPECT_EQ(recv_at_with_udp_socket(text_.data(), text_.size(), VEXA_MBIM_AT_IND), -1);
    EXPECT_EQ(system.count(Call::recvfrom), 7);
    EXPECT_EQ(next_datagram(), "+CREG: 1");
}

TEST_F(UdpRelay, WhatIsSentIsLogged) {
    SystemCalls system;
    system.answer(Call::sendto, 5);
    const std::string number = std::to_string(socket_fd);
    EXPECT_EQ(send_at_with_udp_socket("ATE0\r"), 0);
    EXPECT_THAT(output(), HasSubstr("5 send(ATE0\r) to fd(" + number + ")\n"));
}

TEST_F(UdpRelay, AnEmptyTextIsSent) {
    const int before = socket_fd;
    EXPECT_EQ(send_at_with_udp_socket(""), 0);
    EXPECT_EQ(socket_fd, before);
    EXPECT_THAT(output(), HasSubstr("0 send() to fd(" + std::to_string(before) + ")\n"));
}

TEST_F(UdpRelay, AnEmptyDatagramIsNoFailure) {
    // Seven failures would give up.
    for (int i = 0; i < 7; ++i) say("");
    say("OK\r\n");
    std::array<char, 64> answer{};
    EXPECT_EQ(recv_at_with_udp_socket(answer.data(), answer.size(), VEXA_MBIM_AT_RSP), 0);
    EXPECT_STREQ(answer.data(), "OK\r\n");
}

TEST_F(UdpRelay, AReceiveWaitsAtLeastTwoSeconds) {
    const auto start = std::chrono::steady_clock::now();
    std::array<char, 8> bytes{};
    EXPECT_EQ(recv(socket_fd, bytes.data(), bytes.size(), 0), -1);
    // The kernel counts in ticks of its own: 10 ms of slack at the lower side.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1990));
}

TEST_F(UdpRelay, AFailedSendClosesTheSocket) {
    close(socket_fd);
    socket_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    const int lost = socket_fd;
    EXPECT_EQ(send_at_with_udp_socket("AT\r"), -1);
    EXPECT_EQ(socket_fd, -1);
    EXPECT_EQ(fcntl(lost, F_GETFD), -1);
    EXPECT_THAT(output(), HasSubstr("failed to send error.-1.0.0\r\n"));
}

}  // namespace
