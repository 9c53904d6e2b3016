// One message to and from the platform, over a socket pair.
#include "vexa_socket_client.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <random>
#include <string>

#include "platform_pack.h"
#include "system_calls.h"

namespace {

using namespace std::literals;
using testing::HasSubstr;

struct Pair {
    int daemon = -1;
    int platform = -1;

    Pair() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        daemon = ends[0];
        platform = ends[1];
    }
    ~Pair() {
        close(daemon);
        hang_up();
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;
    void hang_up() {
        if (platform >= 0)
            close(platform);
        platform = -1;
    }
    void put(std::string_view bytes) const {
        ASSERT_EQ(send(platform, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    std::string take() const {
        std::string bytes(kPackAreaSize, '\0');
        const ssize_t size = recv(platform, bytes.data(), bytes.size(), MSG_DONTWAIT);
        bytes.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
        return bytes;
    }
};

std::string pack_of(std::string_view payload, cmd_enum_type cmd_type = CMD_AT_CMD) {
    std::string area(payload.size() + kPackHeadsSize, '\0');
    build_pack(area, cmd_type, payload);
    return area;
}

struct Received {
    int result;
    std::string text;
    int32_t cmd_type;
};

struct AnswerArea {
    std::unique_ptr<char[]> bytes = std::make_unique<char[]>(kTextAreaSize);
};

Received receive(int sockfd) {
    const AnswerArea area;
    vexa_ext_info info{MSG_SYNC, CMD_INVALID, -7};
    const int result = client_recv_data_from_platform(sockfd, area.bytes.get(), kDeviceReadSize,
                                                      MSG_DONTWAIT, &info);
    EXPECT_EQ(info.m_type, MSG_SYNC) << "not written by a receive";
    EXPECT_EQ(info.data_len, -7) << "not written by a receive";
    return {result, area.bytes.get(), info.cmd_type};
}

int send_message(int sockfd, std::string_view text, int mode, int flag = 0) {
    char answer[16] = {};
    int answer_length = 99;
    vexa_ext_info info{MSG_SYNC, mode, static_cast<int32_t>(text.size())};
    const int result = client_send_msg(sockfd, text.data(), static_cast<int>(text.size()), flag,
                                       answer, &answer_length, &info);
    EXPECT_EQ(answer_length, 0);
    return result;
}

TEST(ClientSendMsg, AThreeByteCommandIsA47BytePack) {
    const Pair pair;
    EXPECT_EQ(send_message(pair.daemon, "AT\r", USB_PORT_ATCMD_MODE), 47);
    const std::string bytes = pair.take();
    ASSERT_EQ(bytes.size(), 47u);
    EXPECT_EQ(bytes.substr(4, 4), "\x2f\0\0\0"s);
    EXPECT_EQ(bytes.substr(36, 4), "\3\0\0\0"s);
    EXPECT_EQ(bytes.substr(44), "AT\r");
}

TEST(ClientSendMsg, PppModeIsSentAsIndication) {
    const Pair pair;
    EXPECT_EQ(send_message(pair.daemon, "x", USB_PORT_PPP_MODE), 45);
    EXPECT_EQ(pair.take()[20], CMD_IND);
}

TEST(ClientSendMsg, DataGoesThroughByLengthNulIncluded) {
    const Pair pair;
    EXPECT_EQ(send_message(pair.daemon, "a\0b"sv, USB_PORT_DATA_MODE), 47);
    const std::string bytes = pair.take();
    EXPECT_EQ(bytes.substr(44), "a\0b"s);
    EXPECT_EQ(bytes[20], CMD_AT_DATA);
}

// A packet socket keeps the borders of sends, and refuses this flag.
TEST(ClientSendMsg, APackIsOneSendWithTheCallersFlag) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    EXPECT_EQ(send_message(ends[0], "AT\r", USB_PORT_ATCMD_MODE, MSG_OOB), -1);
    EXPECT_EQ(send_message(ends[0], "AT\r", USB_PORT_ATCMD_MODE), 47);
    char packet[64];
    EXPECT_EQ(recv(ends[1], packet, sizeof packet, MSG_DONTWAIT), 47);
    EXPECT_EQ(recv(ends[1], packet, sizeof packet, MSG_DONTWAIT), -1);
    close(ends[0]);
    close(ends[1]);
}

TEST(ClientSendMsg, BadArgumentsAreRefused) {
    const Pair pair;
    char answer[4] = {};
    int length = 7;
    vexa_ext_info info{};
    EXPECT_EQ(client_send_msg(pair.daemon, "AT", 0, 0, answer, &length, &info), -1);
    EXPECT_EQ(client_send_msg(pair.daemon, nullptr, 2, 0, answer, &length, &info), -1);
    EXPECT_EQ(client_send_msg(pair.daemon, "AT", 2, 0, nullptr, &length, &info), -1);
    EXPECT_EQ(client_send_msg(-1, "AT", 2, 0, answer, &length, &info), -1);
    EXPECT_EQ(client_send_msg(pair.daemon, "AT", 2, 0, answer, nullptr, &info), -1);
    EXPECT_EQ(client_send_msg(pair.daemon, "AT", 2, 0, answer, &length, nullptr), -1);
    EXPECT_EQ(length, 7) << "outputs are untouched on bad arguments";
    EXPECT_EQ(pair.take(), "");
}

TEST(ClientSendMsg, APlatformThatDiedIsAFailedSendAndNoSignal) {
    Pair pair;
    pair.hang_up();
    testing::internal::CaptureStdout();
    EXPECT_LT(send_message(pair.daemon, "AT\r", USB_PORT_ATCMD_MODE), 0);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("send data failed,fd:"));
}

TEST(ClientSendMsgDeathTest, APayloadOverTheAreaStopsTheProcess) {
    const Pair pair;
    const std::string largest(kSentPayloadMax + 1, 'x');
    EXPECT_DEATH(send_message(pair.daemon, largest, USB_PORT_ATCMD_MODE),
                 "payload for the platform of 131029 bytes would overrun its 131028 bytes\n");
}

TEST(ClientSendMsg, TheLargestPayloadFits) {
    const Pair pair;
    const std::string largest(kSentPayloadMax, 'x');
    EXPECT_EQ(send_message(pair.daemon, largest, USB_PORT_ATCMD_MODE, MSG_DONTWAIT), 131072);
}

TEST(ClientReceive, TwoPacksInOneReadAreOneAnswer) {
    const Pair pair;
    pair.put(pack_of("OK", CMD_AT_CMD) + pack_of("\r\n", CMD_AT_DATA));
    const Received received = receive(pair.daemon);
    EXPECT_EQ(received.result, 4);
    EXPECT_EQ(received.text, "OK\r\n");
    EXPECT_EQ(received.cmd_type, CMD_AT_DATA) << "the last pack wins";
}

TEST(ClientReceive, AWrongMagicLeavesTheBufferAsItWas) {
    const Pair pair;
    pair.put("kcaq" + pack_of("OK").substr(4));
    testing::internal::CaptureStdout();
    char area[kTextAreaSize] = "before";
    vexa_ext_info info{MSG_SYNC, CMD_INVALID, 0};
    EXPECT_EQ(
        client_recv_data_from_platform(pair.daemon, area, kDeviceReadSize, MSG_DONTWAIT, &info), 0);
    EXPECT_STREQ(area, "before");
    EXPECT_EQ(info.cmd_type, CMD_INVALID);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("!!!!recv data pack head error.!!!!\n"));
}

TEST(ClientReceive, BadHeadsReadAsNothingAndTheNextMessageIsServed) {
    std::string short_length = pack_of("OK");
    short_length[4] = 43;
    std::string long_length = pack_of("OK");
    long_length[4] = 47;
    std::string huge_length = pack_of("OK");
    huge_length[7] = '\x7f';
    const struct {
        std::string bytes;
        const char* why;
    } rows[] = {
        {"k", "one byte"},
        {short_length, "length below the heads"},
        {long_length, "payload not wholly received"},
        {huge_length, "a length of junk does not stop the process"},
        {pack_of("OK") + "kcap", "a good pack and a short tail: its answer is not reported"},
        {pack_of("OK") + pack_of("x").substr(1), "a good pack and a wrong magic"},
        {std::string(500, '\0'), "zeros do not loop"},
    };
    const Pair pair;
    for (const auto& row : rows) {
        pair.put(row.bytes);
        EXPECT_EQ(receive(pair.daemon).result, 0) << row.why;
        pair.put(pack_of("\r\nOK\r\n"));
        const Received next = receive(pair.daemon);
        EXPECT_EQ(next.result, 6) << row.why;
        EXPECT_EQ(next.text, "\r\nOK\r\n") << row.why;
    }
}

TEST(ClientReceive, APayloadEndsAsTextAtItsNulAndTheTotalCountsAll) {
    const Pair pair;
    pair.put(pack_of("A\0B"sv) + pack_of("CD"));
    const Received received = receive(pair.daemon);
    EXPECT_EQ(received.result, 5);
    EXPECT_EQ(received.text, "ACD");
}

TEST(ClientReceive, AnyMessageHeadIsAccepted) {
    const Pair pair;
    std::string bytes = pack_of("OK");
    assemble_msghead(bytes, {0xFFFFFFFF, MSG_IND, 1});
    vexa_sock_head_t head = disassemble_sockhead(bytes);
    head.data_start = 1;
    head.data_complete = 1;
    head.error_code = -1;
    head.content_len = 12345;
    assemble_sockhead(bytes, head);
    pair.put(bytes);
    EXPECT_EQ(receive(pair.daemon).text, "OK");
}

TEST(ClientReceive, WhatCameIsDumpedToStandardOutput) {
    const Pair pair;
    pair.put("abc");
    testing::internal::CaptureStdout();
    receive(pair.daemon);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("\r\n======= iret:3==========>>>\r\n"
                          "(a) (b) (c) \r\n<<<=================\r\n"));
}

