// The multiplexer's frames as bytes: check sequence, stuffing, acknowledgements, wrapped answers.
#include "gsm0710_frame.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace {

using namespace std::string_view_literals;

static_assert(sizeof(UINT8) == 1 && sizeof(UINT16) == 2 && sizeof(UINT32) == 4);
static_assert(sizeof(DWORD) == 4 && sizeof(BYTE) == 1 && sizeof(BOOL) == 4);
static_assert(std::is_unsigned_v<UINT8> && std::is_unsigned_v<UINT16> &&
              std::is_unsigned_v<UINT32> && std::is_unsigned_v<DWORD>);
static_assert(offsetof(GSM0710_Frame, control) == 1 && offsetof(GSM0710_Frame, data_length) == 2 &&
              offsetof(GSM0710_Frame, data) == 4 && offsetof(GSM0710_Frame, crc) == 1004);
static_assert(sizeof(GSM0710_Frame::data) == 1000);
static_assert(offsetof(GSM0710_Pack, headFlag) < offsetof(GSM0710_Pack, frame) &&
              offsetof(GSM0710_Pack, frame) < offsetof(GSM0710_Pack, tailFlag));
static_assert(sizeof m_pSend == 5120 && sizeof m_pReceive == 512 && sizeof m_nReceiveLen == 4 &&
              sizeof m_bAddress == 1);

// The register clocked bit by bit, as annex B of 27.010 draws it; no table.
UINT8 fcs_by_definition(std::string_view bytes) {
    unsigned fcs = 0xFF;
    for (const char byte : bytes)
        for (unsigned bit = 0; bit < 8; ++bit) {
            const bool differs = ((fcs ^ (static_cast<UINT8>(byte) >> bit)) & 1) != 0;
            fcs = differs ? (fcs >> 1) ^ 0xE0U : fcs >> 1;
        }
    return static_cast<UINT8>(0xFF - fcs);
}

UINT8 fcs(std::string_view bytes) {
    return make_fcs(reinterpret_cast<const UINT8*>(bytes.data()), static_cast<UINT8>(bytes.size()));
}

std::string stuffed(std::string_view bytes) {
    std::array<UINT8, 64> area{};
    area.fill(0xAA);
    const UINT32 written = WriteFrame(area.data(), reinterpret_cast<const UINT8*>(bytes.data()),
                                      static_cast<UINT32>(bytes.size()));
    EXPECT_EQ(area[written], 0xAA) << "wrote behind what it returned";
    return {reinterpret_cast<const char*>(area.data()), written};
}

struct Wrapped {
    int result = 0;
    int length = 0;
    std::string frame;
};

Wrapped wrap(int address, std::string_view payload) {
    std::vector<char> area(kMuxAnswerArea + payload.size() + kMuxMinFrame, 'x');
    Wrapped wrapped;
    wrapped.result = assemble_uih_respone_packet(
        address, payload.data(), static_cast<int>(payload.size()), area.data(), &wrapped.length);
    wrapped.frame.assign(area.data(), static_cast<std::size_t>(wrapped.length));
    return wrapped;
}

TEST(MuxFcs, GoldenHeads) {
    const struct {
        std::string_view head;
        UINT8 expected;
        const char* why;
    } rows[] = {
        {"\x03\x3F\x01"sv, 0x1C, "SABM with P on DLCI 0"},
        {"\x03\x73\x01"sv, 0xD7, "UA with F on DLCI 0"},
        {"\x07\x3F\x01"sv, 0xDE, "SABM with P on DLCI 1"},
        {"\x07\x73\x01"sv, 0x15, "UA with F on DLCI 1"},
        {"\x0B\x73\x01"sv, 0x92, "UA with F on DLCI 2"},
        {"\x13\x73\x01"sv, 0x5D, "UA with F on DLCI 4"},
        {"\x09\xEF\x05"sv, 0xD6, "UIH with two bytes on DLCI 2"},
    };
    for (const auto& row : rows) EXPECT_EQ(fcs(row.head), row.expected) << row.why;
}

TEST(MuxFcs, CountOfNothingIsZero) {
    EXPECT_EQ(fcs(""), 0);
}

TEST(MuxFcs, AgreesWithTheRegisterClockedBitByBit) {
    std::string bytes;
    for (int i = 0; i < 255; ++i) {
        bytes.push_back(static_cast<char>(i * 167 + 13));
        EXPECT_EQ(fcs(bytes), fcs_by_definition(bytes)) << bytes.size() << " bytes";
    }
}

TEST(MuxFcs, TableBeginsAsTheStandardsDoes) {
    const std::array<UINT8, 8> first = {0x00, 0x91, 0xE3, 0x72, 0x07, 0x96, 0xE4, 0x75};
    for (std::size_t i = 0; i < first.size(); ++i) EXPECT_EQ(r_crctable[i], first[i]) << i;
}

TEST(MuxStuffing, Rows) {
    const struct {
        std::string_view input;
        std::string_view expected;
        const char* why;
    } rows[] = {
        {"\x41\x7E\x7D"sv, "\x41\x7D\x5E\x7D\x5D"sv, "both stuffed bytes"},
        {""sv, ""sv, "nothing in, nothing out"},
        {"\xF9"sv, "\xF9"sv, "the basic option's flag is not stuffed"},
        {"\x7C\x7F\x5E\x5D"sv, "\x7C\x7F\x5E\x5D"sv, "neighbours stay"},
        {"\x00\x7D\x00"sv, "\x00\x7D\x5D\x00"sv, "NUL is a byte like any other"},
    };
    for (const auto& row : rows) EXPECT_EQ(stuffed(row.input), row.expected) << row.why;
}

