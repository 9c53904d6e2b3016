// The log sink, switched at run time by a command.
#include <algorithm>
#include <array>
#include <fstream>
#include <sstream>

#include "fake_platform.h"
#include "module.h"
#include "pcie_module.h"

namespace {

constexpr const char* kDiagLog = "/dev/diag.log";

std::string diag_text(const Module& module) {
    std::ifstream file(module.outside(kDiagLog));
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

long count_lines(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

TEST(LogSwitch, MessagesOfEveryThreadGoToTheChannelAndPlainLinesStay) {
    ModuleOptions options;
    options.environment["VEXA_DIAG_LOG"] = kDiagLog;
    Module module(options);
    module.at_port().write("at+gtqxdmlog=1\r");
    // One line goes there at every start; the second is the first message after the switch.
    module.wait_until([&] { return count_lines(diag_text(module)) >= 2; }, "the switch");
    module.modem_channel().send("first");
    module.modem_port().expect("first");
    const std::size_t before = module.log().size();
    module.modem_channel().send("+CREG: 1");
    module.modem_port().expect("+CREG: 1");
    module.wait_until([&] { return diag_text(module).find("<+CREG: 1>") != std::string::npos; },
                      "the reader's messages");
    EXPECT_THAT(module.log().substr(before), testing::HasSubstr("====>>>num_written :8, "));
    EXPECT_THAT(module.log().substr(before), testing::Not(testing::HasSubstr("buf contains(")));
}

// A command of the port to the modem, and one to the platform.
void converse(ModuleWithPlatform& both, int index) {
    constexpr std::array kNames{"modem", "at", "uart"};
    const std::string name = kNames[static_cast<std::size_t>(index)];
    HostPort& host = both.module.host_port(index);
    host.write("AT+OTHER\r");
    both.module.channel(index).expect("AT+OTHER\r");
    both.module.channel(index).send("\r\nOK\r\n");
    host.expect_up_to("\r\nOK\r\n");
    host.write("AT+CSQ\r");
    both.platform.expect(name, "AT+CSQ\r");
    both.platform.send(name, "\r\n+CSQ: 9,99\r\n\r\nOK\r\n");
    host.expect_up_to("+CSQ: 9,99\r\n\r\nOK\r\n");
}

// The channel carries three arguments a message: whatever a thread has to say there must fit.
TEST(LogSwitch, EveryRoadIsServedWhileMessagesGoToTheChannel) {
    ModuleOptions options = pcie_options();
    options.environment["VEXA_DIAG_LOG"] = kDiagLog;
    ModuleWithPlatform both(options);
    Module& module = both.module;
    FakePlatform& platform = both.platform;
    const auto wait_for = [&](const std::string& text) {
        module.wait_until([&] { return diag_text(module).find(text) != std::string::npos; },
                          text + " on the channel");
    };
    module.at_port().write("AT+GTQXDMLOG=1\r");
    platform.expect("at", "AT+GTQXDMLOG=1\r");
    platform.send("at", "\r\nOK\r\n");
    module.at_port().expect_up_to("\r\nOK\r\n");
    const std::size_t before = module.log().size();
    for (int index = 0; index < 3; ++index) {
        converse(both, index);
        DeviceControl port = module.device(module.host_port(index).path());
        const int port_opens = port.opens();
        module.host_port(index).unplug();
        module.host_port(index).plug();
        module.wait_until([&] { return port.is_served(port_opens + 1); }, "the port again");
        DeviceControl channel = module.device(module.channel(index).path());
        const int channel_opens = channel.opens();
        module.channel(index).hang_up();
        module.wait_until([&] { return channel.is_served(channel_opens + 1); },
                          "the channel again");
        module.channel(index).wait_until_open();
        converse(both, index);
    }
    platform.hang_up("at");
    platform.wait_for_report("at", 2);
    UdpClient client = module.udp_client();
    client.send("AT+UDP\r");
    module.at_channel().expect("AT+UDP\r");
    module.at_channel().send("\r\nOK\r\n");
    client.expect("\r\nOK\r\n");
    module.send_uevent(mhi_uevent({"32=CONNECTED", "33=CONNECTED"}));
    module.pcie_pipe().write("AT+PIPE\r");
    module.at_channel().expect("AT+PIPE\r");
    module.at_channel().send("\r\nOK\r\n");
    module.pcie_pipe().expect("\r\nOK\r\n");
    module.send_uevent(mhi_uevent({"32=DISCONNECTED", "33=DISCONNECTED"}));
    wait_for("MHI channel state: 6,3,0");
    for (const char* text : {"POLLHUP is hang up(atport)", "new connection is at port OK again."})
        wait_for(text);
    EXPECT_EQ(module.log().find("MHI channel state: ", before), std::string::npos);
    EXPECT_EQ(module.log().find("POLLHUP is hang up", before), std::string::npos);
}

}  // namespace