TEST(ClientReceive, ErrorsAndTheEndReadAsNothing) {
    Pair pair;
    EXPECT_EQ(receive(pair.daemon).result, 0) << "nothing there";
    pair.hang_up();
    EXPECT_EQ(receive(pair.daemon).result, 0) << "end of stream";
}

TEST(ClientReceive, WithoutAFlagTheNextPackIsWaitedFor) {
    const Pair pair;
    pair.put(pack_of("OK"));
    const AnswerArea area;
    vexa_ext_info info{};
    EXPECT_EQ(
        client_recv_data_from_platform(pair.daemon, area.bytes.get(), kDeviceReadSize, 0, &info),
        2);
}

TEST(ClientReceive, BadArgumentsAreRefused) {
    const Pair pair;
    char area[kTextAreaSize] = {};
    vexa_ext_info info{};
    EXPECT_EQ(client_recv_data_from_platform(pair.daemon, nullptr, 9, 0, &info), -1);
    EXPECT_EQ(client_recv_data_from_platform(-1, area, 9, 0, &info), -1);
    EXPECT_EQ(client_recv_data_from_platform(pair.daemon, area, 0, 0, &info), -1);
    EXPECT_EQ(client_recv_data_from_platform(pair.daemon, area, 9, -1, &info), -1);
}

