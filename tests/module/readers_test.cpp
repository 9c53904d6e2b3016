// The readers of both sides on each of the three ports: control lines, chunks, final results,
// and everything that closes and reopens a device.
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>

#include "module.h"

namespace {

using testing::HasSubstr;

struct Port {
    const char* log_name;
    const char* host;
    const char* channel;
};
constexpr Port kPorts[] = {
    {"mport", "/dev/at_usb0", "/dev/at_mdm0"},
    {"atport", "/dev/at_usb1", "/dev/smd7"},
    {"uartport", "/dev/ttyMSM1", "/dev/smd8"},
};

class DeviceReaders : public testing::TestWithParam<int> {
  protected:
    static const Port& names() { return kPorts[GetParam()]; }
    HostPort& host() { return module_.host_port(GetParam()); }
    ModemChannel& channel() { return module_.channel(GetParam()); }
    DeviceControl host_device() { return module_.device(names().host); }
    DeviceControl channel_device() { return module_.device(names().channel); }

    void expect_road() {
        host().write("AT+CFUN?\r");
        channel().expect("AT+CFUN?\r");
        channel().send("\r\nOK\r\n");
        host().expect("\r\nOK\r\n");
    }
    // What is written to a device before its reader waits for events may be lost: the slot is not
    // stored yet, or the UART is flushed when it is set up.
    void wait_for_host(int opens) {
        module_.wait_until([&] { return host_device().is_served(opens); }, "the host port");
    }
    void wait_for_channel(int opens) {
        module_.wait_until([&] { return channel_device().is_served(opens); }, "the channel");
        channel().wait_until_open();
    }
    // The platform's connections come and go meanwhile: what was counted before may hold one more.
    void expect_at_most(int descriptors) {
        module_.wait_until([&] { return module_.count_descriptors() <= descriptors; },
                           "no more descriptors than before");
    }
    void wait_for_control_lines(DeviceControl device, int bits) {
        module_.wait_until([&] { return device.modem_bits() == bits; },
                           "control lines " + std::to_string(bits));
    }
    void wait_for_sets(DeviceControl device, int times) {
        module_.wait_until([&] { return device.modem_sets() >= times; }, "TIOCMSET");
    }

