// Packs of the platform link as bytes: pure, bounded, no descriptors.
//
// One pack (vexa_common_def.h), in the machine's byte order because both ends live on one machine:
//
//   0          4         8       12        16              20 ...             44
//   | "kcap"   | length  | txn_id| msg_type| msg_not_finish| command head     | payload
//
// The length counts the whole pack. A received pack's end comes from it alone: content_len does
// not steer the parse (the port report says 0 there and four bytes follow).
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "text_part.h"
#include "vexa_common_def.h"

inline constexpr uint32_t kPackMagic = 0x7061636B;  // "kcap"
inline constexpr std::size_t kMsgHeadOffset = sizeof(vexa_pack_head_t);
inline constexpr std::size_t kSockHeadOffset = kMsgHeadOffset + sizeof(vexa_msg_head_t);
inline constexpr std::size_t kPackHeadsSize = kSockHeadOffset + sizeof(vexa_sock_head_t);
inline constexpr std::size_t kPortReportSize = kPackHeadsSize + sizeof(int32_t);
static_assert(kSockHeadOffset == 20 && kPackHeadsSize == 44);

inline constexpr std::size_t kPackAreaSize = 131072;  // one send or one receive
inline constexpr std::size_t kSentPayloadMax = kPackAreaSize - kPackHeadsSize;
inline constexpr std::size_t kReceivedPayloadMax = 4096;

// Copies a record to or from its place; the area holds at least that many bytes.
template <typename Record>
constexpr void put_record(std::span<char> area, std::size_t offset, const Record& record) {
    const auto bytes = std::bit_cast<std::array<char, sizeof(Record)>>(record);
    std::copy(bytes.begin(), bytes.end(), area.begin() + static_cast<std::ptrdiff_t>(offset));
}

template <typename Record>
constexpr Record get_record(std::string_view pack, std::size_t offset) {
    std::array<char, sizeof(Record)> bytes{};
    std::copy_n(pack.begin() + offset, sizeof(Record), bytes.begin());
    return std::bit_cast<Record>(bytes);
}

constexpr void assemble_packhead(std::span<char> area, const vexa_pack_head_t& head) {
    put_record(area, 0, head);
}
constexpr void assemble_msghead(std::span<char> area, const vexa_msg_head_t& head) {
    put_record(area, kMsgHeadOffset, head);
}
constexpr void assemble_sockhead(std::span<char> area, const vexa_sock_head_t& head) {
    put_record(area, kSockHeadOffset, head);
}
constexpr vexa_pack_head_t disassemble_packhead(std::string_view pack) {
    return get_record<vexa_pack_head_t>(pack, 0);
}
constexpr vexa_msg_head_t disassemble_msghead(std::string_view pack) {
    return get_record<vexa_msg_head_t>(pack, kMsgHeadOffset);
}
constexpr vexa_sock_head_t disassemble_sockhead(std::string_view pack) {
    return get_record<vexa_sock_head_t>(pack, kSockHeadOffset);
}

// How a port's mode is told to the platform. One-way: CMD_AT_ONLINE_CMD is never sent.
constexpr cmd_enum_type wire_cmd_type(int port_mode) {
    if (port_mode == USB_PORT_ATCMD_MODE || port_mode == USB_PORT_CMUX_MODE)
        return CMD_AT_CMD;
    if (port_mode == USB_PORT_DATA_MODE)
        return CMD_AT_DATA;
    return CMD_IND;
}

// Writes one pack at the start of `area` and returns its size; 0, and nothing written, when it
// does not fit.
constexpr std::size_t build_pack(std::span<char> area, cmd_enum_type cmd_type,
                                 std::string_view payload) {
    if (area.size() < kPackHeadsSize || payload.size() > area.size() - kPackHeadsSize)
        return 0;
    const auto payload_size = static_cast<uint32_t>(payload.size());
    const auto pack_size = static_cast<uint32_t>(kPackHeadsSize) + payload_size;
    assemble_packhead(area, {kPackMagic, pack_size});
    assemble_msghead(area, {0, MSG_SYNC, 0});
    assemble_sockhead(area, {cmd_type, E_CUST_DEFAULT, 0, 0, payload_size, 0, 0, {0, 0}});
    std::copy(payload.begin(), payload.end(), area.begin() + kPackHeadsSize);
    return pack_size;
}

// Tells the platform which host port a connection belongs to. content_len stays 0 as the platform
// expects it, although four bytes follow.
constexpr std::array<char, kPortReportSize> build_port_report(port_name_enum_type port_name) {
    std::array<char, kPortReportSize> report{};
    assemble_packhead(report, {kPackMagic, kPortReportSize});
    assemble_msghead(report, {0, MSG_SYNC, 0});
    assemble_sockhead(report, {CMD_PORT_REPORT, E_CUST_DEFAULT, 0, 0, 0, 0, 0, {0, 0}});
    put_record(report, kPackHeadsSize, port_name);
    return report;
}

enum class PackVerdict {
    whole,
    bad_head,   // no magic, a length below the heads, or not wholly in what was received
    too_large,  // whole, but its payload does not fit the area it is copied through
};

struct ReceivedPack {
    PackVerdict verdict;
    vexa_msg_head_t msg_head;
    vexa_sock_head_t sock_head;
    std::string_view payload;  // inside `received`
};

// The first pack of `received`; only the verdict is set unless it is `whole`. Wholeness is judged
// before size, so that a length made of junk cannot stop the daemon.
constexpr ReceivedPack first_pack(std::string_view received) {
    ReceivedPack pack{PackVerdict::bad_head, {}, {}, {}};
    if (received.size() < kPackHeadsSize)
        return pack;
    const vexa_pack_head_t head = disassemble_packhead(received);
    if (head.pack_head != kPackMagic || head.pack_len < kPackHeadsSize ||
        head.pack_len > received.size())
        return pack;
    pack.verdict = PackVerdict::too_large;
    if (head.pack_len - kPackHeadsSize > kReceivedPayloadMax)
        return pack;
    pack.verdict = PackVerdict::whole;
    pack.msg_head = disassemble_msghead(received);
    pack.sock_head = disassemble_sockhead(received);
    pack.payload = text_part(received, kPackHeadsSize, head.pack_len - kPackHeadsSize);
    return pack;
}
