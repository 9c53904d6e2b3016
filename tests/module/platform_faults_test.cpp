// A platform that is absent, late, broken or gone: what the ports notice, and that it is served
// again when it is back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "fake_platform.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

const std::array<std::string, 3> kPorts{"modem", "at", "uart"};
const std::array<std::string, 3> kConnectionNames{"modem port", "at port", "uart port"};
const std::array<std::string, 3> kLogNames{"mport", "atport", "uartport"};

class PlatformFault : public testing::TestWithParam<int> {
  protected:
    static std::size_t index() { return static_cast<std::size_t>(GetParam()); }
    static const std::string& port() { return kPorts[index()]; }
    static int other() { return (GetParam() + 1) % 3; }
    static const std::string& other_port() { return kPorts[static_cast<std::size_t>(other())]; }

    // A command typed on a port is answered by the platform, on that port.
    static void expect_served(ModuleWithPlatform& both, int port_index) {
        const std::string& name = kPorts[static_cast<std::size_t>(port_index)];
        both.module.host_port(port_index).write("AT+CSQ\r");
        both.platform.expect(name, "AT+CSQ\r");
        both.platform.send(name, "\r\n+CSQ: 9,99\r\n\r\nOK\r\n");
        both.module.host_port(port_index).expect_up_to("+CSQ: 9,99\r\n\r\nOK\r\n");
    }
};

TEST_P(PlatformFault, AHangUpIsReconnectedAndThePortReportedAgain) {
    ModuleWithPlatform both;
    auto& [module, platform] = both;
    platform.hang_up(port());
    module.wait_for_log("POLLHUP is hang up(" + kLogNames[index()] + "), close socket it.");
    platform.wait_for_report(port(), 2);
    module.wait_for_log("new connection is " + kConnectionNames[index()] + " OK again.");
    expect_served(both, GetParam());
    EXPECT_EQ(platform.reports(other_port()), 1) << "the other connections stay";
}

TEST_P(PlatformFault, AHalfCloseIsAHangUp) {
    ModuleWithPlatform both;
    both.platform.half_close(port());
    both.platform.wait_for_report(port(), 2);
    expect_served(both, GetParam());
}

// The failure lines come a second apart; meanwhile the others are answered.
TEST_P(PlatformFault, AHangUpWhileThePlatformIsDownLogsOneFailureLineASecond) {
    ModuleWithPlatform both;
    auto& [module, platform] = both;
    const std::string failure = "new connection " + kConnectionNames[index()] + " is failed.(m_fd:";
    const auto start = Clock::now();
    platform.stop_listening();
    platform.hang_up(port());
    module.wait_for_log(failure, 1);
    expect_served(both, other());
    module.wait_for_log(failure, 3);
    EXPECT_GE(Clock::now() - start, 3s);
    std::string log = module.log();
    std::erase(log, '\0');  // of the packs' dump, where a regular expression would end
    EXPECT_THAT(log, testing::ContainsRegex("new connection " + kConnectionNames[index()] +
                                            " is failed\\.\\(m_fd:[0-9]+,at_fd:[0-9]+, "
                                            "uart_fd:[0-9]+\\)sleep 3s\\.\\.\\.\r\n"));
    expect_served(both, other());
    platform.listen();
    platform.wait_for_report(port(), 2);
    expect_served(both, GetParam());
}

TEST_P(PlatformFault, AnAnswerOf255PlusIsNeverWrittenAndEndsInAReconnect) {
    ModuleWithPlatform both;
    auto& [module, platform] = both;
    platform.send(port(), std::string(255, '+'));
    module.wait_for_log("recv app-plat error info .........(" + kLogNames[index()] + ")");
    platform.wait_for_report(port(), 2);
    platform.send(port(), "marker");
    module.host_port(GetParam()).expect("marker");
}

TEST_P(PlatformFault, PlusAnswersOfAnotherLengthAreAnswers) {
    ModuleWithPlatform both;
    auto& [module, platform] = both;
    std::vector<std::string> answers;
    answers.emplace_back(254, '+');
    answers.emplace_back(256, '+');
    answers.push_back(answers.front() + "-");
    for (const std::string& text : answers) {
        platform.send(port(), text);
        module.host_port(GetParam()).expect(text);
    }
    EXPECT_EQ(platform.reports(port()), 1);
}

TEST_P(PlatformFault, AnAbsentPlatformsCommandIsTheModems) {
    Module module;
    module.host_port(GetParam()).write("AT+CSQ\r");
    module.channel(GetParam()).expect("AT+CSQ\r");
    module.channel(GetParam()).send("\r\n+CSQ: 1,99\r\n\r\nOK\r\n");
    module.host_port(GetParam()).expect("\r\n+CSQ: 1,99\r\n\r\nOK\r\n");
}

TEST_P(PlatformFault, ALatePlatformIsServed) {
    Module module;
    module.wait_for_log("new connection " + kConnectionNames[index()] + " is failed.");
    FakePlatform platform(module);
    platform.wait_for_reports();
    module.host_port(GetParam()).write("AT+CSQ\r");
    platform.expect(port(), "AT+CSQ\r");
    platform.send(port(), "\r\nOK\r\n");
    module.host_port(GetParam()).expect("AT+CSQ\r\r\nOK\r\n");
}

