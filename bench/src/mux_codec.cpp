#include "mux_codec.h"

#include <algorithm>

namespace bench {

namespace {

constexpr char kFlag = '\xF9';
constexpr std::size_t kOneByteLimit = 127;

// 5.2.1.6 with the register clocked bit by bit, least significant bit first.
uint8_t check_sequence(std::string_view bytes) {
    constexpr unsigned kReversedPolynomial = 0xE0;  // x^8 + x^2 + x + 1
    unsigned fcs = 0xFF;
    for (const char byte : bytes) {
        fcs ^= static_cast<uint8_t>(byte);
        for (int bit = 0; bit < 8; ++bit)
            fcs = (fcs & 1) != 0 ? (fcs >> 1) ^ kReversedPolynomial : fcs >> 1;
    }
    return static_cast<uint8_t>(0xFF - fcs);
}

uint8_t byte_at(std::string_view bytes, std::size_t index) {
    return static_cast<uint8_t>(bytes[index]);
}

// Where the parts of a frame lie that begins at an opening flag. 0 for what is not known yet.
struct Layout {
    std::size_t head = 0;  // address, control and length bytes
    std::size_t information = 0;

    [[nodiscard]] std::size_t whole() const { return 1 + head + information + 2; }
};

std::optional<Layout> layout_of(std::string_view bytes) {
    if (bytes.size() < 4)
        return std::nullopt;
    Layout layout{3, byte_at(bytes, 3) / 2U};
    if ((byte_at(bytes, 3) & 1) != 0)
        return layout;
    if (bytes.size() < 5)
        return std::nullopt;
    return Layout{4, layout.information + std::size_t{128} * byte_at(bytes, 4)};
}

MuxItem parse(std::string_view raw, const Layout& layout) {
    MuxItem item;
    item.is_frame = true;
    item.raw = raw;
    item.frame.dlci = byte_at(raw, 1) >> 2;
    item.frame.command = (byte_at(raw, 1) & 2) != 0;
    item.frame.control = byte_at(raw, 2);
    item.frame.information = raw.substr(1 + layout.head, layout.information);
    item.fcs_fits = check_sequence(raw.substr(1, layout.head)) == byte_at(raw, raw.size() - 2);
    return item;
}

}  // namespace

std::string encode_mux_frame(const MuxFrame& frame) {
    const std::size_t length = frame.information.size();
    std::string head;
    head.push_back(static_cast<char>(frame.dlci << 2 | (frame.command ? 2 : 0) | 1));
    head.push_back(static_cast<char>(frame.control));
    if (length <= kOneByteLimit)
        head.push_back(static_cast<char>(length << 1 | 1));
    else
        head.append(
            {static_cast<char>((length & kOneByteLimit) << 1), static_cast<char>(length >> 7)});
    const char fcs = static_cast<char>(check_sequence(head));
    return kFlag + head + frame.information + fcs + kFlag;
}

MuxItem MuxDecoder::take_stray(std::size_t count) {
    MuxItem item;
    item.raw = pending_.substr(0, count);
    pending_.erase(0, count);
    return item;
}

std::optional<MuxItem> MuxDecoder::next() {
    const std::size_t first_flag = std::min(pending_.find(kFlag), pending_.size());
    if (first_flag > 0)
        return take_stray(first_flag);
    // Of several flags in a row the last one opens the frame.
    pending_.erase(0, std::min(pending_.find_first_not_of(kFlag), pending_.size()) -
                          (pending_.empty() ? 0 : 1));
    const std::optional<Layout> layout = layout_of(pending_);
    if (!layout || pending_.size() < layout->whole())
        return std::nullopt;
    if (pending_[layout->whole() - 1] != kFlag)
        return take_stray(std::min(pending_.find(kFlag, 1), pending_.size()));
    MuxItem item = parse(std::string_view(pending_).substr(0, layout->whole()), *layout);
    pending_.erase(0, layout->whole());
    return item;
}

}  // namespace bench
