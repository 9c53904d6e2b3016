// Start-up: which pair serves the modem port on which target, and what ends the process.
#include <poll.h>

#include <cstdlib>
#include <fstream>

#include "module.h"

namespace {

constexpr const char* kDunFlag = "/etc/data/usb/softap_w_dun";
constexpr const char* kConfig = "/etc/data/port_bridge/port_bridge.config";
constexpr const char* kPipe = "/dev/mhi_pipe_32";

// Of all devices that a thread could have opened.
int opens(Module& module) {
    int count = 0;
    for (const char* path : {"/dev/at_usb0", "/dev/at_usb1", "/dev/mhi_pipe_32", "/dev/ttyMSM1",
                             "/dev/at_mdm0", "/dev/smd7", "/dev/smd8"})
        count += module.device(path).opens();
    return count;
}

ModuleOptions not_waited_for() {
    ModuleOptions options;
    options.wait_until_ready = false;
    return options;
}

TEST(DaemonStart, EntryLineComesFirst) {
    Module module;
    const std::string log = module.log();
    EXPECT_THAT(log.substr(0, log.find('\n') + 1),
                testing::MatchesRegex("[-0-9]+ [:0-9]+ main\\([0-9]+\\):main enter. "
                                      "201909191715.0.0.\r\n"));
}

TEST(DaemonStart, DunSoftApFlagEndsWithStatus0BeforeAnyThread) {
    ModuleOptions options = not_waited_for();
    options.files[kDunFlag] = "Yes\n";
    Module module(options);
    EXPECT_EQ(module.daemon_exit_status(), 0);
    EXPECT_THAT(module.log(), testing::HasSubstr("In DUN+SoftAP mode. Exiting !!"));
    EXPECT_EQ(opens(module), 0);
}

TEST(DaemonStart, AnyOtherDunSoftApFlagIsNoReasonToEnd) {
    for (const char* flag : {"N\n", "y\n", ""}) {
        ModuleOptions options;
        options.files[kDunFlag] = flag;
        Module module(options);
        module.at_port().write("AT+CFUN?\r");
        module.at_channel().expect("AT+CFUN?\r");
    }
}

TEST(DaemonStart, UnknownTargetEndsWithStatus1) {
    ModuleOptions options = not_waited_for();
    options.target = 99;
    Module module(options);
    EXPECT_EQ(module.daemon_exit_status(), 1);
    EXPECT_THAT(module.log(), testing::HasSubstr("Failed to resolve target info. Dying...\n"));
    EXPECT_EQ(opens(module), 0);
}

// Everything that the topology says about itself, in its order. The threads' own output comes
// between, also between a line's start and its message.
TEST(DaemonStart, StepsAreLoggedInOrder) {
    Module module;
    module.wait_for_log("udp_at_server_thread pthread_create suceess....0,0,0.\r\n");
    const std::string log = module.log();
    std::size_t at = 0;
    for (const char* step : {
             "main enter. 201909191715.0.0.\r\n",
             "mhi_ctrl file does not exist. MBIM is over USB Interface: 2,0,0\r\n",
             "set mdm_info....from:-1,to:-1,0.\r\n",
             "set usb_info....from:-1,to:-1,0.\r\n",
             "begin mdm_handler....0,0,0.\r\n",
             "mdm_thread pthread_create suceess....0,0,0.\r\n",
             "begin usb_to_modem_bridge....0,0,0.\r\n",
             "usb_thread pthread_create suceess...0,0,0.\r\n",
             "set mdm_atport_info...0,0,0.\r\n",
             "set usb_atport_info....0,0,0.\r\n",
             "begin mdm_handler....0,0,0.\r\n",
             "modem_to_usb_bridge_glink_atport pthread_create suceess....-1,-1,0.\r\n",
             "begin usb_atport_to_modem_bridge...0,0,0.\r\n",
             "usb_atport_to_modem_bridge pthread_create suceess....-1,",
             "set mdm_uartport_info...0,0,0.\r\n",
             "set usb_uartport_info....0,0,0.\r\n",
             "modem_to_usb_bridge_glink_atport pthread_create suceess....-1,-1,0.\r\n",
             "begin usb_atport_to_modem_bridge...0,0,0.\r\n",
             "usb_atport_to_modem_bridge pthread_create suceess....-1,",
             "recv_data_handler pthread_create suceess....0,0,0.\r\n",
             "udp_at_server_thread pthread_create suceess....0,0,0.\r\n",
         }) {
        const std::size_t found = log.find(step, at);
        ASSERT_NE(found, std::string::npos) << step << log;
        at = found + 1;
    }
    EXPECT_EQ(module.log_count("pcie_atport"), 0);
}

TEST(DaemonStart, WithoutADiagnosticServiceTheStartGoesOn) {
    ModuleOptions options;
    options.environment["VEXA_DIAG_LOG"] = "/no/such/folder/diag.log";
    Module module(options);
    const std::string log = module.log();
    EXPECT_THAT(log, testing::ContainsRegex("main enter[^\n]*\n[^\n]*main\\([0-9]+\\):"
                                            "Diag_LSM_Init main failed 0, 0!!.\r\n"));
    module.at_port().write("AT+CFUN?\r");
    module.at_channel().expect("AT+CFUN?\r");
}

#ifndef __SANITIZE_ADDRESS__
#ifndef __SANITIZE_THREAD__  // whose own threads and stacks could not be had either
// Threads whose stacks would be larger than the address space cannot be made.
TEST(DaemonStart, WithoutAnyThreadTheMainThreadSleepsForEver) {
    if (std::getenv("VEXA_TEST_DAEMON") != nullptr)
        GTEST_SKIP() << "the daemon of this run is started in a way of its own";
    const std::string folder = bench::program_folder();
    setenv("VEXA_TEST_DAEMON",
           ("/usr/bin/prlimit --stack=140737488355328: /usr/bin/env LD_PRELOAD=" + folder +
            "/lib/libvexa_shim.so " + folder + "/vexa_at_client")
               .c_str(),
           1);
    Module module(not_waited_for());
    unsetenv("VEXA_TEST_DAEMON");
    module.wait_for_log("end init_vexa_port_bridge...0,0,0.\r\n");
    EXPECT_EQ(module.log_count("pthread_create failed...."), 8);
    EXPECT_EQ(module.log_count("pthread_join ok"), 0);
    module.wait_until(
        [&] {
            std::ifstream file("/proc/" + std::to_string(module.daemon_pid()) + "/wchan");
            std::string waits_in;
            file >> waits_in;
            return waits_in.find("nanosleep") != std::string::npos;
        },
        "the main thread to sleep");
    EXPECT_EQ(module.count_threads(), 1);
}
#endif
#endif

// Each of them would say something at once.
TEST(DaemonStart, TheQmiServiceAndItsSelfTestAreNotStarted) {
    Module module;
    for (const int port : {0, 1, 2}) {
        module.host_port(port).write("AT+CFUN?\r");
        module.channel(port).expect("AT+CFUN?\r");
        module.channel(port).send("\r\nOK\r\n");
        module.host_port(port).expect("\r\nOK\r\n");
    }
    for (const char* words : {"+++++++++++++++++++", "Unable to register service!", "TEST: "})
        EXPECT_EQ(module.log_count(words), 0) << words;
}

class RefusedIntent : public testing::TestWithParam<const char*> {};

TEST_P(RefusedIntent, EndsWithStatus1) {
    ModuleOptions options = not_waited_for();
    options.start = false;
    Module module(options);
    module.device(GetParam()).refuse_intents();
    module.start();
    EXPECT_EQ(module.daemon_exit_status(), 1);
    EXPECT_THAT(module.log(), testing::HasSubstr("Error queuing RX intent=-1."));
}

INSTANTIATE_TEST_SUITE_P(DaemonStart, RefusedIntent,
                         testing::Values("/dev/at_mdm0", "/dev/smd7", "/dev/smd8"));

TEST(DaemonStart, PlainTargetsServeTheModemPortWithoutIntents) {
    ModuleOptions options;
    options.target = 26;  // SMD: byte for byte, control lines on POLLPRI
    Module module(options);
    module.wait_for_log("modem_to_usb_bridge_smd Attempting to open '/dev/at_mdm0'...");
    module.wait_for_log("OPEN THE FILE mdm_fd.\r\n");
    module.device("/dev/at_mdm0").set_modem_bits(0x146);
    module.device("/dev/at_mdm0").raise(POLLPRI);
    module.wait_until([&] { return module.device("/dev/at_usb0").modem_bits() == 0x146; },
                      "the control lines");
    // A channel that goes and comes back, and a host write that fails, are both survived.
    module.modem_channel().hang_up();
    module.wait_until([&] { return module.device("/dev/at_mdm0").is_served(2); }, "the channel");
    module.device("/dev/at_usb0").fail_writes(EIO, 1);
    module.modem_channel().send("lost");
    module.wait_until([&] { return module.device("/dev/at_usb0").is_served(2); }, "the port");
    module.modem_channel().send("kept");
    module.modem_port().expect("kept");
    // A prompt is text like any other: no mode comes of it, so the next line is a command.
    module.modem_channel().send("\r\n> ");
    module.modem_port().expect("\r\n> ");
    // Last, because nobody signals the engine's wait for the answer on this target.
    module.modem_port().write("AT+CFUN?\r");
    module.modem_channel().expect("AT+CFUN?\r");
    module.modem_channel().send("\r\nOK\r\n");
    module.modem_port().expect("\r\nOK\r\n");
    EXPECT_EQ(module.device("/dev/at_mdm0").intents(), 0);
    EXPECT_EQ(module.log_count("mport cp "), 0) << "nobody is signalled";
}

class MhiMainPair : public testing::TestWithParam<int> {};

TEST_P(MhiMainPair, ReadsThePipeAndFollowsItsControlLines) {
    ModuleOptions options;
    options.target = GetParam();
    options.ready_devices = {kPipe, "/dev/at_usb0", "/dev/at_usb1", "/dev/smd7"};
    Module module(options);
    module.wait_for_log("modem_to_usb_bridge_mhi Attempting to open '/dev/mhi_pipe_32'...");
    module.modem_port().write("AT+CFUN?\r");
    module.pcie_pipe().expect("AT+CFUN?\r");
    module.pcie_pipe().write("\r\nOK\r\n");
    module.modem_port().expect("\r\nOK\r\n");
    EXPECT_EQ(module.device("/dev/at_usb0").modem_sets(), 0) << "only a change is passed on";
    module.device(kPipe).set_modem_bits(0x46);
    module.wait_until([&] { return module.device("/dev/at_usb0").modem_bits() == 0x46; },
                      "the control lines");
    const int gets = module.device(kPipe).modem_gets();
    module.wait_until([&] { return module.device(kPipe).modem_gets() >= gets + 2; },
                      "two passes without a change");
    EXPECT_EQ(module.device("/dev/at_usb0").modem_sets(), 1);
    module.pcie_pipe().replug();
    module.wait_until([&] { return module.device(kPipe).is_served(2); }, "the pipe");
    module.pcie_pipe().write("again");
    module.modem_port().expect("again");
}

INSTANTIATE_TEST_SUITE_P(DaemonStart, MhiMainPair, testing::Values(24, 28));

TEST(DaemonStart, ChironWithDigit3ServesThePipeAsTheModemPort) {
    ModuleOptions options;
    options.target = 36;
    options.files[kConfig] = "3\n";
    options.ready_devices = {kPipe, "/dev/at_mdm0", "/dev/at_usb1", "/dev/smd7"};
    Module module(options);
    module.pcie_pipe().write("AT+CFUN?\r");
    module.modem_channel().expect("AT+CFUN?\r");
    module.modem_channel().send("\r\nOK\r\n");
    module.pcie_pipe().expect("\r\nOK\r\n");
    EXPECT_EQ(module.device("/dev/at_usb0").opens(), 0);
    EXPECT_EQ(module.log_count("IN PCIE PATH"), 1);
    EXPECT_EQ(module.log_count("warning: "), 0) << "the pipe has one reader without PCIe";
}

TEST(DaemonStart, ChironWithAnyOtherConfigurationServesUsb) {
    for (const char* text : {"1\n", "", "03\n"}) {
        ModuleOptions options;
        options.target = 36;
        options.files[kConfig] = text;
        Module module(options);
        module.modem_port().write("AT+CFUN?\r");
        module.modem_channel().expect("AT+CFUN?\r");
        EXPECT_EQ(module.device(kPipe).opens(), 0) << text;
    }
}

TEST(DaemonStart, TwoReadersOfThePipeAreWarnedOfOnce) {
    ModuleOptions options;
    options.target = 36;
    options.files[kConfig] = "3\n";
    options.files["/dev/mhi_ctrl"] = "";
    options.ready_devices = {kPipe, "/dev/at_mdm0", "/dev/at_usb1", "/dev/smd7"};
    Module module(options);
    EXPECT_EQ(module.log_count("warning: /dev/mhi_pipe_32 is read by the main pair and by"), 1);
    EXPECT_EQ(module.log_count("pcie_atport_to_modem_bridge pthread_create suceess....0,0,0."), 1);
}

}  // namespace
