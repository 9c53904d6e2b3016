// Whole frames out of cut and glued reads; junk comes out once a run.
#include "frame_gatherer.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace std::string_literals;

using Pieces = std::vector<std::string>;

const std::string kSabm0 = "\xF9\x03\x3F\x01\x1C\xF9";
const std::string kSabm1 = "\xF9\x07\x3F\x01\xDE\xF9";
const std::string kAt = "\xF9\x0B\xEF\x07\x41\x54\x0D\x54\xF9";

void take(FrameGatherer& gatherer, std::string_view chunk, int64_t now, Pieces& pieces) {
    while (const auto piece = gatherer.next(chunk, now)) pieces.emplace_back(*piece);
    EXPECT_TRUE(chunk.empty());
}

Pieces gathered(std::string_view bytes, std::size_t cut) {
    FrameGatherer gatherer;
    Pieces pieces;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(cut, bytes.size())))
        take(gatherer, bytes.substr(0, cut), 1000, pieces);
    return pieces;
}

bool is_whole_frame(const std::string& piece) {
    return piece.size() >= 6 && piece.front() == '\xF9' && piece.back() == '\xF9';
}

// What a frame is does not depend on the cuts; of junk only that it comes.
Pieces comparable(Pieces pieces) {
    for (std::string& piece : pieces)
        if (!is_whole_frame(piece))
            piece = "junk";
    return pieces;
}

TEST(FrameGatherer, RowsWithEveryCut) {
    const std::string junk = "junk";
    const std::string no_end = "\xF9\x0B\xEF\x07\x41\x54\x0D\x54\x7E";
    const std::string sabm_odd_length = "\xF9\x03\x3F\x02\x1C\xF9";
    const std::string flag_inside = "\xF9\x0B\xEF\x05\xF9\xF9\xF9\xF9";
    const std::string two_byte = "\xF9\x0B\xEF\x02\x00"s + "a?\xF9";
    const std::string longest = "\xF9\x0B\xEF\xFF" + std::string(127, '\xF9') + "?\xF9";
    const std::string two_byte_longest = "\xF9\x0B\xEF\xCA\x0B" + std::string(1509, 'p') + "?\xF9";
    const struct {
        std::string bytes;
        Pieces expected;
        const char* why;
    } rows[] = {
        {kSabm0, {kSabm0}, "one frame"},
        {kSabm0 + kSabm1 + kAt, {kSabm0, kSabm1, kAt}, "frames with flags of their own"},
        {kSabm0 + kSabm1.substr(1) + kAt.substr(1), {kSabm0, kSabm1, kAt}, "shared flags"},
        {"\xF9\xF9\xF9" + kSabm0 + "\xF9\xF9" + kSabm1 + "\xF9", {kSabm0, kSabm1}, "extra flags"},
        {"\xF9\xF9\xF9\xF9\xF9\xF9\xF9\xF9", {}, "flags alone are no frame and no junk"},
        {longest + kAt, {longest, kAt}, "127 bytes that look like flags"},
        {flag_inside + kAt, {flag_inside, kAt}, "flags as information and check sequence"},
        {sabm_odd_length + kSabm1, {sabm_odd_length, kSabm1}, "set-up with length byte 2"},
        {"hello", {junk}, "one run, one piece"},
        {"hello" + kSabm0, {junk, kSabm0}, "junk before a frame"},
        {kSabm0 + "hello" + kSabm1, {kSabm0, junk, kSabm1}, "junk between frames"},
        {"AT\r" + kSabm0, {junk, kSabm0}, "a plain command is junk"},
        {kSabm0 + "AT\r" + kSabm1, {kSabm0, junk, kSabm1}, "'A' is an address, 'T' no control"},
        {"\xF9\x02" + kSabm0, {junk, kSabm0}, "no extension bit: no address"},
        {"\xF9\x02\xF9\x04\xF9\x06" + kAt, {junk, kAt}, "flags do not end a run of junk"},
        {"\xF9\x0B\xF9" + kAt.substr(1), {junk, kAt}, "broken off by the next opening flag"},
        {no_end + kAt, {junk, kAt}, "the announced end is not the flag"},
        {no_end + "xyz" + kAt, {junk, kAt}, "what follows belongs to the same run"},
        {no_end + no_end + kAt, {junk, junk, kAt}, "each such frame is refused"},
        {two_byte + kAt, {two_byte, kAt}, "two length bytes: one whole frame, refused later"},
        {"\xF9\x0B\xEF\xFE\xFF" + kAt, {junk, kAt}, "two length bytes of more than any frame"},
        {two_byte_longest + kAt, {two_byte_longest, kAt}, "two length bytes of the largest N1"},
        {"\xF9\x0B\xEF\xCC\x0B" + kAt, {junk, kAt}, "and of one more: refused at its length"},
        {"\xF9\x0B\x42" + kAt,
         {junk, kAt},
         "the third byte tells: the flag after it opens a frame"},
        {"\xF9\x03\x3F\x01\xF9\xF9",
         {"\xF9\x03\x3F\x01\xF9\xF9"},
         "a check sequence like the flag"},
    };
    for (const auto& row : rows)
        for (const std::size_t cut : {1, 2, 3, 7, 1000})
            EXPECT_EQ(comparable(gathered(row.bytes, cut)), row.expected)
                << row.why << ", cut at " << cut;
}

