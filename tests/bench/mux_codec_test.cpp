// The bench's codec against golden frames and against the daemon's builders.
#include "mux_codec.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "gsm0710_frame.h"
#include "mux_session.h"
#include "shared_int.h"

namespace {

using namespace std::string_literals;
using bench::MuxControl;
using bench::MuxDecoder;
using bench::MuxFrame;
using bench::MuxItem;

std::vector<MuxItem> decoded(std::string_view bytes, std::size_t cut) {
    MuxDecoder decoder;
    std::vector<MuxItem> items;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(cut, bytes.size()))) {
        decoder.feed(bytes.substr(0, cut));
        while (auto item = decoder.next()) items.push_back(*item);
    }
    return items;
}

std::string random_bytes(std::minstd_rand& random, std::size_t length) {
    std::string bytes;
    for (std::size_t i = 0; i < length; ++i) bytes.push_back(static_cast<char>(random()));
    return bytes;
}

TEST(BenchMuxCodec, GoldenFrames) {
    const struct {
        MuxFrame frame;
        std::string bytes;
        const char* why;
    } rows[] = {
        {{0, true, 0x3F, ""}, "\xF9\x03\x3F\x01\x1C\xF9", "SABM on DLCI 0"},
        {{1, true, 0x3F, ""}, "\xF9\x07\x3F\x01\xDE\xF9", "SABM on DLCI 1"},
        {{0, true, 0x73, ""}, "\xF9\x03\x73\x01\xD7\xF9", "UA on DLCI 0"},
        {{4, true, 0x73, ""}, "\xF9\x13\x73\x01\x5D\xF9", "UA on DLCI 4"},
        {{2, false, 0xEF, "OK"}, "\xF9\x09\xEF\x05OK\xD6\xF9", "an answer on DLCI 2"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(bench::encode_mux_frame(row.frame), row.bytes) << row.why;
        const auto items = decoded(row.bytes, 100);
        ASSERT_EQ(items.size(), 1U) << row.why;
        EXPECT_TRUE(items[0].is_frame && items[0].fcs_fits) << row.why;
        EXPECT_EQ(items[0].frame.dlci, row.frame.dlci) << row.why;
        EXPECT_EQ(items[0].frame.command, row.frame.command) << row.why;
        EXPECT_EQ(items[0].frame.control, row.frame.control) << row.why;
        EXPECT_EQ(items[0].frame.information, row.frame.information) << row.why;
    }
}

TEST(BenchMuxCodec, LengthsAtTheEdgesOfTheirForms) {
    for (const std::size_t length : {0U, 1U, 127U, 128U, 1000U}) {
        const std::string bytes =
            bench::encode_mux_frame({.information = std::string(length, 'p')});
        EXPECT_EQ(bytes.size(), length + (length <= 127 ? 6 : 7));
        for (const std::size_t cut : {1U, 2U, 3U, 7U, 2000U}) {
            const auto items = decoded(bytes, cut);
            ASSERT_EQ(items.size(), 1U) << length << ", cut at " << cut;
            EXPECT_EQ(items[0].frame.information.size(), length);
            EXPECT_TRUE(items[0].fcs_fits);
        }
    }
}

TEST(BenchMuxCodec, TextBetweenFramesAndWrongCheckSequences) {
    const std::string good = "\xF9\x09\xEF\x05OK\xD6\xF9";
    const std::string wrong = "\xF9\x09\xEF\x05OK\xD7\xF9";
    for (const std::size_t cut : {1U, 2U, 3U, 7U, 2000U}) {
        std::string stray;
        std::string fits;
        for (const MuxItem& item :
             decoded("before" + good + "between" + wrong + "\xF9" + good + "after", cut)) {
            if (item.is_frame)
                fits += item.fcs_fits ? '+' : '-';
            else
                stray += item.raw;
        }
        EXPECT_EQ(fits, "+-+") << cut;
        EXPECT_EQ(stray, "beforebetweenafter") << cut;
    }
}

TEST(BenchMuxCodec, ReadsWhatTheDaemonBuilds) {
    std::minstd_rand random(3);
    std::array<char, kMuxAnswerArea> area{};
    for (int length = 1; length <= kMuxMaxInformation; ++length) {
        const int dlci = static_cast<int>(random() % 62);  // 62 without C/R would be the flag
        const std::string payload = random_bytes(random, static_cast<std::size_t>(length));
        int frame_length = 0;
        proc_ue_to_host_cmux_response(dlci << 2 | 3, payload.data(), length, area.data(),
                                      &frame_length);
        const auto items =
            decoded({area.data(), static_cast<std::size_t>(frame_length)}, 1 + random() % 8);
        ASSERT_EQ(items.size(), 1U) << length;
        EXPECT_TRUE(items[0].is_frame && items[0].fcs_fits) << length;
        EXPECT_EQ(items[0].frame.dlci, dlci) << length;
        EXPECT_FALSE(items[0].frame.command) << length;
        EXPECT_EQ(items[0].frame.information, payload) << length;
    }
}

TEST(BenchMuxCodec, TheDaemonReadsWhatItWrites) {
    store_shared(g_uart_port_status, 1);
    g_cur_mux_proc_state = CUR_STATE_DLC3_ESTBLISH;
    std::minstd_rand random(5);
    for (std::size_t length = 0; length <= kMuxMaxInformation; ++length) {
        const MuxFrame frame = {.dlci = 2, .information = random_bytes(random, length)};
        const std::string bytes = bench::encode_mux_frame(frame);
        std::array<char, kMuxAnswerArea> area{};
        int payload_length = -1;
        int direction = 0;
        EXPECT_EQ(SA_DefaultMuxDataHandler_CMUX(bytes.data(), static_cast<int>(bytes.size()),
                                                area.data(), &payload_length, &direction),
                  0);
        EXPECT_EQ(direction, 1);
        EXPECT_EQ(std::string(area.data(), static_cast<std::size_t>(payload_length)),
                  frame.information);
    }
}

TEST(BenchMuxCodec, AnyBytesComeOutInTheirOrder) {
    std::minstd_rand random(9);
    for (int round = 0; round < 200; ++round) {
        std::string bytes = random_bytes(random, random() % 600);
        std::string out;
        for (const MuxItem& item : decoded(bytes, 1 + random() % 50)) out += item.raw;
        // An unfinished frame at the end may stay inside, and flags in a row count as one.
        EXPECT_LE(out.size(), bytes.size());
    }
}

}  // namespace
