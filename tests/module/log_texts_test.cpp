// What the readers say while they work: log readers and scripts look for these texts.
#include <poll.h>
#include <termios.h>

#include "module.h"

namespace {

struct Names {
    const char* port;
    const char* host;
    const char* channel;
    const char* modem_reader;
    const char* channel_slot;
    const char* host_slot;
    const char* poll_end;
    const char* host_reader;
    const char* host_entry;
};
constexpr Names kNames[] = {
    {"mport", "/dev/at_usb0", "/dev/at_mdm0", "modem_to_usb_bridge_glink", "mdm_fd",
     "g_fd_usb_modem_device", " waiting...", "usb_to_modem_bridge", "usb_to_modem_bridge"},
    {"atport", "/dev/at_usb1", "/dev/smd7", "modem_to_usb_bridge_glink_atport", "mdm_atport_fd",
     "g_fd_usb_atport_device", "...", "usb_atport_to_modem_bridge", "usb_atport_to_modem_bridge"},
    {"uartport", "/dev/ttyMSM1", "/dev/smd8", "modem_to_usb_bridge_glink_uartport",
     "mdm_uartport_fd", "g_fd_usb_uartport_device", "...", "usb_uartport_to_modem_bridge",
     "usb_atport_to_modem_bridge"},
};

class LogTexts : public testing::TestWithParam<int> {
  protected:
    static const Names& names() { return kNames[GetParam()]; }
    static bool is_uart() { return GetParam() == 2; }
    HostPort& host() { return module_.host_port(GetParam()); }
    ModemChannel& channel() { return module_.channel(GetParam()); }
    DeviceControl host_device() { return module_.device(names().host); }
    DeviceControl channel_device() { return module_.device(names().channel); }

    // The log from `from` on has these texts, or comes to have them, one after the other.
    void expect_in_order(const std::vector<std::string>& texts, std::size_t from = 0) {
        module_.wait_until(
            [&] { return first_missing(texts, from).empty(); },
            "the texts in their order; the first that is not there: " + first_missing(texts, from));
    }
    std::string first_missing(const std::vector<std::string>& texts, std::size_t from) const {
        const std::string log = module_.log();
        for (const std::string& text : texts) {
            const std::size_t found = log.find(text, from);
            if (found == std::string::npos)
                return text;
            from = found + text.size();
        }
        return {};
    }
    static std::string quoted(const std::string& text) { return "'" + text + "'"; }

    Module module_;
};

INSTANTIATE_TEST_SUITE_P(ModemAtUart, LogTexts, testing::Values(0, 1, 2));

TEST_P(LogTexts, OfTheModemsReaderFromItsStartToAFinalResult) {
    channel().send("\r\nOK\r\n");
    host().expect("\r\nOK\r\n");
    const std::string reader = names().modem_reader;
    const std::string port = names().port;
    const std::string path = quoted(names().channel);
    expect_in_order({
        reader + " enter.",
        reader + " while." + names().host_slot + ":",
        reader + " Attempting to open " + path + "...",
        std::string("OPEN THE FILE ") + names().channel_slot + ".",
        "Queuing RX Intent for " + path + ".",
        "Attempting to poll(" + port + " waiting cp) " + path + names().poll_end,
        "read from " + path + " num_read: 6.",
        "buf contains(" + reader + ") '\r\nOK\r\n'.buf_len:6.0.",
        "after recv data clean g_at_buf_cache(at CP) :<>.",
        "Attempting to write to " + quoted(names().host) + "...to_fd:",
        "!!!!!<<<<<<<<<<<<<<<<<<<<< " + port + " cp <<<<<<<<<<<<<<<<<<!!!!!<\r\nOK\r\n>,0,0.",
        "!!!!!<<<<<<<<<<<<<<<<<<<< " + port +
            " cp g_cond_ap_with_cp <<<<<<<<<<<<<<<<<<<!!!!!0,0,0.",
        "Queuing RX Intent for " + path + ".",
    });
    EXPECT_EQ(module_.log_count("Marking rx intent as consumed."), 1);
}

TEST_P(LogTexts, OfTheHostsReaderFromItsStartToAChunk) {
    host().write("AT+CFUN?\r");
    channel().expect("AT+CFUN?\r");
    const std::string path = quoted(names().host);
    const std::string port = names().port;
    const std::string opening =
        std::string(names().host_reader) +
        (is_uart() ? " open before......\n" : " Attempting to open " + path);
    std::vector<std::string> texts = {
        std::string(names().host_entry) + " enter.\n", opening,
        "====>:Blocking open on " + path + " fd:",     "POLLIN is set.\n",
        "read from " + path + " num_read 9.",
    };
    if (GetParam() != 0)
        texts.push_back("set g_at_over_sokcet_enable in " + port + ".");
    texts.push_back("before common_input_atcmd_proc(" + port + "). cond:0x");
    expect_in_order(texts);
    EXPECT_EQ(module_.log_count("usb_uartport_to_modem_bridge open after......\n"), 1);
    EXPECT_EQ(module_.log_count("usb_atport_to_modem_bridge enter."), 2)
        << "the UART's says so too";
    EXPECT_EQ(module_.log_count("set g_at_over_sokcet_enable in mport"), 0);
}

TEST_P(LogTexts, OfControlLinesAndHangUpsOfTheHost) {
    std::size_t from = module_.log_size();
    host_device().set_modem_bits(0x47);
    host_device().raise(POLLPRI);
    const std::string to_modem = "TIOCMSET on " + quoted(names().channel) + " returned 0, signals=";
    expect_in_order(
        {"POLLPRI is set.\n",
         "TIOCMGET on " + quoted(names().host) + " returned 0, signals=0x47 (0x1 | DTR | CD | RTS)",
         to_modem + "0x47 (0x1 | DTR | CD | RTS)"},
        from);
    from = module_.log_size();
    host().replug();
    expect_in_order({"POLLHUP is set.", "Sending DTR low signal to MODEM.\n",
                     to_modem + "0x45 (0x1 | CD | RTS)",
                     std::string("close_fd_mutexed file_path enter:") + names().host + ", fd:"},
                    from);
}

TEST_P(LogTexts, ControlLinesComeBeforeDataOfTheSamePoll) {
    termios settings{};
    ASSERT_EQ(tcgetattr(host().slave_fd(), &settings), 0);
    settings.c_cc[VMIN] = 0;  // a read without data gives 0 instead of waiting
    ASSERT_EQ(tcsetattr(host().slave_fd(), TCSANOW, &settings), 0);
    const std::size_t from = module_.log_size();
    host_device().raise(POLLPRI | POLLIN);
    expect_in_order(
        {"POLLPRI is set.\n", "POLLIN is set.\n", "!!!!!!common_input_atcmd_proc read data 0 !!!!"},
        from);
}

TEST_P(LogTexts, OfAChannelThatHangsUpAndOfAHostThatIsNotWritten) {
    std::size_t from = module_.log_size();
    channel().hang_up();
    expect_in_order({"POLLHUP is set.", "Closing: " + quoted(names().channel),
                     std::string("close_fd_mutexed file_path enter:") + names().channel + ", fd:",
                     "Attempting to poll("},
                    from);
    module_.wait_until([&] { return channel_device().is_served(2); }, "the channel");
    from = module_.log_size();
    host_device().fail_writes(EIO, 1);
    channel().send("lost");
    expect_in_order(
        {std::string("close_fd_mutexed file_path close:") + names().host + ", fd:-1.0."}, from);
    EXPECT_EQ(module_.log_has("Closing: " + quoted(names().host), from), is_uart());
}

}  // namespace