TEST(ClientReceive, AnAnswerThatFillsItsAreaIsTaken) {
    const Pair pair;
    const std::string quarter(4096, 'x');
    pair.put(pack_of(quarter) + pack_of(quarter) + pack_of(quarter) + pack_of(quarter));
    const Received received = receive(pair.daemon);
    EXPECT_EQ(received.result, kDeviceReadSize);
    EXPECT_EQ(received.text.size(), static_cast<std::size_t>(kDeviceReadSize));
}

TEST(ClientReceiveDeathTest, AnAnswerOverItsAreaStopsTheProcess) {
    const Pair pair;
    const std::string quarter(4096, 'x');
    pair.put(pack_of(quarter) + pack_of(quarter) + pack_of(quarter) + pack_of(quarter) +
             pack_of("x"));
    EXPECT_DEATH(receive(pair.daemon),
                 "answer of the platform of 16385 bytes would overrun its 16384 bytes\n");
}

TEST(ClientReceiveDeathTest, NulsCountTowardsTheArea) {
    const Pair pair;
    const std::string nuls(4096, '\0');
    pair.put(pack_of(nuls) + pack_of(nuls) + pack_of(nuls) + pack_of(nuls) + pack_of("x"));
    EXPECT_DEATH(receive(pair.daemon),
                 "answer of the platform of 16385 bytes would overrun its 16384 bytes\n");
}

