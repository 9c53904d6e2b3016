// The road of the UART's bytes while the multiplexer runs, through the engine as a reader calls it.
#include "mux_input.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "at_engine.h"
#include "descriptors.h"
#include "input_source.h"
#include "line_settings.h"
#include "mux_session.h"
#include "port_state.h"
#include "shared_int.h"

namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

const std::string kRefusal = "\r\n!!!!!MUX data error!!!!!.\r\n";
const std::string kSetUp =
    "\xF9\x03\x3F\x01\x1C\xF9\xF9\x07\x3F\x01\xDE\xF9\xF9\x0B\x3F\x01\x59\xF9"
    "\xF9\x13\x3F\x01\x96\xF9";
const std::string kSetUpAnswers =
    "\xF9\x03\x73\x01\xD7\xF9\xF9\x07\x73\x01\x15\xF9\xF9\x0B\x73\x01\x92\xF9"
    "\xF9\x13\x3F\x01\x5D\xF9";

// A device as a pipe whose other end the test reads.
class Pipe {
  public:
    Pipe() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        reader_ = ends[0];
        writer = ends[1];
    }
    ~Pipe() {
        close(reader_);
        close(writer);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    // What has been written: writes are done when the engine returns.
    std::string take() const {
        std::string all;
        char area[4096];
        for (ssize_t count = read(reader_, area, sizeof area); count > 0;
             count = read(reader_, area, sizeof area))
            all.append(area, static_cast<std::size_t>(count));
        return all;
    }

    int writer = -1;

  private:
    int reader_ = -1;
};

class MuxInput : public testing::Test {
  protected:
    void SetUp() override {
        bind_input_source(InputSource::uart_port);
        store_shared(g_uart_port_status, 0);
        g_cur_mux_proc_state = CUR_STATE_ERROR;
        store_shared(g_usb_uart_port_mode, USB_PORT_ATCMD_MODE);
        store_shared(g_mux_atcmd_dlc, 0);
        store_shared(g_mux_ppp_dlc, 0);
        reset_mux_input();
        usb_uartport_fd = uart_.writer;
        store_shared(g_fd_usb_uartport_device, &usb_uartport_fd);
        store_shared(g_uart_tinfo_for_mux, &uart_info_);
        store_shared(g_modem_tinfo_for_mux, &modem_info_);
    }
    void TearDown() override {
        store_shared(g_uart_tinfo_for_mux, static_cast<thread_info_t*>(nullptr));
        store_shared(g_modem_tinfo_for_mux, static_cast<thread_info_t*>(nullptr));
        store_shared(g_fd_usb_uartport_device, static_cast<int*>(nullptr));
        usb_uartport_fd = -1;
        bind_input_source(InputSource::modem_port);
    }

    int give_chunk(std::string_view bytes) {
        std::vector<char> area(bytes.begin(), bytes.end());
        area.push_back('x');  // the engine writes a NUL there
        return common_input_atcmd_proc(-1, area.data(), static_cast<int>(bytes.size()),
                                       &g_usb_uart_port_mode, &g_mut_uartport, &g_cond_uartport,
                                       &uart_info_);
    }
    void give(std::string_view bytes, std::size_t cut = 100'000) {
        for (; !bytes.empty(); bytes.remove_prefix(std::min(cut, bytes.size())))
            give_chunk(bytes.substr(0, cut));
    }
    void open() {
        give("AT+CMUX=0\r");
        give(kSetUp);
        ASSERT_EQ(uart_.take(), "\r\nOK\r\n" + kSetUpAnswers);
    }
    static std::string uih(char address, std::string_view payload) {
        return "\xF9"s + address + "\xEF" + static_cast<char>(payload.size() * 2 + 1) +
               std::string(payload) + "?\xF9";
    }

    Pipe uart_;
    Pipe uart_channel_;
    Pipe modem_channel_;
    thread_info_t uart_info_ = {"/dev/ttyMSM1",
                                "/dev/smd8",
                                &usb_uartport_fd,
                                &uart_channel_.writer,
                                &usb_uartport_mutex,
                                &mdm_uartport_mutex,
                                nullptr,
                                nullptr,
                                0};
    thread_info_t modem_info_ = {
        "/dev/at_usb0", "/dev/at_mdm0", &usb_fd, &modem_channel_.writer, &usb_mutex, &mdm_mutex,
        nullptr,        nullptr,        0};
};

