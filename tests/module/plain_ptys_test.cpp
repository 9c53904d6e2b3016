// What the daemon does on plain ptys alone, without the shim: what a static daemon, which preloads
// nothing, can be seen to do. The modem's channels are absent, since only the shim makes them.
#include <gtest/gtest.h>

#include <string>

#include "fake_platform.h"

namespace {

constexpr std::string_view kAnswer = "\r\nVEXA LTE module\r\n\r\nOK\r\n";
// Echo is on: the line stands before what answers it.
const std::string kEchoed = std::string("AT+CGMR\r") + std::string(kAnswer);

ModuleOptions without_shim() {
    ModuleOptions options;
    options.absent = {"/dev/at_mdm0", "/dev/smd7", "/dev/smd8"};
    options.ready_devices = {"/dev/at_usb0", "/dev/at_usb1", "/dev/ttyMSM1"};
    options.start = false;
    return options;
}

class PlainPtys : public testing::Test {
  protected:
    PlainPtys() {
        platform_.answer = [](const bench::PlatformRequest&) {
            return bench::encode_pack(bench::PackKind::command, kAnswer);
        };
        module_.start();
        platform_.wait_until_connected();
    }

    Module module_{without_shim()};
    FakePlatform platform_{module_};
};

TEST_F(PlainPtys, EveryHostPortCarriesThePlatformsCommandsAndAnswers) {
    for (int round = 0; round < 3; ++round) {
        for (int port = 0; port < 3; ++port) {
            module_.host_port(port).write("AT+CGMR\r");
            module_.host_port(port).expect(kEchoed);
        }
    }
    EXPECT_EQ(platform_.answered, 9);
    EXPECT_TRUE(module_.daemon_runs());
}

TEST_F(PlainPtys, AUdpClientGetsThePlatformsAnswer) {
    UdpClient client = module_.udp_client();
    module_.wait_until([&] { return module_.serves_udp(); }, "the UDP server");
    client.send("AT+CGMR\r");
    client.expect(kEchoed);
}

TEST_F(PlainPtys, AHostPortThatWasUnpluggedIsServedAgain) {
    module_.at_port().write("AT+CGMR\r");
    module_.at_port().expect(kEchoed);
    module_.at_port().replug();
    module_.at_port().write("AT+CGMR\r");
    module_.at_port().expect(kEchoed);
}

TEST_F(PlainPtys, AbsentModemChannelsAreTriedAgainAndEndNothing) {
    module_.wait_for_log("/dev/smd7", 2);
    EXPECT_TRUE(module_.daemon_runs());
}

// On this target the modem port's counterpart is the pipe, which is a pty like any other.
TEST(PlainPipe, CarriesTheModemsCommandsAndAnswers) {
    ModuleOptions options = without_shim();
    options.target = 24;
    options.ready_devices = {"/dev/at_usb0", "/dev/mhi_pipe_32"};
    options.start = true;
    Module module(options);
    module.pcie_pipe().write("\r\n+CREG: 1\r\n");
    module.modem_port().expect("\r\n+CREG: 1\r\n");
    // One command: nobody signals the engine's wait for its answer on this target.
    module.modem_port().write("AT+CFUN?\r");
    module.pcie_pipe().expect("AT+CFUN?\r");
    module.pcie_pipe().write("\r\n+CFUN: 1\r\n\r\nOK\r\n");
    module.modem_port().expect_up_to("+CFUN: 1\r\n\r\nOK\r\n");
    EXPECT_TRUE(module.daemon_runs());
}

}  // namespace