TEST(ClientReceiveDeathTest, AWholePackWithAPayloadOver4096StopsTheProcess) {
    const Pair pair;
    pair.put(pack_of(std::string(4097, 'x')));
    EXPECT_DEATH(receive(pair.daemon),
                 "payload of a pack of the platform of 4097 bytes would overrun its 4096 bytes\n");
}

TEST(ClientReceive, AReadTakesAtMostTheScratchArea) {
    const Pair pair;
    std::string bytes;
    for (int i = 0; i < 40; ++i) bytes += pack_of("x");
    while (bytes.size() < kPackAreaSize) bytes += pack_of("");
    ASSERT_EQ(bytes.size(), kPackAreaSize);
    testing::internal::CaptureStdout();
    pair.put(bytes);
    EXPECT_EQ(receive(pair.daemon).result, 40);
    pair.put(pack_of("y") + bytes);
    EXPECT_EQ(receive(pair.daemon).result, 0) << "the last pack is not wholly in the first read";
    testing::internal::GetCapturedStdout();
}

TEST(ClientReceive, RandomPacksInRandomGroups) {
    std::mt19937 random(1109);
    const Pair pair;
    for (int round = 0; round < 60; ++round) {
        std::string bytes;
        std::string expected;
        const std::size_t packs = 1 + random() % 4;
        for (std::size_t index = 0; index < packs; ++index) {
            std::string payload(random() % 1500, '\0');
            for (char& byte : payload) byte = static_cast<char>(1 + random() % 255);
            bytes += pack_of(payload);
            expected += payload;
        }
        pair.put(bytes);
        const Received received = receive(pair.daemon);
        EXPECT_EQ(received.result, static_cast<int>(expected.size()));
        EXPECT_EQ(received.text, expected);
    }
}

// A cut makes two bad heads of one pack; nothing is written past an area and the pack after it
// is served.
TEST(ClientReceive, ACutAnywhereIsTwoBadHeads) {
    const Pair pair;
    const std::string bytes = pack_of("\r\nOK\r\n");
    for (std::size_t cut = 1; cut < bytes.size(); ++cut) {
        for (const std::string& part : {bytes.substr(0, cut), bytes.substr(cut)}) {
            pair.put(part);
            ASSERT_EQ(receive(pair.daemon).result, 0) << cut;
        }
    }
    pair.put(bytes);
    EXPECT_EQ(receive(pair.daemon).text, "\r\nOK\r\n");
}

TEST(RecvWithTimeout, ZeroSecondsAndNothingWaitingIsATimeOut) {
    const Pair pair;
    char area[8];
    EXPECT_EQ(recv_with_timeout(pair.daemon, area, sizeof area, 0, 0), -5);
}

TEST(RecvWithTimeout, TakesWhatWaitsAndLeavesTheSocketBlocking) {
    const Pair pair;
    fcntl(pair.daemon, F_SETFL, O_NONBLOCK);
    pair.put("abcdefghijkl");
    char area[8];
    EXPECT_EQ(recv_with_timeout(pair.daemon, area, sizeof area, 0, 60), 8);
    EXPECT_EQ(std::string_view(area, 8), "abcdefgh");
    EXPECT_EQ(fcntl(pair.daemon, F_GETFL) & O_NONBLOCK, 0);
}

TEST(RecvWithTimeout, TheEndIsReturnedAsItIs) {
    Pair pair;
    pair.hang_up();
    char area[8];
    EXPECT_EQ(recv_with_timeout(pair.daemon, area, sizeof area, 0, 60), 0);
}

TEST(RecvWithTimeout, ABadDescriptorIsAFailure) {
    char area[8];
    EXPECT_EQ(recv_with_timeout(-1, area, sizeof area, 0, 0), -5);
}

