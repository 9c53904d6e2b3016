// A module on PCIe: the channels' states decide when the pipe is read and where answers go.
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>

#include <fstream>

#include "fake_platform.h"
#include "pcie_module.h"

namespace {

constexpr const char* kBoth = "MHI_CHANNEL_STATE_32=CONNECTED\nMHI_CHANNEL_STATE_33=CONNECTED\n";
constexpr const char* kGate = "Reader thread is waiting for MHI to be in Connected state.";

// A command that reaches the modem on the AT port's channel, and its answer at `end`.
void converse(Module& module, HostPort& from, HostPort& end, const std::string& command) {
    from.write(command + "\r");
    module.at_channel().expect(command + "\r");
    const std::string answer = "\r\n" + command + " answered\r\n\r\nOK\r\n";
    module.at_channel().send(answer);
    end.expect(answer);
}

TEST(Pcie, OverUsbNoMonitorAndNoReaderOfThePipeExist) {
    Module usb;
    usb.wait_for_log("mhi_ctrl file does not exist. MBIM is over USB Interface: 2,0,0\r\n");
    Module pcie(pcie_options());
    MhiLink link(pcie);
    pcie.wait_for_log("mhi_ctrl detected. MBIM is over PCIe Interface: 0,0,0\r\n");
    EXPECT_EQ(usb.count_threads() + 2, pcie.count_threads());
    EXPECT_EQ(usb.log_count("MHI Monitor Thread started: 0,0,0\r\n"), 0);
    EXPECT_EQ(pcie.log_count("MHI Monitor Thread started: 0,0,0\r\n"), 1);
    EXPECT_EQ(usb.device(kMhiPipe).opens(), 0);
    EXPECT_EQ(pcie.log_count("is read by the main pair"), 0) << "it has ports of its own here";
}

TEST(Pcie, ChannelsConnectedInHalvesOpenThePipe) {
    Module module(pcie_options());
    MhiLink link(module);
    module.wait_for_log(kGate);
    module.pcie_pipe().write("AT+PIPE\r");
    link.report({"32=CONNECTED"}, 0, 4);
    // Half a connection opens nothing, and answers stay on the USB port.
    converse(module, module.at_port(), module.at_port(), "AT+USB");
    EXPECT_EQ(module.device(kMhiPipe).opens(), 0);
    link.report({"33=CONNECTED"}, 4, 5);
    module.at_channel().expect("AT+PIPE\r");
    module.at_channel().send("\r\nOK\r\n");
    module.pcie_pipe().expect("\r\nOK\r\n");
    EXPECT_EQ(module.at_port().received(), "");
}

TEST(Pcie, ChannelsConnectedInHalvesTheOtherWayRound) {
    Module module(pcie_options());
    MhiLink link(module);
    link.report({"33=CONNECTED"}, 0, 5);
    link.report({"32=CONNECTED"}, 5, 4);
    converse(module, module.pcie_pipe(), module.pcie_pipe(), "AT+PIPE");
}

TEST(Pcie, BothChannelsInOneUeventOpenThePipe) {
    Module module(pcie_options());
    MhiLink link(module);
    link.connect();
    converse(module, module.pcie_pipe(), module.pcie_pipe(), "AT+PIPE");
}

TEST(Pcie, TheStateFileOpensThePipeAtStart) {
    Module module(pcie_options(kBoth));
    MhiLink link(module, 6);
    EXPECT_EQ(module.log_count("Reading MHI state from uevent file: 0,0,0\r\n"), 1);
    converse(module, module.pcie_pipe(), module.pcie_pipe(), "AT+PIPE");
}

struct StateFileRow {
    const char* name;
    const char* path;  // what is laid
    const char* text;
    const char* log;
    int state;
};

// Names the row in the list of tests.
void PrintTo(const StateFileRow& row, std::ostream* out) {
    *out << row.name;
}

class PcieStateFile : public testing::TestWithParam<StateFileRow> {};

TEST_P(PcieStateFile, IsReadOrItsLackIsLogged) {
    ModuleOptions options = pcie_options();
    if (GetParam().path != nullptr)
        options.files[GetParam().path] = GetParam().text;
    Module module(options);
    MhiLink link(module, GetParam().state);
    EXPECT_EQ(module.log_count(GetParam().log), 1) << module.log();
}

INSTANTIATE_TEST_SUITE_P(
    Rows, PcieStateFile,
    testing::Values(
        StateFileRow{"Absent", nullptr, "", "Error opening MHI uevent file: 0,0,0\r\n", 0},
        StateFileRow{"Empty", kMhiStateFile, "", "Error MHI uevent file is empty: 0,0,0\r\n", 0},
        StateFileRow{"AFolder", "/sys/devices/virtual/mhi/mhi_ctrl/uevent/x", "x",
                     "Error reading MHI state from MHI uevent file: 0,0,0\r\n", 0},
        StateFileRow{"WithoutStates", kMhiStateFile, "MAJOR=240\n", "MHI channel state: 0,0,0\r\n",
                     0},
        StateFileRow{"Configured", kMhiStateFile,
                     "MHI_CHANNEL_STATE_32=CONFIGURED\nMHI_CHANNEL_STATE_33=CONFIGURED\n",
                     "MHI channel state: 0,9,0\r\n", 9}),
    [](const auto& row) { return row.param.name; });

TEST(Pcie, EachConnectionSwitchesTheDiagnosticsOnce) {
    ModuleOptions options = pcie_options();
    options.environment["VEXA_DIAG_LOG"] = "/dev/diag.log";
    Module module(options);
    MhiLink link(module);
    link.connect();
    link.disconnect();
    link.connect();
    std::ifstream file(module.outside("/dev/diag.log"));
    const std::string diag((std::istreambuf_iterator<char>(file)), {});
    const std::string line = "diag_switch_logging 7 -\n";
    const auto first = diag.find(line);
    ASSERT_NE(first, std::string::npos) << diag;
    const auto second = diag.find(line, first + 1);
    ASSERT_NE(second, std::string::npos) << diag;
    EXPECT_EQ(diag.find(line, second + 1), std::string::npos) << diag;
}

TEST(Pcie, WhileThePipeIsLiveItGetsTheAnswersOfTheUsbPortToo) {
    Module module(pcie_options(kBoth));
    MhiLink link(module, 6);
    converse(module, module.pcie_pipe(), module.pcie_pipe(), "AT+PIPE");
    converse(module, module.at_port(), module.pcie_pipe(), "AT+USB");
    link.disconnect();
    converse(module, module.at_port(), module.at_port(), "AT+USB2");
    EXPECT_EQ(module.pcie_pipe().received(), "");
}

TEST(Pcie, BothReadersOfTheAtPortShareOnePlatformConnection) {
    ModuleWithPlatform both(pcie_options(kBoth));
    auto& [module, platform] = both;
    MhiLink link(module, 6);
    // Each of the two readers has its command answered: neither opened a connection of its own.
    module.pcie_pipe().write("AT+CSQ\r");
    platform.expect("at", "AT+CSQ\r");
    platform.send("at", "\r\nPIPE\r\nOK\r\n");
    module.pcie_pipe().expect("AT+CSQ\r\r\nPIPE\r\nOK\r\n");
    // While the pipe is live the platform's answers take the modem's way out.
    module.at_port().write("AT+CSQ\r");
    platform.expect("at", "AT+CSQ\r");
    platform.send("at", "\r\nUSB\r\nOK\r\n");
    module.pcie_pipe().expect("AT+CSQ\r\r\nUSB\r\nOK\r\n");
    EXPECT_EQ(platform.reports("at"), 1);
    EXPECT_EQ(platform.connections(), 3) << "one a port";
    link.disconnect();
    platform.send("at", "\r\n+LATE\r\n");
    module.at_port().expect_up_to("\r\n+LATE\r\n");
    EXPECT_EQ(module.pcie_pipe().received(), "");
}

TEST(Pcie, TheModemsControlLinesGoToThePipeOnlyWhileItIsLive) {
    Module module(pcie_options(kBoth));
    MhiLink link(module, 6);
    module.wait_until([&] { return module.device(kMhiPipe).is_served(); }, "the pipe");
    const auto change = [&](int bits, int times) {
        module.device("/dev/smd7").set_modem_bits(bits);
        module.device("/dev/smd7").raise(POLLPRI);
        module.wait_until([&] { return module.device("/dev/at_usb1").modem_sets() == times; },
                          "the control lines on the USB port");
        EXPECT_EQ(module.device("/dev/at_usb1").modem_bits(), bits);
    };
    change(0x42, 1);
    module.wait_until([&] { return module.device(kMhiPipe).modem_bits() == 0x42; },
                      "the control lines on the pipe");
    link.disconnect();
    change(0x46, 2);
    // Behind the answer the control lines are settled.
    converse(module, module.at_port(), module.at_port(), "AT+USB");
    EXPECT_EQ(module.device(kMhiPipe).modem_sets(), 1);
}

TEST(Pcie, TheEchoGoesToBothWhileThePipeIsLive) {
    Module module(pcie_options(kBoth));
    MhiLink link(module, 6);
    converse(module, module.pcie_pipe(), module.pcie_pipe(), "AT+PIPE");
    // A single character is echoed.
    module.at_port().write("A");
    module.at_port().expect("A");
    module.pcie_pipe().expect("A");
    link.disconnect();
    module.at_port().write("T");
    module.at_port().expect("T");
    // The line has reached the modem: its echoes are all done before the pipe is live again.
    module.at_port().write("\r");
    module.at_port().expect("\r");
    module.at_channel().expect("AT\r");
    link.connect();
    converse(module, module.pcie_pipe(), module.pcie_pipe(), "AT+MARKER");
}

TEST(Pcie, ADisconnectInTheMiddleOfAnAnswerSendsTheRestToTheUsbPort) {
    Module module(pcie_options(kBoth));
    MhiLink link(module, 6);
    module.pcie_pipe().write("AT+LONG\r");
    module.at_channel().expect("AT+LONG\r");
    module.at_channel().send("\r\n+LONG: first\r\n");
    module.pcie_pipe().expect("\r\n+LONG: first\r\n");
    link.disconnect();
    module.at_channel().send("+LONG: second\r\n\r\nOK\r\n");
    module.at_port().expect("+LONG: second\r\n\r\nOK\r\n");
    link.connect();
    converse(module, module.pcie_pipe(), module.pcie_pipe(), "AT+NEXT");
}

TEST(Pcie, AfterADisconnectOneChunkIsServedAndTheNextWaitsForTheChannels) {
    Module module(pcie_options());
    MhiLink link(module);
    module.wait_for_log(kGate);  // so that the one post is taken
    link.connect();
    converse(module, module.pcie_pipe(), module.pcie_pipe(), "AT+PIPE");
    // The next pass has passed the gate before the channels go.
    module.wait_until([&] { return module.device(kMhiPipe).polls() >= 2; }, "the next poll");
    link.disconnect();
    converse(module, module.pcie_pipe(), module.at_port(), "AT+TWO");
    module.wait_for_log(kGate, 2);
    module.pcie_pipe().write("AT+THREE\r");
    converse(module, module.at_port(), module.at_port(), "AT+MARKER");
    link.connect();
    module.at_channel().expect("AT+THREE\r");
    module.at_channel().send("\r\nOK\r\n");
    module.pcie_pipe().expect("\r\nOK\r\n");
}

TEST(Pcie, ACountLeftOverLetsTheReaderPassTheGateOnce) {
    Module module(pcie_options());
    MhiLink link(module);
    module.wait_for_log(kGate);
    link.connect();
    // A repeat is an arrival too; nobody waits for its post.
    link.report({"32=CONNECTED", "33=CONNECTED"}, 6, 6);
    link.disconnect();
    // The chunk of the poll that was begun before, and the one of the count left over.
    converse(module, module.pcie_pipe(), module.at_port(), "AT+ONE");
    module.wait_for_log(kGate, 2);
    converse(module, module.pcie_pipe(), module.at_port(), "AT+TWO");
    module.wait_for_log(kGate, 3);
    module.pcie_pipe().write("AT+THREE\r");
    converse(module, module.at_port(), module.at_port(), "AT+MARKER");
    link.connect();
    module.at_channel().expect("AT+THREE\r");
}

TEST(Pcie, ForeignUeventsChangeNothing) {
    Module module(pcie_options(kBoth));
    MhiLink link(module, 6);
    const std::size_t from = module.log_size();
    // One at a time: the socket's small buffer does not hold them all.
    for (const char* foreign :
         {"add@/devices/virtual/net/dummy0\nACTION=add\nSUBSYSTEM=net\n",
          "MHI_CHANNEL_STATE_100=DISCONNECTED\n", "MHI_CHANNEL_STATE_32=\n", "MHI_CHANNEL_STATE"}) {
        module.send_uevent(foreign);
        link.wait_until_drained();
    }
    link.report({"32=CONFIGURED"}, 6, 7);
    EXPECT_FALSE(module.log_has("MHI channel state: 6,0,0", from));
    EXPECT_FALSE(module.log_has("Error receving uevent msg", from));
}

// A message of this size from a socket of the module's network, to the monitor's group.
void multicast(const bench::UniqueFd& socket, const std::string& text) {
    sockaddr_nl group{};
    group.nl_family = AF_NETLINK;
    group.nl_groups = 1;
    // A full receiver is the sender's ENOBUFS.
    const ssize_t sent = sendto(socket.get(), text.data(), text.size(), 0,
                                reinterpret_cast<const sockaddr*>(&group), sizeof group);
    ASSERT_TRUE(sent == static_cast<ssize_t>(text.size()) || errno == ENOBUFS) << strerror(errno);
}

TEST(Pcie, AUeventOfMoreThan1023BytesIsRefused) {
    Module module(pcie_options());
    MhiLink link(module);
    const bench::UniqueFd sender = module.socket(AF_NETLINK, SOCK_RAW, NETLINK_KOBJECT_UEVENT);
    const std::string key("MHI_CHANNEL_STATE_32=CONNECTED\0", 31);
    std::size_t from = module.log_size();
    multicast(sender, key + std::string(1024 - key.size(), 'x'));
    module.wait_until(
        [&] { return module.log_has("Error uevent datagram is truncated: 0,0,0\r\n", from); },
        "the refusal");
    from = module.log_size();
    multicast(sender, key + std::string(1023 - key.size(), 'x'));
    module.wait_until([&] { return module.log_has("MHI channel state: 0,4,0\r\n", from); },
                      "the largest uevent");
}

TEST(Pcie, AStormOfUeventsLeavesThePortsAloneAndTheLastStateCounts) {
    Module module(pcie_options(kBoth));
    MhiLink link(module, 6);
    converse(module, module.pcie_pipe(), module.pcie_pipe(), "AT+PIPE");
    const bench::UniqueFd sender = module.socket(AF_NETLINK, SOCK_RAW, NETLINK_KOBJECT_UEVENT);
    const std::string storm[] = {
        std::string("ACTION=add\0SUBSYSTEM=net\0", 25),
        std::string("MHI_CHANNEL_STATE_32=DISCONNECTED\0", 34),
        std::string("MHI_CHANNEL_STATE_33=CONFIGURED\0", 32),
        std::string("MHI_CHANNEL_STATE_33=\0junk", 26),
        std::string(1500, 'x'),
    };
    int sent = 0;
    const auto blow = [&] {
        for (const std::string& text : storm) multicast(sender, text);
        sent += static_cast<int>(std::size(storm));
    };
    // The AT port is asked again and again while it blows; where the answers go changes with it.
    int asked = 0;
    while (sent < 10'000 || asked < 2) {
        const std::string command = "AT+STORM" + std::to_string(++asked);
        module.at_port().write(command + "\r");
        module.wait_until([&] { return blow(), !module.at_channel().received().empty(); },
                          command + " to reach the modem");
        module.at_channel().expect(command + "\r");
        const std::string answer = "\r\n" + command + " answered\r\n\r\nOK\r\n";
        module.at_channel().send(answer);
        module.wait_until(
            [&] {
                blow();
                return module.at_port().received() + module.pcie_pipe().received() == answer;
            },
            "the answer to " + command + ", once, on the port or on the pipe");
        module.at_port().forget_received();
        module.pcie_pipe().forget_received();
    }
    module.modem_port().write("AT+MODEM\r");
    module.modem_channel().expect("AT+MODEM\r");
    module.modem_channel().send("\r\nOK\r\n");
    module.modem_port().expect("\r\nOK\r\n");
    module.uart_port().write("AT+UART\r");
    module.uart_channel().expect("AT+UART\r");
    module.uart_channel().send("\r\nOK\r\n");
    module.uart_port().expect("\r\nOK\r\n");
    link.wait_until_drained();
    // Whatever of the storm came through, these two are taken in and settle it.
    const std::size_t from = module.log_size();
    module.send_uevent(mhi_uevent({"32=DISCONNECTED", "33=DISCONNECTED"}));
    module.wait_until([&] { return module.log_has(",3,0\r\n", from); }, "the disconnect");
    link.report({"32=CONNECTED", "33=CONNECTED"}, 3, 6);
    converse(module, module.at_port(), module.pcie_pipe(), "AT+USB");
}

TEST(Pcie, WithoutItsSocketTheMonitorEndsAndThePortsAreServed) {
    ModuleOptions options = pcie_options(kBoth);
    options.start = false;
    Module module(options);
    // The daemon's process id, whatever it will be, is taken as a port.
    std::vector<bench::UniqueFd> takers;
    for (unsigned port = 1; port <= 64; ++port) {
        takers.push_back(module.socket(AF_NETLINK, SOCK_RAW, NETLINK_KOBJECT_UEVENT));
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_pid = port;
        ASSERT_EQ(
            bind(takers.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
            0)
            << strerror(errno);
    }
    module.start();
    module.wait_for_log("Error binding netlink socket: 0,0,0\r\n");
    module.wait_for_log("MHI Monitor Thread ends without a netlink socket: 0,0,0\r\n");
    converse(module, module.at_port(), module.at_port(), "AT+USB");
}

TEST(Pcie, TargetChironWithConfiguration3SharesThePipeAndSaysSo) {
    ModuleOptions options = pcie_options(kBoth);
    options.target = 36;
    options.files["/etc/data/port_bridge/port_bridge.config"] = "3";
    options.ready_devices = {kMhiPipe, "/dev/at_usb1", "/dev/ttyMSM1"};
    Module module(options);
    module.wait_for_log(
        "warning: /dev/mhi_pipe_32 is read by the main pair and by the PCIe AT port: each gets a "
        "part of the input.\r\n");
}

}  // namespace
