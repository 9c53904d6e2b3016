// Which commands the platform gets, on which connection, and which of them the modem gets too.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <string>

#include "fake_platform.h"
#include "platform_names.h"

namespace {

const std::array<std::string, 3> kPorts{"modem", "at", "uart"};

std::string cased(std::string text, int (*change)(int)) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [change](unsigned char letter) { return static_cast<char>(change(letter)); });
    return text;
}

// Each port gets a third of them, the other case the next third. The modem's next message is what
// shows that it got nothing in between.
TEST(PlatformCommands, All108InBothSpellingsReachThePlatformAndOnlyNineTheModemToo) {
    ModuleWithPlatform both;
    auto& [module, platform] = both;
    ASSERT_EQ(kPlatformCommands.size(), 108);
    ASSERT_EQ(kBothCommands.size(), 9);
    std::size_t turn = 0;
    for (int (*change)(int) : {&tolower, &toupper}) {
        for (const std::string& name : kPlatformCommands) {
            const std::size_t index = turn++ % kPorts.size();
            const std::string line = cased(name, change) + "\r";
            const std::string answer = "\r\nanswer " + std::to_string(turn) + "\r\n";
            HostPort& host = module.host_port(static_cast<int>(index));
            host.write(line);
            platform.expect(kPorts[index], line);
            if (std::find(kBothCommands.begin(), kBothCommands.end(), name) !=
                kBothCommands.end()) {
                module.channel(static_cast<int>(index)).expect(line);
            }
            platform.send(kPorts[index], answer);
            host.expect(line + answer);
        }
        ++turn;
    }
    for (int index = 0; index < 3; ++index) {
        module.host_port(index).write("AT+CFUN?\r");
        module.channel(index).expect("AT+CFUN?\r");
        module.channel(index).send("\r\nOK\r\n");
        module.host_port(index).expect("\r\nOK\r\n");
    }
    EXPECT_TRUE(platform.requests.empty());
}

class PlatformPort : public testing::TestWithParam<int> {
  protected:
    static const std::string& port() { return kPorts[static_cast<std::size_t>(GetParam())]; }
};

TEST_P(PlatformPort, TheAnswerComesBackOnThePortThatAsked) {
    ModuleWithPlatform both;
    auto& [module, platform] = both;
    HostPort& host = module.host_port(GetParam());
    host.write("AT+CGMR\r\n");
    platform.expect(port(), "AT+CGMR\r\n");
    platform.send(port(), "\r\nREV\r\n\r\nOK\r\n");
    host.expect("AT+CGMR\r\r\nREV\r\n\r\nOK\r\n");
    for (int other = 0; other < 3; ++other) {
        if (other != GetParam()) {
            EXPECT_EQ(module.host_port(other).received(), "");
        }
    }
}

TEST_P(PlatformPort, PacksOfOneWriteAreOneAnswer) {
    ModuleWithPlatform both;
    auto& [module, platform] = both;
    platform.send_raw(port(), bench::encode_pack(bench::PackKind::indication, "\r\nREV\r\n") +
                                  bench::encode_pack(bench::PackKind::command, "\r\nOK\r\n"));
    module.host_port(GetParam()).expect("\r\nREV\r\n\r\nOK\r\n");
}

// The command is open until a final result comes in one piece, and the platform's text is held for
// its sake. The log tells that, too: a text that is held has a line of its own.
TEST_P(PlatformPort, AFinalResultCutInTwoDoesNotCompleteTheCommand) {
    constexpr std::array<const char*, 3> kLogNames{"mport", "atport", "uartport"};
    const std::string log_name = kLogNames[static_cast<std::size_t>(GetParam())];
    ModuleWithPlatform both;
    auto& [module, platform] = both;
    HostPort& host = module.host_port(GetParam());
    ModemChannel& channel = module.channel(GetParam());
    int polls = 1;
    const auto answer_with = [&](const char* chunk) {
        channel.send(chunk);
        host.expect(chunk);
        module.wait_for_log("Attempting to poll(" + log_name + " waiting cp)", ++polls);
    };
    host.write("AT+CFUN?\r");
    channel.expect("AT+CFUN?\r");
    answer_with("O");
    answer_with("K\r\n");
    const auto start = std::chrono::steady_clock::now();
    platform.send(port(), "\r\n+EVENT: 1\r\n", bench::PackKind::indication);
    host.expect("\r\n+EVENT: 1\r\n");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4900));
    const std::string held = "<<<<<<<<<<<<<<<<<<<< " + log_name + " timeout <<<";
    EXPECT_EQ(module.log_count(held), 1);

    answer_with("OK\r\n");
    platform.send(port(), "\r\n+EVENT: 2\r\n", bench::PackKind::indication);
    host.expect("\r\n+EVENT: 2\r\n");
    EXPECT_EQ(module.log_count(held), 1) << "complete by now";
}

