// The scripted platform as a process of its own beside the daemon.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "module.h"

namespace {

const std::string kScenarioPath = "/dev/platform.txt";
const std::string kSocketPath = "/dev/socket/qmux_webs/server_webs";

ModuleOptions not_started() {
    ModuleOptions options;
    options.start = false;
    return options;
}

void wait_for_socket(Module& module) {
    module.wait_until([&] { return std::filesystem::exists(module.outside(kSocketPath)); },
                      "the platform's socket");
}

// The daemon starts when the platform's socket is there, so that hardly ever anything waits for a
// second attempt; in any case not before all three ports are connected.
void start(Module& module) {
    wait_for_socket(module);
    module.start();
    module.wait_for_log("client conenct local OK.", 3);
}

struct Started {
    explicit Started(const std::string& scenario) : module(not_started()) {
        module.write_file(kScenarioPath, scenario);
        module.start_program("vexa-platform", {kScenarioPath, "--record", "/dev/record"});
        start(module);
    }
    std::string record() const {
        std::ifstream file(module.outside("/dev/record"));
        std::ostringstream text;
        text << file.rdbuf();
        return text.str();
    }
    Module module;
};

TEST(PlatformProcess, TheDefaultScenarioAnswersVendorCommands) {
    Module module(not_started());
    module.start_program("vexa-platform", {VEXA_SCENARIO_FOLDER "/platform-default.txt"});
    start(module);
    module.at_port().write("AT+CSQ\r");
    module.at_port().expect("AT+CSQ\r\r\n+CSQ: 23,99\r\n\r\nOK\r\n");
    module.at_port().write("AT+GTOTA=9\r");
    module.at_port().expect("AT+GTOTA=9\r\r\nERROR\r\n");
}

TEST(PlatformProcess, RecordsWhatEachPortSent) {
    Started started("otherwise\n answer OK\n");
    started.module.uart_port().write("AT+CGMR\r\n");
    started.module.uart_port().expect("AT+CGMR\r\r\nOK\r\n");
    const std::string record = started.record();
    EXPECT_NE(record.find("uart 4 \\x04\\x00\\x00\\x00\n"), std::string::npos) << record;
    EXPECT_NE(record.find("uart 1 AT+CGMR\\r\\n\n"), std::string::npos) << record;
}

TEST(PlatformProcess, IsServedAgainAfterAHangUp) {
    Started started("on AT+CGMM\n answer bye\n wait 1ms\n hangup\notherwise\n answer OK\n");
    auto& module = started.module;
    module.at_port().write("AT+CGMM\r");
    module.wait_for_log("new connection is at port OK again.");
    module.at_port().forget_received();
    module.at_port().write("AT+CGMR\r");
    module.at_port().expect_up_to("AT+CGMR\r\r\nOK\r\n");
}

TEST(PlatformProcess, IsServedAgainAfterARestart) {
    Started started("on AT+RESET\n answer OK\n wait 1ms\n restart 100ms\notherwise\n answer OK\n");
    auto& module = started.module;
    module.at_port().write("AT+RESET\r");
    for (const char* port : {"modem port", "at port", "uart port"}) {
        module.wait_for_log("new connection is " + std::string(port) + " OK again.");
    }
    module.modem_port().write("AT+CGMR\r");
    module.modem_port().expect("AT+CGMR\r\r\nOK\r\n");
}

TEST(PlatformProcess, ALateStartIsWaitedFor) {
    Module module(not_started());
    module.write_file(kScenarioPath, "otherwise\n answer OK\n");
    module.start();
    module.start_program("vexa-platform", {kScenarioPath, "--after", "0.2"});
    module.wait_for_log("new connection is uart port OK again.");
    module.uart_port().write("AT+CGMR\r");
    module.uart_port().expect("AT+CGMR\r\r\nOK\r\n");
}

// Each of the scenario's bad frames has a write of its own, 50 ms apart. A daemon that was held up
// meanwhile reads two of them at once and drops the answer with them, so the command is asked
// again.
TEST(PlatformProcess, BadFramesReachNoHostAndTheAnswerBehindThemDoes) {
    constexpr int kTries = 10;
    constexpr auto kAskAgain = std::chrono::seconds(7);  // the daemon's own wait is over by then
    Module module(not_started());
    module.start_program("vexa-platform", {VEXA_SCENARIO_FOLDER "/platform-features.txt"});
    start(module);
    const std::string answer = "AT+CGMI\r\r\nVEXA\r\n\r\nOK\r\n";
    std::string got;
    for (int tried = 0; tried < kTries && got.find(answer) == std::string::npos; ++tried) {
        module.modem_port().write("AT+CGMI\r");
        const auto again_at = std::chrono::steady_clock::now() + kAskAgain;
        module.wait_until(
            [&] {
                return module.modem_port().received().find(answer) != std::string::npos ||
                       std::chrono::steady_clock::now() >= again_at;
            },
            "the answer, or the end of the command's wait");
        got += module.modem_port().received();
        module.modem_port().forget_received();
    }
    EXPECT_NE(got.find(answer), std::string::npos) << got;
    EXPECT_EQ(got.find("junk"), std::string::npos) << got;
    EXPECT_EQ(got.find("lost"), std::string::npos) << got;
    EXPECT_GE(module.log_count("!!!!recv data pack head error.!!!!"), 1);
    // The connection is the same one, and serves the next command.
    EXPECT_EQ(module.log_count("is hang up(mport)"), 0);
    module.modem_port().write("AT+CGMR\r");
    module.modem_port().expect_up_to("\r\nOK\r\n");
}

TEST(PlatformProcess, AScenarioWithAMistakeIsRefused) {
    Module module(not_started());
    module.write_file(kScenarioPath, "on AT\n anser OK\n");
    const int pid = module.start_program("vexa-platform", {kScenarioPath});
    EXPECT_EQ(module.program_exit_status(pid), 1);
}

}  // namespace