TEST_F(MuxInput, WholeSessionWithEveryCut) {
    const std::string frames = kSetUp + uih('\x0B', "AT+CFUN?\r") + uih('\x13', "ATD*99#\r") +
                               uih('\x0B', "plain bytes") + uih('\x07', "at+x?\r");
    for (const std::size_t cut : {1U, 2U, 3U, 7U, 100'000U}) {
        SetUp();
        give("AT+CMUX=0\r", cut);
        give(frames, cut);
        EXPECT_EQ(uart_.take(), "\r\nOK\r\n" + kSetUpAnswers) << cut;
        EXPECT_EQ(uart_channel_.take(), "AT+CFUN?\rat+x?\r") << cut;
        EXPECT_EQ(modem_channel_.take(), "ATD*99#\rplain bytes") << cut;
        EXPECT_EQ(load_shared(g_mux_atcmd_dlc), 0x07) << cut;
        EXPECT_EQ(load_shared(g_mux_ppp_dlc), 0x13) << cut;
    }
}

TEST_F(MuxInput, PayloadsAreRoutedByTheirText) {
    open();
    const struct {
        std::string_view payload;
        bool is_uart;
        const char* why;
    } rows[] = {
        {"ATD*99#\r", false, "a dial command"},
        {"atdt123;\r", false, "in small letters"},
        {"xxATDxx", false, "anywhere"},
        {"AT+CFUN?\r", true, "a command"},
        {"at\r", true, "in small letters"},
        {"data", true, "two letters are enough"},
        {"Atd1\r", false, "of mixed case: neither"},
        {"+++", false, "anything else"},
        {"\0\x01\xF9"sv, false, "bytes"},
    };
    for (const auto& row : rows) {
        give(uih('\x0B', row.payload));
        EXPECT_EQ(uart_channel_.take(), row.is_uart ? row.payload : "") << row.why;
        EXPECT_EQ(modem_channel_.take(), row.is_uart ? "" : row.payload) << row.why;
        EXPECT_EQ(uart_.take(), "") << row.why;
    }
}

TEST_F(MuxInput, EmptyPayloadGoesNowhere) {
    open();
    give(uih('\x0B', ""));
    EXPECT_EQ(uart_.take() + uart_channel_.take() + modem_channel_.take(), "");
}

TEST_F(MuxInput, RefusedFramesAndJunkGiveOneTextEach) {
    open();
    const struct {
        std::string bytes;
        int refusals;
        const char* why;
    } rows[] = {
        {"junk without a flag", 1, "one run"},
        {"\xF9\x0F\x3F\x01\x9B\xF9", 1, "SABM on DLCI 3"},
        {"\xF9\x0B\x53\x01?\xF9", 1, "DISC"},
        {"\xF9\x0B\xEF\x02\x01" + std::string(129, 'p') + "?\xF9", 1, "two length bytes"},
        {"\xF9\x0B\xEF\x07\x41\x54\x0D\x54\x7E", 1, "no closing flag"},
        {"\xF9\x0B\x53\x01?\xF9\xF9\x0B\x53\x01?\xF9", 2, "two refused frames"},
        {std::string(1000, '\xF9'), 0, "flags only"},
    };
    for (const auto& row : rows)
        for (const std::size_t cut : {1U, 2U, 3U, 7U, 100'000U}) {
            give(row.bytes, cut);
            std::string expected;
            for (int i = 0; i < row.refusals; ++i) expected += kRefusal;
            EXPECT_EQ(uart_.take(), expected) << row.why << ", cut at " << cut;
            give(uih('\x0B', "AT\r"), cut);
            EXPECT_EQ(uart_channel_.take(), "AT\r") << row.why << ", cut at " << cut;
        }
    EXPECT_EQ(modem_channel_.take(), "");
}

TEST_F(MuxInput, ReopenedPortStartsAFrameAnew) {
    open();
    give("\xF9\x0B\xEF\x07\x41");
    reset_mux_input();
    give(uih('\x0B', "AT\r"));
    EXPECT_EQ(uart_.take(), "");
    EXPECT_EQ(uart_channel_.take(), "AT\r");
}

TEST_F(MuxInput, CommandFormsLeaveThePortInCommandMode) {
    const struct {
        std::string line;
        std::string answer;
    } rows[] = {
        {"AT+CMUX=?\r", "+CMUX: (0),(0),(1-6),(1-1509),(1-255),(0-5),(2-255),(1-255)"},
        {"AT+CMUX\r", "app-plat is not running, plz wait....\r\n"},
        {"at+cmux=2\r", "app-plat is not running, plz wait....\r\n"},
    };
    for (const auto& row : rows) {
        give(row.line);
        EXPECT_EQ(uart_.take(), row.answer) << row.line;
        EXPECT_EQ(load_shared(g_usb_uart_port_mode), USB_PORT_ATCMD_MODE) << row.line;
        EXPECT_EQ(current_line().length(), 0U) << row.line;
    }
    give("AT+CMUX?\r");
    EXPECT_EQ(uart_.take().substr(0, 7), "+CMUX: ");
    EXPECT_EQ(load_shared(g_usb_uart_port_mode), USB_PORT_ATCMD_MODE);
    EXPECT_EQ(uart_channel_.take(), "") << "the command never reaches CP";
}

TEST_F(MuxInput, PromptWhileTheSessionStartsDoesNotKeepThePortFromFrames) {
    give("AT+CMUX=0\r");
    EXPECT_EQ(load_shared(g_usb_uart_port_mode), USB_PORT_CMUX_MODE);
    EXPECT_FALSE(move_shared(g_usb_uart_port_mode, USB_PORT_ATCMD_MODE, USB_PORT_SMS_MODE));
}

TEST_F(MuxInput, EchoCommandLeavesTheEchoAlone) {
    open();
    ASSERT_TRUE(is_echo_on());
    give(uih('\x0B', "ATE0\r"));
    EXPECT_TRUE(is_echo_on());
    EXPECT_NE(uart_channel_.take(), "") << "the modem hears of it all the same";
}

TEST_F(MuxInput, MissingPortsDropThePayload) {
    open();
    store_shared(g_uart_tinfo_for_mux, static_cast<thread_info_t*>(nullptr));
    store_shared(g_modem_tinfo_for_mux, static_cast<thread_info_t*>(nullptr));
    give(uih('\x0B', "AT\r") + uih('\x0B', "ATD1\r"));
    EXPECT_EQ(uart_channel_.take() + modem_channel_.take(), "");
}

TEST_F(MuxInput, HostileBytesThenAFrame) {
    std::minstd_rand random(17);
    for (int round = 0; round < 20; ++round) {
        SetUp();
        open();
        std::string bytes;
        for (int i = 0; i < 1000; ++i)
            bytes.push_back(round % 2 == 0 ? static_cast<char>(random())
                                           : "\xF9\xF9\x0B\x3F\xEF\x03\x02"[random() % 7]);
        for (std::size_t at = 0; at < bytes.size(); at += 50) {
            give(bytes.substr(at, 50));
            uart_.take();
            uart_channel_.take();
            modem_channel_.take();
        }
        reset_mux_input();
        give(uih('\x0B', "AT+LAST\r"));
        EXPECT_EQ(uart_channel_.take(), "AT+LAST\r") << "round " << round;
    }
}

TEST(MuxInputFirst, LineFeedOfTheCommandIsNoJunk) {
    // The process' first multiplexed chunk; a test of its own is a process of its own.
    Pipe uart;
    usb_uartport_fd = uart.writer;
    store_shared(g_fd_usb_uartport_device, &usb_uartport_fd);
    reset_mux_input();
    handle_mux_input("\n", 1);
    const std::string first = uart.take();
    handle_mux_input("\n", 1);
    EXPECT_EQ(uart.take(), kRefusal);
    EXPECT_EQ(first, "");
    store_shared(g_fd_usb_uartport_device, static_cast<int*>(nullptr));
    usb_uartport_fd = -1;
}

}  // namespace
