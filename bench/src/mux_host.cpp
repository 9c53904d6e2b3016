#include "mux_host.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <utility>

namespace bench {

namespace {

constexpr std::array<int, 4> kSetUpOrder = {0, 1, 2, 4};
constexpr std::string_view kSessionCommand = "AT+CMUX=0\r";
constexpr std::size_t kLargestInformation = 127;
// The module's answer to the fourth set-up: SABM's control byte with the check sequence of a UA.
constexpr std::string_view kFourthAnswer = "\xF9\x13\x3F\x01\x5D\xF9";

bool take_up_to(std::string& text, std::string_view wanted) {
    const std::size_t at = text.find(wanted);
    if (at == std::string::npos)
        return false;
    text.erase(0, at + wanted.size());
    return true;
}

std::string in_hex(std::string_view bytes) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<uint8_t>(byte);
        text.append({kDigits[value >> 4], kDigits[value & 15], ' '});
    }
    return text;
}

}  // namespace

void MuxHost::open() {
    step_ = Step::command;
    output_ += kSessionCommand;
}

void MuxHost::send(int dlci, std::string_view text) {
    for (; !text.empty(); text.remove_prefix(std::min(kLargestInformation, text.size())))
        output_ += encode_mux_frame(
            {.dlci = dlci, .information = std::string(text.substr(0, kLargestInformation))});
}

void MuxHost::received(std::string_view bytes) {
    decoder_.feed(bytes);
    while (const std::optional<MuxItem> item = decoder_.next()) take_item(*item);
}

std::string MuxHost::take_output() {
    return std::exchange(output_, {});
}

bool MuxHost::take(int dlci, std::string_view text) {
    return take_up_to(heard_[dlci], text);
}

bool MuxHost::take_stray(std::string_view text) {
    return take_up_to(stray_, text);
}

void MuxHost::take_item(const MuxItem& item) {
    if (item.is_frame)
        return take_frame(item);
    stray_ += item.raw;
    if (step_ != Step::command || !take_stray("\r\nOK\r\n"))
        return;
    step_ = Step::channel;
    channel_index_ = 0;
    set_up_next();
}

void MuxHost::set_up_next() {
    if (channel_index_ == kSetUpOrder.size()) {
        step_ = Step::open;
        return;
    }
    output_ += encode_mux_frame({.dlci = kSetUpOrder[channel_index_],
                                 .control = static_cast<uint8_t>(MuxControl::sabm),
                                 .information = {}});
}

void MuxHost::take_frame(const MuxItem& item) {
    const bool is_answer_text = item.frame.control == static_cast<uint8_t>(MuxControl::uih) &&
                                item.fcs_fits && !item.frame.command;
    if (is_answer_text)
        heard_[item.frame.dlci] += item.frame.information;
    else if (step_ == Step::channel)
        take_acknowledgement(item);
    else
        oddities_.push_back(in_hex(item.raw));
}

void MuxHost::take_acknowledgement(const MuxItem& item) {
    const int awaited = kSetUpOrder[channel_index_];
    const bool is_ua = item.frame.control == static_cast<uint8_t>(MuxControl::ua) && item.fcs_fits;
    if (item.frame.dlci != awaited || (!is_ua && item.raw != kFourthAnswer)) {
        oddities_.push_back(in_hex(item.raw));
        return;
    }
    ++channel_index_;
    set_up_next();
}

namespace {

std::string_view take_word(std::string_view& line) {
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    const std::string_view word = line.substr(0, line.find(' '));
    line.remove_prefix(word.size());
    return word;
}

std::optional<int> number_of(std::string_view word, int base) {
    int value = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value, base);
    if (error != std::errc{} || end != word.data() + word.size())
        return std::nullopt;
    return value;
}

std::string unescape(std::string_view text) {
    std::string plain;
    while (!text.empty()) {
        if (text.front() != '\\' || text.size() < 2) {
            plain.push_back(text.front());
            text.remove_prefix(1);
            continue;
        }
        const char kind = text[1];
        const std::optional<int> code =
            kind == 'x' && text.size() >= 4 ? number_of(text.substr(2, 2), 16) : std::nullopt;
        plain.push_back(code          ? static_cast<char>(*code)
                        : kind == 'r' ? '\r'
                        : kind == 'n' ? '\n'
                        : kind == 't' ? '\t'
                                      : kind);
        text.remove_prefix(code ? 4 : 2);
    }
    return plain;
}

}  // namespace

MuxStep parse_mux_step(std::string_view line) {
    constexpr int kLargestDlci = 61;  // 27.010 5.6; 62 and 63 are reserved
    if (take_word(line) != "mux")
        return {};
    const std::string_view verb = take_word(line);
    if (verb == "open")
        return {.verb = MuxStep::Verb::open, .text = {}};
    const std::optional<int> dlci = number_of(take_word(line), 10);
    if ((verb != "send" && verb != "expect") || !dlci || *dlci < 0 || *dlci > kLargestDlci ||
        line.size() < 2)
        return {};
    return {.verb = verb == "send" ? MuxStep::Verb::send : MuxStep::Verb::expect,
            .dlci = *dlci,
            .text = unescape(line.substr(1))};
}

}  // namespace bench
