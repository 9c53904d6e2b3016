// Packs of the platform link: golden bytes in both directions, and what is no pack.
#include "platform_pack.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

using namespace std::literals;

constexpr auto kReportUart = build_port_report(PORT_UART);
static_assert(std::string_view(kReportUart.data(), 4) == "kcap");
static_assert(kReportUart[4] == 48 && kReportUart[20] == CMD_PORT_REPORT && kReportUart[44] == 4);

// Both ends of the link count on these numbers.
static_assert(kPackMagic == 0x7061636B && kPackAreaSize == 131072 && kSentPayloadMax == 131028);
static_assert(kReceivedPayloadMax == 4096);
static_assert(CMD_INVALID == -1 && CMD_IND == 0 && CMD_AT_CMD == 1 && CMD_AT_DATA == 2 &&
              CMD_AT_ONLINE_CMD == 3 && CMD_PORT_REPORT == 4 && CMD_MAX == 5);
static_assert(MSG_SYNC == 0 && MSG_ASYNC == 1 && MSG_IND == 2 && MSG_MAX == 3);
static_assert(PORT_INVALID == -1 && PORT_AT0 == 0 && PORT_AT1 == 1 && PORT_NAMEA == 2 &&
              PORT_MBIM == 3 && PORT_UART == 4 && PORT_MAX == 5);
static_assert(E_CUST_DEFAULT == 0 && E_CUST_EE_DEVINFO == 1 && E_CUST_JSON_RESTORE == 2);

std::string pack_of(std::string_view payload, cmd_enum_type cmd_type = CMD_AT_CMD) {
    std::string area(payload.size() + kPackHeadsSize, 'x');
    EXPECT_EQ(build_pack(area, cmd_type, payload), area.size());
    return area;
}

// The bytes of a pack with a stated length and payload of one's own.
std::string raw_pack(uint32_t stated_length, std::string_view payload) {
    std::string bytes(kPackHeadsSize, '\0');
    assemble_packhead(bytes, {kPackMagic, stated_length});
    return bytes.append(payload);
}

TEST(PlatformPack, GoldenCommandPack) {
    const std::string expected =
        "kcap\x2f\0\0\0"s                    // 47 bytes
        "\0\0\0\0\0\0\0\0\0\0\0\0"s          // transaction, type, not finished
        "\1\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"s  // CMD_AT_CMD, flag, error, user
        "\3\0\0\0\0\0\0\0"s                  // content length, start, complete, padding
        "AT\r"s;
    EXPECT_EQ(pack_of("AT\r"), expected);
}

TEST(PlatformPack, GoldenPortReportOfTheUart) {
    const std::string expected = "kcap\x30\0\0\0"s + std::string(12, '\0') + "\4\0\0\0"s +
                                 std::string(16 + 4, '\0') + "\4\0\0\0"s;
    EXPECT_EQ(std::string(kReportUart.data(), kReportUart.size()), expected);
}

TEST(PlatformPack, PortReportNamesEachPort) {
    for (const port_name_enum_type port : {PORT_AT0, PORT_AT1, PORT_UART})
        EXPECT_EQ(build_port_report(port)[kPackHeadsSize], port);
}

TEST(PlatformPack, ModeMapsOneWayToTheWire) {
    const struct {
        int mode;
        cmd_enum_type expected;
    } rows[] = {
        {-1, CMD_IND},
        {USB_PORT_ATCMD_MODE, CMD_AT_CMD},
        {USB_PORT_HEX_MODE, CMD_IND},
        {USB_PORT_SMS_MODE, CMD_IND},
        {USB_PORT_PPP_MODE, CMD_IND},
        {USB_PORT_DATA_MODE, CMD_AT_DATA},
        {USB_PORT_CMUX_MODE, CMD_AT_CMD},
        {6, CMD_IND},
    };
    for (const auto& row : rows) EXPECT_EQ(wire_cmd_type(row.mode), row.expected) << row.mode;
}

TEST(PlatformPack, APayloadThatDoesNotFitLeavesTheAreaAlone) {
    std::string area(kPackHeadsSize + 3, 'x');
    EXPECT_EQ(build_pack(area, CMD_AT_CMD, "four"), 0u);
    EXPECT_EQ(area, std::string(kPackHeadsSize + 3, 'x'));
    EXPECT_EQ(build_pack(std::span(area).first(43), CMD_AT_CMD, ""), 0u);
    EXPECT_EQ(build_pack(area, CMD_AT_CMD, "ATI"), area.size());
}