TEST(FrameGatherer, JunkComesAsItStands) {
    EXPECT_EQ(gathered("hello" + kSabm0, 1000), (Pieces{"hello", kSabm0}));
    EXPECT_EQ(gathered("\xF9\x02rest" + kSabm0, 1000), (Pieces{"\xF9\x02", kSabm0}));
    EXPECT_EQ(gathered("\xF9\x0B\xEF\x03xyz" + kSabm0, 1000),
              (Pieces{"\xF9\x0B\xEF\x03xyz", kSabm0}));
}

TEST(FrameGatherer, UnfinishedFrameIsGivenUpAfterAPause) {
    const struct {
        int64_t pause;
        Pieces expected;
        const char* why;
    } rows[] = {
        {0, {kAt}, "at once"},
        {250, {kAt}, "at the limit"},
        {251, {kAt.substr(0, 5), kSabm0}, "past it: the rest is the same run of junk"},
        {60'000, {kAt.substr(0, 5), kSabm0}, "long after"},
    };
    for (const auto& row : rows) {
        FrameGatherer gatherer;
        Pieces pieces;
        take(gatherer, kAt.substr(0, 5), 5000, pieces);
        EXPECT_TRUE(pieces.empty());
        take(gatherer, kAt.substr(5), 5000 + row.pause, pieces);
        if (row.pause > 250)
            take(gatherer, kSabm0, 5000 + row.pause, pieces);
        EXPECT_EQ(pieces, row.expected) << row.why;
    }
}

TEST(FrameGatherer, WholeFrameAfterAnUnfinishedOne) {
    FrameGatherer gatherer;
    Pieces pieces;
    take(gatherer, kAt.substr(0, 3), 0, pieces);
    take(gatherer, kSabm0, 300, pieces);
    EXPECT_EQ(pieces, (Pieces{kAt.substr(0, 3), kSabm0}));
}

TEST(FrameGatherer, KeptFlagOutlivesAPause) {
    FrameGatherer gatherer;
    Pieces pieces;
    take(gatherer, kSabm0, 0, pieces);
    take(gatherer, kSabm1.substr(1), 10'000, pieces);
    EXPECT_EQ(pieces, (Pieces{kSabm0, kSabm1}));
}

TEST(FrameGatherer, PauseEndsARunOfJunk) {
    FrameGatherer gatherer;
    Pieces pieces;
    take(gatherer, "one", 0, pieces);
    take(gatherer, "same run", 250, pieces);
    take(gatherer, "another", 501, pieces);
    EXPECT_EQ(pieces, (Pieces{"one", "another"}));
}

TEST(FrameGatherer, TimeSpentOnHandlingIsNoPause) {
    FrameGatherer gatherer;
    Pieces pieces;
    take(gatherer, kAt.substr(0, 5), 0, pieces);
    gatherer.quiet_from(5000);
    take(gatherer, kAt.substr(5), 5100, pieces);
    EXPECT_EQ(pieces, Pieces{kAt});
}

TEST(FrameGatherer, ResetForgetsWhatWasBegun) {
    FrameGatherer gatherer;
    Pieces pieces;
    take(gatherer, kAt.substr(0, 5), 0, pieces);
    gatherer.reset();
    take(gatherer, kSabm0, 0, pieces);
    EXPECT_EQ(pieces, Pieces{kSabm0});
}

TEST(FrameGatherer, RandomPayloadsWithEveryCut) {
    std::minstd_rand random(7);
    std::string stream;
    Pieces expected;
    for (std::size_t length = 0; length < 128; ++length) {
        std::string frame = "\xF9\x0B\xEF" + std::string(1, static_cast<char>(length * 2 + 1));
        for (std::size_t i = 0; i < length + 1; ++i)  // payload and check sequence
            frame.push_back(static_cast<char>(random()));
        expected.push_back(frame + "\xF9");
        stream += expected.back();
    }
    for (const std::size_t cut : {1, 2, 3, 7, 16384})
        EXPECT_EQ(gathered(stream, cut), expected) << "cut at " << cut;
}

// Whatever came before, a pause and a frame give that frame.
TEST(FrameGatherer, HostileBytesNeverKeepItFromTheNextFrame) {
    std::minstd_rand random(11);
    const std::string alphabet = "\xF9\xF9\x03\x0B\x3F\xEF\x01\x02\xFF A"s + '\0';
    for (int round = 0; round < 300; ++round) {
        FrameGatherer gatherer;
        Pieces pieces;
        std::string bytes;
        for (std::size_t i = random() % 2000; i > 0; --i)
            bytes.push_back(round % 2 == 0 ? static_cast<char>(random())
                                           : alphabet[random() % alphabet.size()]);
        take(gatherer, bytes, 0, pieces);
        for (const std::string& piece : pieces)
            EXPECT_LE(piece.size(), std::max<std::size_t>(bytes.size(), 1516));
        pieces.clear();
        take(gatherer, kAt, 1000, pieces);
        ASSERT_FALSE(pieces.empty()) << "round " << round;
        EXPECT_EQ(pieces.back(), kAt) << "round " << round;
    }
}

}  // namespace