TEST(RecvWithTimeout, NothingIsALengthToo) {
    const Pair pair;
    pair.put("a");
    char area[8];
    EXPECT_EQ(recv_with_timeout(pair.daemon, area, 0, 0, 60), 0);
    EXPECT_EQ(recv_with_timeout(pair.daemon, area, -1, 0, 60), -5);
    EXPECT_EQ(recv_with_timeout(pair.daemon, area, 1, 0, 60), 1);
}

TEST(ClientReportPortName, SendsTheReport) {
    const Pair pair;
    EXPECT_EQ(client_report_port_name(pair.daemon, PORT_UART), 48);
    const auto expected = build_port_report(PORT_UART);
    EXPECT_EQ(pair.take(), std::string(expected.data(), expected.size()));
}

TEST(ClientReportPortName, BadArgumentsAreRefused) {
    const Pair pair;
    EXPECT_EQ(client_report_port_name(-1, PORT_AT0), -1);
    EXPECT_EQ(client_report_port_name(pair.daemon, PORT_INVALID), -1);
    EXPECT_EQ(pair.take(), "");
}

// What the log says of each outcome.
template <typename Action>
std::string log_of(const Action& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

TEST(PlatformClientLog, TellsEachOutcome) {
    Pair pair;
    const std::string sock = std::to_string(pair.daemon);
    char area[8];
    const auto wait_for_nothing = [&] { recv_with_timeout(pair.daemon, area, sizeof area, 0, 0); };
    EXPECT_THAT(log_of([&] { send_message(pair.daemon, "AT\r", USB_PORT_ATCMD_MODE); }),
                HasSubstr("send data sucess. sock:" + sock + ",:iret:47.\r\n"));
    EXPECT_THAT(log_of([] { client_report_port_name(-1, PORT_AT0); }),
                HasSubstr("client_report_port_name input error.\r\n"));
    const char* const timed_out = "recv_with_timeout failed or timeout.\r\n";
    EXPECT_THAT(log_of(wait_for_nothing), HasSubstr(timed_out));
    EXPECT_THAT(log_of([&] { recv_with_timeout(-1, area, sizeof area, 0, 0); }),
                HasSubstr(timed_out));
    const std::string nothing = "recv_with_timeout recv failed, fd:" + sock + ", iret:0.\r\n";
    EXPECT_THAT(log_of([&] { recv_with_timeout(pair.daemon, area, 0, 0, 0); }),
                testing::Not(HasSubstr(nothing)));
    pair.put("a");
    EXPECT_THAT(log_of([&] { recv_with_timeout(pair.daemon, area, 0, 0, 60); }),
                HasSubstr(nothing));
    EXPECT_THAT(log_of([&] { recv_with_timeout(pair.daemon, area, 1, 0, 60); }),
                testing::Not(HasSubstr("recv failed")));
    const std::string again = std::to_string(EAGAIN);
    EXPECT_THAT(log_of([&] { receive(pair.daemon); }),
                HasSubstr("recv error from plat.iret:-1, error_info:Resource temporarily "
                          "unavailable, " +
                          again + ".\r\n"));
    EXPECT_THAT(log_of([&] { client_send_msg(-1, "AT", 2, 0, area, nullptr, nullptr); }),
                HasSubstr("client_send_sync_msg input error.\r\n"));
    Pair ended;
    ended.hang_up();
    EXPECT_THAT(log_of([&] { receive(ended.daemon); }),
                HasSubstr("recv error from plat.iret:0, error_info:"));
    EXPECT_THAT(
        log_of([&] { send_message(ended.daemon, "AT\r", USB_PORT_ATCMD_MODE, MSG_NOSIGNAL); }),
        HasSubstr("send data failed,fd:" + std::to_string(ended.daemon) +
                  ", iret:-1, err_info:Broken pipe.\r\n"));
}

TEST(PlatformClientLog, TellsEachPackOfARead) {
    const Pair pair;
    pair.put(pack_of("OK") + pack_of("\r\n"));
    const std::string log = log_of([&] { receive(pair.daemon); });
    EXPECT_THAT(log, HasSubstr("recv msg head txn_id:0, msg_type:0, msg_not_finish:0.\r\n"));
    EXPECT_THAT(log, HasSubstr("mulit_pack_offset:46, offset:0, each_payload_buf:(OK), buf:(OK), "
                               "each_len_without_head:2, total_payload_len:2. \r\n"));
    EXPECT_THAT(log, HasSubstr("mulit_pack_offset:92, offset:46, each_payload_buf:(\r\n), "
                               "buf:(OK\r\n), each_len_without_head:2, total_payload_len:4. \r\n"));
}

TEST(ReconnectAppPlatform, ClosesTheOldAndFailsWithoutAPlatform) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    g_reconn_client_sockfd = -1;
    const SystemCalls system;
    testing::internal::CaptureStdout();
    const int lowest_free = dup(0);
    close(lowest_free);
    EXPECT_EQ(reconnect_app_platform(ends[0]), -3);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("reconnect_app_platform failed, errno:" + std::to_string(ENOENT) +
                          ", info:No such file or directory.\r\n"));
    EXPECT_EQ(system.connect_length(), 36U) << "family, path and its NUL";
    EXPECT_EQ(g_reconn_client_sockfd, -1);
    char byte;
    EXPECT_EQ(recv(ends[1], &byte, 1, 0), 0) << "the old connection was closed";
    const int left_open = std::min(ends[0], lowest_free);
    int domain = 0;
    socklen_t size = sizeof domain;
    EXPECT_EQ(getsockopt(left_open, SOL_SOCKET, SO_DOMAIN, &domain, &size), 0)
        << "the new socket stays open";
    EXPECT_EQ(domain, AF_UNIX);
    close(left_open);
    close(ends[1]);
}

