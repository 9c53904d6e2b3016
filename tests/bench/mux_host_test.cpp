// The multiplexing host against the daemon's session, without a line between them; its script.
#include "mux_host.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "gsm0710_frame.h"
#include "mux_session.h"
#include "shared_int.h"

namespace {

using namespace std::string_literals;
using bench::MuxHost;
using Verb = bench::MuxStep::Verb;

class BenchMuxHost : public testing::Test {
  protected:
    void SetUp() override {
        g_cur_mux_proc_state = CUR_STATE_ERROR;
        store_shared(g_uart_port_status, 0);
    }

    // Gives the host's output, one frame or one command, to the session and the answer back.
    bool step() {
        const std::string output = host_.take_output();
        if (output.empty())
            return false;
        std::array<char, kMuxAnswerArea> area{};
        int length = 0;
        int direction = 0;
        result_ = proc_host_to_ue_cmux_atcmd(output.data(), static_cast<int>(output.size()),
                                             area.data(), &length, &direction);
        if (direction == 0)
            host_.received({area.data(), static_cast<std::size_t>(length)});
        return true;
    }

    void open() {
        host_.open();
        while (step()) ASSERT_EQ(result_, 0);
        ASSERT_TRUE(host_.is_open());
    }

    MuxHost host_;
    int result_ = 0;
};

TEST_F(BenchMuxHost, OpensTheDaemonsFourChannels) {
    open();
    EXPECT_EQ(g_cur_mux_proc_state, CUR_STATE_DLC3_ESTBLISH);
    EXPECT_TRUE(host_.oddities().empty());
    EXPECT_EQ(host_.stray(), "");
}

TEST_F(BenchMuxHost, IsNotOpenBeforeTheLastAcknowledgement) {
    host_.open();
    for (int i = 0; i < 5; ++i) {
        EXPECT_FALSE(host_.is_open()) << i;
        EXPECT_TRUE(step());
    }
    EXPECT_TRUE(host_.is_open());
}

TEST_F(BenchMuxHost, CutsLongTextIntoFrames) {
    open();
    host_.send(2, std::string(300, 'p'));
    std::string joined;
    bench::MuxDecoder decoder;
    decoder.feed(host_.take_output());
    while (const auto item = decoder.next()) {
        EXPECT_LE(item->frame.information.size(), 127U);
        EXPECT_TRUE(item->frame.command);
        joined += item->frame.information;
    }
    EXPECT_EQ(joined, std::string(300, 'p'));
}

TEST_F(BenchMuxHost, HearsChannelsApart) {
    open();
    host_.received(bench::encode_mux_frame({.dlci = 2, .command = false, .information = "one O"}) +
                   bench::encode_mux_frame({.dlci = 4, .command = false, .information = "two"}) +
                   bench::encode_mux_frame({.dlci = 2, .command = false, .information = "K more"}));
    EXPECT_FALSE(host_.take(4, "OK"));
    EXPECT_TRUE(host_.take(2, "OK")) << "over two frames";
    EXPECT_EQ(host_.heard(2), " more");
    EXPECT_EQ(host_.heard(4), "two");
}

TEST_F(BenchMuxHost, KeepsWhatShouldNotHaveCome) {
    open();
    host_.received("\r\n!!!!!MUX data error!!!!!.\r\n");
    host_.received("\xF9\x09\xEF\x05OK\xD7\xF9"s);  // wrong check sequence
    host_.received(bench::encode_mux_frame({.dlci = 2, .command = true, .information = "x"}));
    EXPECT_TRUE(host_.take_stray("MUX data error"));
    EXPECT_EQ(host_.oddities().size(), 2U);
    EXPECT_EQ(host_.heard(2), "");
}

TEST(BenchMuxScript, Lines) {
    const struct {
        const char* line;
        Verb verb;
        int dlci;
        std::string text;
    } rows[] = {
        {"mux open", Verb::open, 0, ""},
        {"mux send 2 AT+CGMR\\r", Verb::send, 2, "AT+CGMR\r"},
        {"mux send 61 \\x00\\xF9 \\\\", Verb::send, 61, "\0\xF9 \\"s},
        {"mux expect 4 CONNECT", Verb::expect, 4, "CONNECT"},
        {"mux expect 2  two spaces ", Verb::expect, 2, " two spaces "},
        {"mux send 62 AT", Verb::none, 0, ""},
        {"mux send -1 AT", Verb::none, 0, ""},
        {"mux send x AT", Verb::none, 0, ""},
        {"mux send 2", Verb::none, 0, ""},
        {"mux expect 2 ", Verb::none, 0, ""},
        {"mux close", Verb::none, 0, ""},
        {"AT+CGMR", Verb::none, 0, ""},
        {"", Verb::none, 0, ""},
    };
    for (const auto& row : rows) {
        const bench::MuxStep step = bench::parse_mux_step(row.line);
        EXPECT_EQ(step.verb, row.verb) << row.line;
        EXPECT_EQ(step.dlci, row.dlci) << row.line;
        EXPECT_EQ(step.text, row.text) << row.line;
    }
}

}  // namespace