TEST(MuxAcknowledgement, FixedFrames) {
    const struct {
        int index;
        std::string_view expected;
    } rows[] = {
        {0, "\xF9\x03\x73\x01\xD7\xF9"sv},
        {1, "\xF9\x07\x73\x01\x15\xF9"sv},
        {2, "\xF9\x0B\x73\x01\x92\xF9"sv},
        {3, "\xF9\x13\x3F\x01\x5D\xF9"sv},
    };
    for (const auto& row : rows) {
        std::array<char, 4097> area;
        area.fill('x');
        int length = 0;
        EXPECT_EQ(assemble_ua_ack_packet(row.index, area.data(), &length), 1);
        EXPECT_EQ(length, 6);
        EXPECT_EQ(std::string_view(area.data(), 6), row.expected) << row.index;
        EXPECT_EQ(std::string_view(area.data() + 6, area.size() - 6).find_first_not_of('\0'), 4090u)
            << "the rest of the 4,096 bytes is cleared, and no more";
    }
}

TEST(MuxAcknowledgement, IndexOutOfRangeWritesNothingButSaysSix) {
    for (const int index : {-1, 4}) {
        std::array<char, kMuxAnswerArea> area;
        area.fill('x');
        int length = 0;
        EXPECT_EQ(assemble_ua_ack_packet(index, area.data(), &length), 1) << index;
        EXPECT_EQ(length, 6) << index;
        EXPECT_EQ(std::string_view(area.data(), 6), "\0\0\0\0\0\0"sv) << index;
    }
}

TEST(MuxUih, AnswerOkOnDlci2) {
    const Wrapped wrapped = wrap(0x09, "OK");
    EXPECT_EQ(wrapped.result, 1);
    EXPECT_EQ(wrapped.length, 8);
    EXPECT_EQ(wrapped.frame, "\xF9\x09\xEF\x05OK\xD6\xF9"sv);
}

TEST(MuxUih, TheControlChannelIsAChannel) {
    const Wrapped wrapped = wrap(0, "OK");
    EXPECT_EQ(wrapped.result, 1);
    EXPECT_EQ(wrapped.frame.substr(0, 4), "\xF9\x00\xEF\x05"sv);
}

TEST(MuxUih, ClearsFourThousandAndNinetySixBytes) {
    std::vector<char> area(kMuxAnswerArea + 1, 'x');
    int length = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(assemble_uih_respone_packet(0x09, "OK", 2, area.data(), &length), 1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find(
                  "assemble_uih_respone_packet input exit. 9, out_len:8, crc:0xd6.\r\n"),
              std::string::npos);
    const std::string_view rest = std::string_view(area.data(), area.size()).substr(8);
    EXPECT_EQ(rest.substr(0, 4096 - 8).find_first_not_of('\0'), std::string_view::npos);
    EXPECT_EQ(rest.back(), 'x');
}

TEST(MuxUih, LengthByteAtItsEdges) {
    const struct {
        std::size_t payload;
        UINT8 expected;
        const char* why;
    } rows[] = {
        {1, 0x03, "the shortest"},
        {127, 0xFF, "the longest that one length byte tells"},
        {128, 0x01, "wraps, and the frame is written anyway"},
        {300, 0x59, "600 + 1, low eight bits"},
    };
    for (const auto& row : rows) {
        const Wrapped wrapped = wrap(0x09, std::string(row.payload, 'p'));
        EXPECT_EQ(wrapped.result, 1) << row.why;
        EXPECT_EQ(wrapped.frame.size(), row.payload + 6) << row.why;
        EXPECT_EQ(static_cast<UINT8>(wrapped.frame[3]), row.expected) << row.why;
        EXPECT_EQ(wrapped.frame.substr(4, row.payload), std::string(row.payload, 'p')) << row.why;
        EXPECT_EQ(wrapped.frame[row.payload + 4],
                  static_cast<char>(fcs_by_definition(wrapped.frame.substr(1, 3))))
            << row.why;
        EXPECT_EQ(wrapped.frame.back(), '\xF9') << row.why;
    }
}

TEST(MuxUih, BadArgumentsLeaveTheOutputsAlone) {
    char payload[] = "OK";
    std::array<char, kMuxAnswerArea + 8> area;
    area.fill('x');
    int length = 77;
    testing::internal::CaptureStdout();
    EXPECT_EQ(assemble_uih_respone_packet(9, nullptr, 2, area.data(), &length), -1);
    EXPECT_NE(
        testing::internal::GetCapturedStdout().find("assemble_uih_respone_packet input error.\r\n"),
        std::string::npos);
    EXPECT_EQ(assemble_uih_respone_packet(-1, payload, 2, area.data(), &length), -1);
    EXPECT_EQ(assemble_uih_respone_packet(9, payload, 0, area.data(), &length), -1);
    EXPECT_EQ(assemble_uih_respone_packet(9, payload, -1, area.data(), &length), -1);
    EXPECT_EQ(assemble_uih_respone_packet(9, payload, 2, nullptr, &length), -1);
    EXPECT_EQ(assemble_uih_respone_packet(9, payload, 2, area.data(), nullptr), -1);
    EXPECT_EQ(length, 77);
    EXPECT_EQ(area[0], 'x');
}

}  // namespace