// A platform of the test's own, where the code under test finds the platform's path.
class ListeningPlatform {
  public:
    ListeningPlatform() : path_(testing::TempDir() + "platform." + std::to_string(getpid())) {
        unlink(path_.c_str());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(fd_, 1), 0);
        system_.lead_connects(kPlatformSocketPath, path_);
    }
    ~ListeningPlatform() {
        close(fd_);
        unlink(path_.c_str());
    }
    ListeningPlatform(const ListeningPlatform&) = delete;
    ListeningPlatform& operator=(const ListeningPlatform&) = delete;
    int take_connection() const { return accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC); }

  private:
    std::string path_;
    int fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    SystemCalls system_;
};

TEST(ReconnectAppPlatform, KeepsANewConnectionThatCarriesPacks) {
    const ListeningPlatform platform;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    g_reconn_client_sockfd = -1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(reconnect_app_platform(ends[0]), 0);
    const int fresh = g_reconn_client_sockfd;
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("reconnect_app_platform OK, new fd:" + std::to_string(fresh) + ".\r\n"));
    char byte;
    EXPECT_EQ(recv(ends[1], &byte, 1, 0), 0) << "the old connection was closed";
    close(ends[1]);
    EXPECT_EQ(fcntl(fresh, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(fresh, F_GETFD) & FD_CLOEXEC, 0);
    const int accepted = platform.take_connection();
    ASSERT_GE(accepted, 0);
    EXPECT_EQ(client_report_port_name(fresh, PORT_AT0), 48);
    char report[64];
    EXPECT_EQ(recv(accepted, report, sizeof report, 0), 48);
    close(accepted);
    close(fresh);
    g_reconn_client_sockfd = -1;
}

TEST(ReconnectAppPlatform, WithoutASocketNothingIsKept) {
    SystemCalls system;
    system.answer(Call::socket, -1, EMFILE);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    g_reconn_client_sockfd = -1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(reconnect_app_platform(ends[0]), -2);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("re-socket error.\r\n"));
    EXPECT_EQ(g_reconn_client_sockfd, -1);
    close(ends[1]);
}

TEST(ResetGlocalClientSockfd, TakesOverOnlyAnOpenDescriptor) {
    int slot = 5;
    g_reconn_client_sockfd = -1;
    reset_glocal_client_sockfd(&slot);
    EXPECT_EQ(slot, 5);
    g_reconn_client_sockfd = 0;
    reset_glocal_client_sockfd(&slot);
    EXPECT_EQ(slot, 5);
    g_reconn_client_sockfd = 12;
    reset_glocal_client_sockfd(nullptr);
    reset_glocal_client_sockfd(&slot);
    EXPECT_EQ(slot, 12);
    g_reconn_client_sockfd = -1;
}

}  // namespace