TEST(PlatformPack, HeadsComeBackAsTheyWentIn) {
    std::string area(kPackHeadsSize, '\0');
    assemble_packhead(area, {kPackMagic, 44});
    assemble_msghead(area, {7, MSG_IND, -2});
    assemble_sockhead(area, {CMD_AT_ONLINE_CMD, E_CUST_JSON_RESTORE, -9, 5, 77, 1, 2, {0, 0}});
    EXPECT_EQ(disassemble_packhead(area).pack_len, 44u);
    EXPECT_EQ(disassemble_msghead(area).txn_id, 7u);
    EXPECT_EQ(disassemble_msghead(area).msg_type, MSG_IND);
    EXPECT_EQ(disassemble_msghead(area).msg_not_finish, -2);
    const vexa_sock_head_t head = disassemble_sockhead(area);
    EXPECT_EQ(head.cmd_type, CMD_AT_ONLINE_CMD);
    EXPECT_EQ(head.cust_flag, E_CUST_JSON_RESTORE);
    EXPECT_EQ(head.error_code, -9);
    EXPECT_EQ(head.usr_p, 5u);
    EXPECT_EQ(head.content_len, 77u);
    EXPECT_EQ(head.data_start, 1);
    EXPECT_EQ(head.data_complete, 2);
}

TEST(PlatformPack, WhatIsAPackAndWhatIsNot) {
    const struct {
        std::string bytes;
        PackVerdict expected;
        const char* why;
    } rows[] = {
        {pack_of("OK"), PackVerdict::whole, "a pack"},
        {pack_of(""), PackVerdict::whole, "heads alone"},
        {pack_of("OK") + "tail", PackVerdict::whole, "what follows is not its business"},
        {"kcaq" + pack_of("OK").substr(4), PackVerdict::bad_head, "wrong magic"},
        {pack_of("").substr(0, 43), PackVerdict::bad_head, "shorter than the heads"},
        {"kcap", PackVerdict::bad_head, "magic alone"},
        {raw_pack(43, "OK"), PackVerdict::bad_head, "stated length below the heads"},
        {raw_pack(0, "OK"), PackVerdict::bad_head, "no length: must not loop"},
        {raw_pack(0xFFFFFFFF, "OK"), PackVerdict::bad_head, "a length of junk"},
        {raw_pack(47, "OK"), PackVerdict::bad_head, "a payload one byte short"},
        {raw_pack(44 + 4097, std::string(4096, 'x')), PackVerdict::bad_head,
         "wholeness is judged before size"},
        {pack_of(std::string(4096, 'x')), PackVerdict::whole, "the largest payload"},
        {pack_of(std::string(4097, 'x')), PackVerdict::too_large, "one byte more"},
    };
    for (const auto& row : rows) EXPECT_EQ(first_pack(row.bytes).verdict, row.expected) << row.why;
}

TEST(PlatformPack, ContentLengthDoesNotSteerTheParse) {
    std::string bytes = pack_of("OK");
    vexa_sock_head_t head = disassemble_sockhead(bytes);
    head.content_len = 4000;
    assemble_sockhead(bytes, head);
    EXPECT_EQ(first_pack(bytes).payload, "OK");
}

TEST(PlatformPack, RandomPacksComeBack) {
    std::mt19937 random(20191);
    for (int round = 0; round < 200; ++round) {
        std::string payload(random() % (kReceivedPayloadMax + 1), '\0');
        for (char& byte : payload) byte = static_cast<char>(random());
        const std::string bytes = pack_of(payload, CMD_AT_DATA);
        const ReceivedPack pack = first_pack(bytes);
        ASSERT_EQ(pack.verdict, PackVerdict::whole);
        EXPECT_EQ(pack.payload, payload);
        EXPECT_EQ(pack.sock_head.cmd_type, CMD_AT_DATA);
    }
}

TEST(PlatformPack, ACutAnywhereIsABadHead) {
    const std::string bytes = pack_of("\r\nOK\r\n");
    for (std::size_t size = 0; size < bytes.size(); ++size)
        EXPECT_EQ(first_pack(std::string_view(bytes).substr(0, size)).verdict,
                  PackVerdict::bad_head)
            << size;
}

}  // namespace
