// A platform that is absent, late, broken or gone: what the ports notice, and that it is served
// again when it is back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
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

std::string answer_of(const char* whose, const std::string& port) {
    return std::string("\r\n") + whose + " " + port + "\r\nOK\r\n";
}

// One port that asks again as soon as it was answered.
class AskingPort {
  public:
    AskingPort(Module& module, int index) : module_(module), index_(index) {}

    // The modem answers what came to it, and the port takes a whole answer.
    void serve() {
        ModemChannel& channel = module_.channel(index_);
        if (!channel.received().empty()) {
            channel.expect("AT+CSQ\r");
            channel.send(answer_of("modem", name()));
        }
        if (is_asked_ && host().received().ends_with("\r\nOK\r\n")) {
            count(host().received());
            host().forget_received();
            is_asked_ = false;
        }
    }
    void ask() {
        if (!is_asked_) {
            is_asked_ = true;
            host().write("AT+CSQ\r");
        }
    }

    [[nodiscard]] const std::string& name() const {
        return kPorts[static_cast<std::size_t>(index_)];
    }
    [[nodiscard]] HostPort& host() const { return module_.host_port(index_); }
    [[nodiscard]] bool is_asked() const { return is_asked_; }
    [[nodiscard]] int by_platform() const { return by_platform_; }
    [[nodiscard]] int by_modem() const { return by_modem_; }

  private:
    void count(const std::string& answer) {
        const bool is_platforms = answer.ends_with(answer_of("platform", name()));
        const bool is_modems = answer.ends_with(answer_of("modem", name()));
        EXPECT_TRUE(is_platforms || is_modems) << name() << " was given " << answer;
        EXPECT_EQ(answer.find("OK"), answer.rfind("OK")) << "one answer to one command: " << answer;
        by_platform_ += is_platforms ? 1 : 0;
        by_modem_ += is_modems ? 1 : 0;
    }

    Module& module_;
    int index_;
    bool is_asked_ = false;
    int by_platform_ = 0;
    int by_modem_ = 0;
};

class AskingPorts {
  public:
    explicit AskingPorts(Module& module)
        : module_(module), ports_{{module, 0}, {module, 1}, {module, 2}} {}

    void run_until(const std::function<bool()>& done, const char* what) {
        module_.wait_until(
            [&] {
                for (AskingPort& port : ports_) {
                    port.serve();
                    port.ask();
                }
                return done();
            },
            what);
    }
    void run_until_the_platform_answers_on_each() {
        const std::vector<AskingPort> before = ports_;
        run_until(
            [&] {
                return std::equal(ports_.begin(), ports_.end(), before.begin(),
                                  [](const AskingPort& now, const AskingPort& old) {
                                      return now.by_platform() > old.by_platform();
                                  });
            },
            "the platform to answer on each port");
    }
    // Without another command.
    void wait_for_the_last_answers() {
        module_.wait_until(
            [&] {
                for (AskingPort& port : ports_) {
                    port.serve();
                }
                return std::none_of(ports_.begin(), ports_.end(),
                                    [](const AskingPort& port) { return port.is_asked(); });
            },
            "the last answers");
    }

    [[nodiscard]] int answers() const {
        int sum = 0;
        for (const AskingPort& port : ports_) {
            sum += port.by_platform() + port.by_modem();
        }
        return sum;
    }
    [[nodiscard]] const std::vector<AskingPort>& ports() const { return ports_; }

  private:
    Module& module_;
    std::vector<AskingPort> ports_;
};

// Every command gets an answer of one kind or another, the platform's or the modem's, and each on
// its own port. The platform goes as a well-behaved process does: what it took it answers.
TEST(PlatformRestarts, FiftyTimesDuringTrafficOnThreePorts) {
    ModuleWithPlatform both;
    auto& [module, platform] = both;
    const int descriptors = module.count_descriptors();
    platform.answer = [](const bench::PlatformRequest& request) {
        return bench::encode_pack(bench::PackKind::command, answer_of("platform", request.port));
    };
    AskingPorts traffic(module);
    for (int restart = 0; restart < 50; ++restart) {
        const int before = traffic.answers();
        traffic.run_until([&] { return traffic.answers() >= before + 3; }, "three more answers");
        // Every tenth time it stays until its connections are back and used.
        if (restart % 10 == 9) {
            traffic.run_until_the_platform_answers_on_each();
        }
        platform.end();
        platform.listen();
    }
    EXPECT_GE(traffic.answers(), 150);
    traffic.wait_for_the_last_answers();
    platform.wait_until_connected();
    // One more on each port, which only the platform can answer so.
    for (const AskingPort& port : traffic.ports()) {
        port.host().write("AT+CGMR\r");
        port.host().expect_up_to("platform " + port.name() + "\r\nOK\r\n");
        EXPECT_GT(port.by_platform(), 0) << port.name();
        EXPECT_GT(port.by_modem(), 0) << port.name();
    }
    EXPECT_EQ(module.count_descriptors(), descriptors);
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