    Module module_;
};

INSTANTIATE_TEST_SUITE_P(ModemAtUart, DeviceReaders, testing::Values(0, 1, 2));

TEST_P(DeviceReaders, OneIntentOf16384BytesAMessage) {
    module_.wait_until([&] { return channel_device().intents() == 1; }, "the first intent");
    EXPECT_EQ(channel_device().intent_size(), 16384);
    for (int message = 2; message <= 4; ++message) {
        channel().send("\r\n+CREG: 1\r\n");
        host().expect("\r\n+CREG: 1\r\n");
        module_.wait_until([&] { return channel_device().intents() == message; }, "an intent");
    }
}

TEST_P(DeviceReaders, MessagesOfAnySizeGoThroughWhole) {
    for (const std::size_t size : {1u, 300u, 4096u, 16384u}) {
        const std::string message(size, 'm');
        channel().send(message);
        host().expect(message);
    }
    channel().send(std::string("\0a\0b", 4));
    host().expect(std::string("\0a\0b", 4));
}

TEST_P(DeviceReaders, EmptyPacketsAreNoAnswerAndTheNextOneArrives) {
    for (int round = 0; round < 3; ++round) {
        for (int empty = 0; empty < 5; ++empty) channel().send("");
        channel().send("\r\n+CREG: 1\r\n");
        host().expect("\r\n+CREG: 1\r\n");
    }
}

TEST_P(DeviceReaders, HostControlLinesReachTheModem) {
    host_device().set_modem_bits(0x47);
    host_device().raise(POLLPRI);
    wait_for_control_lines(channel_device(), 0x47);
    module_.wait_for_log("TIOCMGET on '" + std::string(names().host) +
                         "' returned 0, signals=0x47 (0x1 | DTR | CD | RTS)");
    module_.wait_for_log("TIOCMSET on '" + std::string(names().channel) +
                         "' returned 0, signals=0x47 (0x1 | DTR | CD | RTS)");
    EXPECT_GE(module_.log_count("POLLPRI is set.\n"), 1);
}

TEST_P(DeviceReaders, HostControlLinesGoBeforeTheDataOfTheSamePoll) {
    host_device().set_modem_bits(0x47);
    // A read would block: the data behind the event comes later.
    host_device().raise(POLLPRI | POLLIN);
    wait_for_control_lines(channel_device(), 0x47);
    expect_road();
}

TEST_P(DeviceReaders, EachStepOfAChunkIsTold) {
    expect_road();
    const std::string host_path = names().host;
    const std::string log_name = names().log_name;
    const bool is_modem = GetParam() == 0;
    const bool is_uart = GetParam() == 2;
    const std::string member = is_modem ? "usb_to_modem_bridge" : "usb_atport_to_modem_bridge";
    std::vector<std::string> steps = {member + " enter.\n"};
    if (is_uart) {
        steps.emplace_back("usb_uartport_to_modem_bridge open before......\n");
        steps.emplace_back("usb_uartport_to_modem_bridge open after......\n");
    } else {
        steps.push_back(member + " Attempting to open '" + host_path + "'...");
    }
    steps.push_back("====>:Blocking open on '" + host_path + "' fd:");
    steps.emplace_back("POLLIN is set.\n");
    steps.push_back("read from '" + host_path + "' num_read 9.\r\n");
    if (!is_modem)
        steps.push_back("set g_at_over_sokcet_enable in " + log_name + ".\r\n");
    steps.push_back("before common_input_atcmd_proc(" + log_name + "). cond:0x");
    const std::string log = module_.log();
    std::size_t at = 0;
    for (const std::string& step : steps) {
        const std::size_t found = log.find(step, at);
        ASSERT_NE(found, std::string::npos) << step << log;
        at = found + 1;
    }
    EXPECT_EQ(module_.log_count("set g_at_over_sokcet_enable in mport."), 0);
    // The UART's entry line is the AT port's.
    EXPECT_EQ(module_.log_count("usb_atport_to_modem_bridge enter.\n"), 2);
}

TEST_P(DeviceReaders, EventsThatNobodyAskedForAreToldOfOnTheModemPort) {
    host_device().raise(POLLNVAL | POLLIN);
    module_.wait_for_log("POLLIN is set.\n");  // and now it reads, which blocks
    expect_road();
    host().write("AT+CFUN?\r");  // the next pass has begun: the chunk before has had its say
    channel().expect("AT+CFUN?\r");
    EXPECT_EQ(module_.log_count("An unrecognized event happened!  pollinfo.revents=0x21\r\n"),
              GetParam() == 0 ? 1 : 0);
    EXPECT_EQ(host_device().closes(), 0);
}

TEST_P(DeviceReaders, ModemControlLinesReachTheHost) {
    channel_device().set_modem_bits(0xC2);
    channel_device().raise(POLLPRI);
    wait_for_control_lines(host_device(), 0xC2);
}

TEST_P(DeviceReaders, HangUpDropsDtrAndKeepsTheOtherLines) {
    host_device().set_modem_bits(0x47);
    host_device().raise(POLLPRI);
    wait_for_sets(channel_device(), 1);
    host().replug();
    wait_for_sets(channel_device(), 2);
    EXPECT_EQ(channel_device().modem_bits(), 0x45);
    module_.wait_for_log("POLLHUP is set.");
    module_.wait_for_log("Sending DTR low signal to MODEM.");
}

TEST_P(DeviceReaders, HangUpBeforeAnyControlChangeSetsAllLinesLow) {
    channel_device().set_modem_bits(0x1FF);
    host().replug();
    wait_for_sets(channel_device(), 1);
    EXPECT_EQ(channel_device().modem_bits(), 0);
}

TEST_P(DeviceReaders, HangUpWinsOverDataOfTheSamePoll) {
    // A read would block for ever: there is no data behind the event.
    host_device().raise(POLLERR | POLLPRI | POLLIN);
    wait_for_host(2);
    EXPECT_EQ(host_device().modem_gets(), 0);
    EXPECT_EQ(channel_device().modem_sets(), 1);
    EXPECT_THAT(module_.log(), HasSubstr("POLLERR is set."));
    expect_road();
}

TEST_P(DeviceReaders, ReadErrorOfTheHostPortReopensWithoutDtr) {
    host_device().fail_reads(EIO, 1);
    host().write("AT+CFUN?\r");
    wait_for_host(2);
    EXPECT_EQ(channel_device().modem_sets(), 0);
}

TEST_P(DeviceReaders, ReadErrorOfTheChannelReopensItWithAFreshIntent) {
    channel_device().fail_reads(EIO, 1);
    channel().send("lost");
    wait_for_channel(2);
    EXPECT_EQ(channel_device().intents(), 2);
    expect_road();
}

TEST_P(DeviceReaders, ChunkOfNoBytesFromTheModemIsPassedOver) {
    channel().send("");
    module_.wait_for_log("read from '" + std::string(names().channel) + "' num_read: 0.");
    channel().send("marker");
    host().expect("marker");
    // One line a signalled chunk: the marker's alone.
    module_.wait_for_log("<marker>");
    EXPECT_EQ(module_.log_count(std::string("<<<<<< ") + names().log_name + " cp <<<"), 1);
}

TEST_P(DeviceReaders, ChunkOfNoBytesFromTheHostIsHandedOver) {
    termios settings{};
    ASSERT_EQ(tcgetattr(host().slave_fd(), &settings), 0);
    settings.c_cc[VMIN] = 0;  // a read without data gives 0 instead of waiting
    ASSERT_EQ(tcsetattr(host().slave_fd(), TCSANOW, &settings), 0);
    host_device().raise(POLLIN);
    module_.wait_for_log("!!!!!!common_input_atcmd_proc read data 0 !!!!");
    EXPECT_EQ(host_device().closes(), 0);
    expect_road();
}

TEST_P(DeviceReaders, FinalResultIsAWordAnywhereInOneChunk) {
    const auto completions = [&] {
        return module_.log_count(std::string(names().log_name) + " cp g_cond_ap_with_cp <<<");
    };
    // None of these completes a command: the last two only would as one chunk.
    for (const char* chunk : {"ok", "OK", "Ok\r\n", "Error", "No Carrier", "\r\nO", "K\r\n"}) {
        channel().send(chunk);
        host().expect(chunk);
    }
    int expected = 0;
    for (const char* chunk : {"\r\nok\r\n", "\r\nOK\r\n", "error", "\r\n+CME ERROR: 100\r\n",
                              "no carrier", "x NO CARRIER x"}) {
        channel().send(chunk);
        host().expect(chunk);
        ++expected;
        module_.wait_until([&] { return completions() >= expected; }, "a completed command");
        EXPECT_EQ(completions(), expected) << chunk;
    }
}

TEST_P(DeviceReaders, SmsPromptMakesTheNextInputText) {
    host().write("AT+CMGS=\"1\"\r");
    channel().expect("AT+CMGS=\"1\"\r");
    channel().send("\r\n> ");
    host().expect("\r\n> ");
    module_.wait_for_log("<\r\n> >");  // signalled: the mode has moved
    host().write("hello\x1a");
    channel().expect("hello\x1a");
    channel().send("\r\n+CMGS: 1\r\n\r\nOK\r\n");
    host().expect("\r\n+CMGS: 1\r\n\r\nOK\r\n");
    EXPECT_EQ(module_.log_count("we got > enter sms mode '\r\n> '.buf_len:4.2.\r\n"),
              GetParam() == 0 ? 1 : 0);
    expect_road();
}

TEST_P(DeviceReaders, PromptWithinPppDataIsData) {
    host().write("ATD*99#\r");
    channel().expect("ATD*99#\r");
    channel().send("\r\nCONNECT\r\n");
    host().expect("\r\nCONNECT\r\n");
    module_.wait_for_log("<\r\nCONNECT\r\n>");
    channel().send("\r\n> ");
    host().expect("\r\n> ");
    module_.wait_for_log("<\r\n> >");
    // In SMS mode an ESC would end the mode; in PPP mode it is data and the next bytes are, too.
    host().write("\x1b");
    channel().expect("\x1b");
    host().write("~data~");
    channel().expect("~data~");
    channel().send("\r\nNO CARRIER\r\n");
    host().expect("\r\nNO CARRIER\r\n");
    module_.wait_for_log("<\r\nNO CARRIER\r\n>");
    expect_road();
}

TEST_P(DeviceReaders, FailedWriteToTheHostReopensItAtOnce) {
    host_device().fail_writes(EIO, 1);
    channel().send("lost");
    wait_for_host(2);
    EXPECT_EQ(channel_device().modem_sets(), 0) << "no hang-up, no change of DTR";
    channel().send("kept");
    host().expect("kept");
    expect_road();
}

TEST_P(DeviceReaders, FailedWriteToTheChannelReopensItAtOnceWithAFreshIntent) {
    channel_device().fail_writes(EIO, 1);
    host().write("AT+CFUN?\r");
    wait_for_channel(2);
    EXPECT_EQ(channel_device().intents(), 2);
    expect_road();
}

TEST_P(DeviceReaders, RefusedWriteIsTriedAgain) {
    channel_device().fail_writes(EAGAIN, 1);
    host_device().fail_writes(EAGAIN, 1);
    expect_road();
    EXPECT_EQ(channel_device().opens(), 1);
    EXPECT_EQ(host_device().opens(), 1);
}

TEST_P(DeviceReaders, ShortWritesLoseNothing) {
    host_device().limit_writes(3);
    channel().send("\r\n+CREG: 1,\"0001\"\r\n");
    host().expect("\r\n+CREG: 1,\"0001\"\r\n");
}

TEST_P(DeviceReaders, HostPortVanishesAndReturns100Times) {
    // The UART's reader counts failed opens for ever, but here the new port stands at the path
    // before the old one hangs up.
    const int descriptors = module_.count_descriptors();
    for (int time = 1; time <= 100; ++time) {
        host().replug();
        wait_for_host(time + 1);
        wait_for_sets(channel_device(), time);
        if (time % 25 == 0)
            expect_road();
    }
    EXPECT_EQ(channel_device().modem_sets(), 100);
    expect_at_most(descriptors);
}

TEST_P(DeviceReaders, ChannelVanishesAndReturns100Times) {
    const int descriptors = module_.count_descriptors();
    for (int time = 1; time <= 100; ++time) {
        channel().hang_up();
        wait_for_channel(time + 1);
        if (time % 25 == 0)
            expect_road();
    }
    expect_at_most(descriptors);
}

TEST_P(DeviceReaders, HostPortThatIsAwayIsWaitedFor) {
    host().unplug();
    module_.wait_until([&] { return host_device().closes() == 1; }, "the port to be closed");
    host().plug();
    wait_for_host(2);
    expect_road();
}

TEST_P(DeviceReaders, ChannelThatIsAwayIsWaitedFor) {
    channel().close();
    module_.wait_until([&] { return channel_device().closes() == 1; }, "it to be closed");
    channel().open();
    wait_for_channel(2);
    expect_road();
}

TEST_P(DeviceReaders, WriterThatMeetsTheHangUpFirstDropsDtrAllTheSame) {
    // Answers are under way while the host leaves: whoever sees it first, DTR drops once.
    for (int time = 1; time <= 20; ++time) {
        const int opens = host_device().opens();
        channel().send("\r\n+CREG: 1\r\n");
        host().replug();
        wait_for_sets(channel_device(), time);
        // The writer may have closed a port that was reopened meanwhile; both are at rest when the
        // writer waits for the next message and the port is served again.
        module_.wait_for_log(std::string("Attempting to poll(") + names().log_name, time + 1);
        module_.wait_until(
            [&] {
                return host_device().closes() == host_device().opens() - 1 &&
                       host_device().is_served(opens + 1);
            },
            "the host port");
    }
    channel().send("marker");
    host().expect_up_to("marker");
    EXPECT_EQ(channel_device().modem_sets(), 20);
}

// The pauses of 1 to 5 s are the rule under test, on both channels at the same time.
TEST(DeviceWrites, FiveRefusalsLoseNothingAndSixFail) {
    Module module;
    DeviceControl patient = module.device("/dev/at_mdm0");
    DeviceControl failing = module.device("/dev/smd7");
    patient.fail_writes(EAGAIN, 5);
    failing.fail_writes(EAGAIN, 6);
    module.modem_port().write("AT+CREG?\r");
    module.at_port().write("AT+CFUN?\r");
    module.modem_channel().expect("AT+CREG?\r");
    module.modem_channel().send("\r\nOK\r\n");
    module.modem_port().expect("\r\nOK\r\n");
    EXPECT_EQ(patient.write_calls(), 6);
    EXPECT_EQ(patient.opens(), 1);

    module.wait_until([&] { return failing.is_served(2); }, "the channel to be opened again");
    EXPECT_EQ(failing.write_calls(), 6);
    module.at_port().write("AT+CREG?\r");
    module.at_channel().expect("AT+CREG?\r");
}

}  // namespace