INSTANTIATE_TEST_SUITE_P(ModemAtUart, PlatformFault, testing::Values(0, 1, 2));

// A command worth waiting for: about 5 s of tries, then the text that the host gets instead.
TEST(PlatformDown, ACommandWorthWaitingForIsAnsweredWithThePlatformDownText) {
    Module module;
    const auto start = Clock::now();
    module.modem_port().write("AT+GTDNS=1\r");
    module.at_port().write("AT+GTDNS=1\r");
    module.modem_port().expect("app-plat is not running, plz wait....\r\n");
    module.at_port().expect("app-plat is not running, plz wait....\r\n");
    EXPECT_GE(Clock::now() - start, 5s);
    EXPECT_EQ(module.log_count("Couldn't wait plat init."), 2);
}

// Every command gets an answer of one kind or another, the platform's or the modem's, and each on
// its own port. The platform goes as a well-behaved process does: what it took it answers.
TEST(PlatformRestarts, FiftyTimesDuringTrafficOnThreePorts) {
    ModuleWithPlatform both;
    auto& [module, platform] = both;
    const int descriptors = module.count_descriptors();
    platform.answer = [](const bench::PlatformRequest& request) {
        return bench::encode_pack(bench::PackKind::command,
                                  "\r\nplatform " + request.port + "\r\nOK\r\n");
    };
    std::array<int, 3> by_platform{};
    std::array<int, 3> by_modem{};
    std::array<bool, 3> asked{};
    const auto ask = [&, &daemon = module](int index) {
        asked[static_cast<std::size_t>(index)] = true;
        daemon.host_port(index).write("AT+CSQ\r");
    };
    // The modem answers what came to it, and a port that was answered asks again.
    const auto serve = [&, &daemon = module](int index) {
        ModemChannel& channel = daemon.channel(index);
        HostPort& host = daemon.host_port(index);
        const auto at = static_cast<std::size_t>(index);
        if (!channel.received().empty()) {
            channel.expect("AT+CSQ\r");
            channel.send("\r\nmodem " + kPorts[at] + "\r\nOK\r\n");
        }
        if (!asked[at] || !host.received().ends_with("\r\nOK\r\n")) {
            return;
        }
        const std::string answer = host.received();
        host.forget_received();
        asked[at] = false;
        const bool is_platforms = answer.ends_with("\r\nplatform " + kPorts[at] + "\r\nOK\r\n");
        const bool is_modems = answer.ends_with("\r\nmodem " + kPorts[at] + "\r\nOK\r\n");
        EXPECT_TRUE(is_platforms || is_modems) << kPorts[at] << " was given " << answer;
        by_platform[at] += is_platforms ? 1 : 0;
        by_modem[at] += is_modems ? 1 : 0;
        EXPECT_EQ(answer.find("OK"), answer.rfind("OK")) << "one answer to one command: " << answer;
    };
    const auto answers = [&] {
        int sum = 0;
        for (std::size_t at = 0; at < 3; ++at) {
            sum += by_platform[at] + by_modem[at];
        }
        return sum;
    };
    const auto run_until = [&, &daemon = module](const std::function<bool()>& done,
                                                 const char* what) {
        daemon.wait_until(
            [&] {
                for (int index = 0; index < 3; ++index) {
                    serve(index);
                    if (!asked[static_cast<std::size_t>(index)]) {
                        ask(index);
                    }
                }
                return done();
            },
            what);
    };
    int commands = 0;
    for (int restart = 0; restart < 50; ++restart) {
        const int before = answers();
        run_until([&] { return answers() >= before + 3; }, "three more answers");
        // Every tenth time it stays until its connections are back and used.
        if (restart % 10 == 9) {
            const std::array<int, 3> old = by_platform;
            run_until(
                [&] {
                    return by_platform[0] > old[0] && by_platform[1] > old[1] &&
                           by_platform[2] > old[2];
                },
                "the platform to answer on each port");
        }
        platform.end();
        platform.listen();
        commands = answers();
    }
    // The last commands, and then one on each port that only the platform can answer so.
    module.wait_until(
        [&] {
            for (int index = 0; index < 3; ++index) {
                serve(index);
            }
            return !asked[0] && !asked[1] && !asked[2];
        },
        "the last answers");
    platform.wait_until_connected();
    for (int index = 0; index < 3; ++index) {
        module.host_port(index).write("AT+CGMR\r");
        module.host_port(index).expect_up_to("platform " + kPorts[static_cast<std::size_t>(index)] +
                                             "\r\nOK\r\n");
    }
    EXPECT_GE(commands, 150);
    EXPECT_EQ(module.count_descriptors(), descriptors);
    for (std::size_t at = 0; at < 3; ++at) {
        EXPECT_GT(by_platform[at], 0) << kPorts[at];
        EXPECT_GT(by_modem[at], 0) << kPorts[at];
    }
}

TEST(PlatformRestarts, DescriptorsDoNotGrow) {
    ModuleWithPlatform both;
    auto& [module, platform] = both;
    const int before = module.count_descriptors();
    for (int round = 2; round <= 4; ++round) {
        platform.kill();
        platform.listen();
        platform.wait_for_reports(round);
        module.wait_for_log(" OK again.", 3 * (round - 1));
        EXPECT_EQ(module.count_descriptors(), before);
    }
}

}  // namespace
