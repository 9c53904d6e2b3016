// The multiplexer of the plain model.
#include <algorithm>
#include <array>

#include "plain_model.h"
#include "plain_words.h"

namespace model {
namespace {

const std::string kMuxError = "\r\n!!!!!MUX data error!!!!!.\r\n";
constexpr std::size_t kLongestFrame = 127;
constexpr char kFlag = '\xF9';

}  // namespace

// True: it was one.
bool PlainModel::take_cmux_command(int source) {
    std::string& line = lines_[at(source)];
    if (small(name_of(line)) != "at+cmux" || holds(line, ";")) {
        return false;
    }
    std::string answer = kNotRunning;
    if (holds(line, "=?")) {
        answer = "+CMUX: (0),(0),(1-6),(1-1509),(1-255),(0-5),(2-255),(1-255)";
    } else if (holds(line, "x?") || holds(line, "X?")) {
        answer = "+CMUX: " + parameters_;
    } else if (holds(line, "=0") || holds(line, "=1")) {
        parameters_ = std::string(holds(line, "=0") ? "0" : "1") + ",0,5,31,10,3,30,10";
        multiplexes_ = true;
        ports_[kUart].mode = 5;
        answer = "\r\nOK\r\n";
    }
    seen_.hosts[kUart] += answer;
    line.clear();
    return true;
}

// Only what stands alone is told here: one frame between its own flags, or junk that cannot begin
// one. The daemon takes cut and glued frames as well.
void PlainModel::hear_frame(const std::string& frame) {
    const bool is_junk = frame.find(kFlag) == std::string::npos && (frame[0] & 1) == 0;
    if (is_junk) {
        is_open_ = is_open_ || junk_before_;  // one refusal a run, and a run ends by time, too
        junk_before_ = true;
        return refuse_frame();
    }
    junk_before_ = false;
    const auto length = frame.size() > 3 ? static_cast<unsigned char>(frame[3]) : 0U;
    if (frame.size() < 6 || frame[0] != kFlag || (frame[1] & 1) == 0 || (length & 1) == 0 ||
        frame.size() != 6 + length / 2 || frame.back() != kFlag) {
        is_open_ = true;
        return;
    }
    const auto address = static_cast<unsigned char>(frame[1]);
    const auto control = static_cast<unsigned char>(frame[2]);
    constexpr std::array<unsigned char, 4> kAddresses{0x03, 0x07, 0x0B, 0x13};
    const std::array<std::string, 4> acknowledgements{
        "\xF9\x03\x73\x01\xD7\xF9", "\xF9\x07\x73\x01\x15\xF9", "\xF9\x0B\x73\x01\x92\xF9",
        "\xF9\x13\x3F\x01\x5D\xF9"};
    const auto next = at(std::min(next_channel_, 3));
    const bool is_set_up = (control & 0xEF) == 0x2F && length <= 2;
    if (is_set_up && address == kAddresses[next]) {
        seen_.hosts[kUart] += acknowledgements[next];
        next_channel_ = std::min(next_channel_ + 1, 3);
    } else if (next_channel_ == 3 && control == 0xEF) {
        hear_payload(address, frame.substr(4, length / 2));
    } else {
        refuse_frame();
    }
}

void PlainModel::refuse_frame() {
    seen_.hosts[kUart] += kMuxError;
}

void PlainModel::hear_payload(unsigned char address, const std::string& payload) {
    const bool dials = holds_any(payload, {"atd", "ATD"});
    (dials ? dial_address_ : command_address_) = address;
    if (payload.empty()) {
        return;
    }
    const bool is_command = !dials && holds_any(payload, {"at", "AT"});
    is_open_ = is_open_ || holds(payload, std::string(1, '\0'));
    send(is_command ? kUart : kModem, kUart, payload);
}

void PlainModel::in_frames(unsigned char address, const std::string& text) {
    if (address == 0) {
        return;
    }
    for (std::size_t from = 0; from < text.size(); from += kLongestFrame) {
        const std::string piece = text.substr(from, kLongestFrame);
        const std::string head{static_cast<char>(address - 2), '\xEF',
                               static_cast<char>(piece.size() * 2 + 1)};
        seen_.hosts[kUart] += kFlag + head + piece + check_sequence(head) + kFlag;
    }
}

}  // namespace model