TEST_P(PlatformPort, UnsolicitedLinesReachThePortOfTheirConnection) {
    ModuleWithPlatform both;
    auto& [module, platform] = both;
    for (const char* text : {"\r\n+EVENT: 1\r\n", "\r\n+EVENT: 2\r\n"}) {
        platform.send(port(), text, bench::PackKind::indication);
        module.host_port(GetParam()).expect(text);
    }
}

TEST_P(PlatformPort, EchoIsThePortsOwnCommand) {
    ModuleWithPlatform both;
    auto& [module, platform] = both;
    // Another port's command in between must not be what is echoed here.
    const int other = (GetParam() + 1) % 3;
    const std::string& other_port = kPorts[static_cast<std::size_t>(other)];
    module.host_port(GetParam()).write("AT+CSQ\r");
    platform.expect(port(), "AT+CSQ\r");
    module.host_port(other).write("AT+CGMR\r");
    platform.expect(other_port, "AT+CGMR\r");
    platform.send(port(), "\r\nhere\r\n");
    platform.send(other_port, "\r\nthere\r\n");
    module.host_port(GetParam()).expect("AT+CSQ\r\r\nhere\r\n");
    module.host_port(other).expect("AT+CGMR\r\r\nthere\r\n");
}

TEST_P(PlatformPort, EchoEndsWithAte0) {
    ModuleWithPlatform both;
    auto& [module, platform] = both;
    HostPort& host = module.host_port(GetParam());
    host.write("ATE0\r");
    platform.expect(port(), "ATE0\r");
    module.channel(GetParam()).expect("ATE0\r");
    platform.send(port(), "\r\nOK\r\n");
    host.expect_up_to("OK\r\n");
    host.write("AT+CSQ\r");
    platform.expect(port(), "AT+CSQ\r");
    platform.send(port(), "\r\n+CSQ: 9,99\r\n");
    host.expect("\r\n+CSQ: 9,99\r\n");
}

TEST_P(PlatformPort, DataModeIsEnteredAndLeftByThePlatform) {
    ModuleWithPlatform both;
    auto& [module, platform] = both;
    HostPort& host = module.host_port(GetParam());
    host.write("ATE0\r");
    platform.expect(port(), "ATE0\r");
    platform.send(port(), "\r\nOK\r\n");
    host.expect_up_to("OK\r\n");
    host.write("AT+GTWWAN=1\r");
    platform.expect(port(), "AT+GTWWAN=1\r");
    platform.send(port(), "\r\nCONNECT\r\n", bench::PackKind::data);
    host.expect("\r\nCONNECT\r\n");

    using namespace std::string_view_literals;
    host.write("da\0ta\r\x1a no AT"sv);
    platform.expect_stream(port(), "da\0ta\r\x1a no AT"sv, bench::PackKind::data);
    platform.send(port(), "back", bench::PackKind::data);
    host.expect("back");

    platform.send(port(), "\r\nNO CARRIER\r\n", bench::PackKind::command);
    host.expect("\r\nNO CARRIER\r\n");
    host.write("AT+CSQ\r");
    platform.expect(port(), "AT+CSQ\r");
}

INSTANTIATE_TEST_SUITE_P(ModemAtUart, PlatformPort, testing::Values(0, 1, 2));

TEST(PlatformAnswers, AWholePackWithAPayloadOver4096EndsTheDaemon) {
    ModuleWithPlatform both;
    auto& [module, platform] = both;
    platform.send("at", std::string(4097, 'x'));
    EXPECT_EQ(module.daemon_exit_status(), 128 + 6);
    EXPECT_EQ(module.log_count("4097 bytes would overrun its 4096 bytes"), 2) << "log and error";
}

}  // namespace
