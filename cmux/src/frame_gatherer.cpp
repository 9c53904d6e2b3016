#include "frame_gatherer.h"

#include <algorithm>

#include "text_part.h"

namespace {

bool is_flag(char byte) {
    return static_cast<UINT8>(byte) == kMuxFlag;
}

// 27.010 5.2.1.2: addresses have one byte, so the extension bit is set.
bool is_address(char byte) {
    return (static_cast<UINT8>(byte) & 1) != 0;
}

// 27.010 5.2.1.3: every frame type's lowest two bits are set.
bool is_control(UINT8 byte) {
    return (byte & 3) == 3;
}

}  // namespace

void FrameGatherer::reset() {
    state_ = State::hunting;
    is_run_refused_ = false;
    length_ = 0;
}

std::optional<std::string_view> FrameGatherer::next(std::string_view& input, int64_t now_ms) {
    if (input.empty())
        return std::nullopt;
    if (const auto unfinished = give_up_after_pause(now_ms))
        return unfinished;
    while (!input.empty()) {
        const auto piece = state_ == State::hunting      ? hunt(input)
                           : state_ == State::after_flag ? follow_flag(input)
                                                         : gather(input);
        if (piece)
            return piece;
    }
    return std::nullopt;
}

std::optional<std::string_view> FrameGatherer::give_up_after_pause(int64_t now_ms) {
    const bool is_late = now_ms - last_ms_ > kGiveUpMs;
    last_ms_ = now_ms;
    if (!is_late)
        return std::nullopt;
    is_run_refused_ = false;
    if (state_ != State::in_frame)
        return std::nullopt;
    state_ = State::hunting;
    return junk_once({frame_.data(), length_});
}

std::optional<std::string_view> FrameGatherer::junk_once(std::string_view piece) {
    if (is_run_refused_)
        return std::nullopt;
    is_run_refused_ = true;
    return piece;
}

std::optional<std::string_view> FrameGatherer::hunt(std::string_view& input) {
    const std::size_t count = std::min(input.find(static_cast<char>(kMuxFlag)), input.size());
    const std::string_view run = text_part(input, 0, count);
    input.remove_prefix(count);
    if (!input.empty()) {
        input.remove_prefix(1);
        state_ = State::after_flag;
    }
    return run.empty() ? std::nullopt : junk_once(run);
}

std::optional<std::string_view> FrameGatherer::follow_flag(std::string_view& input) {
    const char first = input.front();
    input.remove_prefix(1);
    if (is_flag(first))
        return std::nullopt;
    frame_[0] = static_cast<char>(kMuxFlag);
    frame_[1] = first;
    length_ = 2;
    state_ = is_address(first) ? State::in_frame : State::hunting;
    return is_address(first) ? std::nullopt : junk_once({frame_.data(), length_});
}

// The whole frame's length as far as it is known; 0 when these bytes cannot be a frame.
std::size_t FrameGatherer::announced_length() const {
    if (length_ == 3 && !is_control(byte(2)))
        return 0;
    if (length_ < kMuxHeadLength)
        return kMuxMinFrame;
    // A set-up frame carries nothing; the session takes it with the odd length bytes 0 and 2 too.
    const bool is_set_up = (byte(2) & kMuxControlWithoutPf) == kMuxControlSabm && byte(3) <= 2;
    if (is_set_up)
        return kMuxMinFrame;
    const std::size_t information = byte(3) / 2U;
    if ((byte(3) & 1) != 0)
        return kMuxMinFrame + information;
    // Two length bytes (5.2.1.5): gathered to its end, so that it is refused as one frame.
    if (length_ == kMuxHeadLength)
        return kMuxMinFrame + 1;
    const std::size_t whole = kMuxMinFrame + 1 + information + std::size_t{128} * byte(4);
    return whole <= kLongestFrame ? whole : 0;
}

std::optional<std::string_view> FrameGatherer::gather(std::string_view& input) {
    const char last = input.front();
    if (length_ == 2 && is_flag(last)) {  // broken off: this flag may open the next frame
        state_ = State::hunting;
        return junk_once({frame_.data(), length_});
    }
    input.remove_prefix(1);
    frame_[length_++] = last;
    const std::size_t wanted = announced_length();
    if (wanted == 0) {
        state_ = State::hunting;
        return junk_once({frame_.data(), length_});
    }
    if (length_ < wanted)
        return std::nullopt;
    state_ = is_flag(last) ? State::after_flag : State::hunting;
    is_run_refused_ = !is_flag(last);
    return std::string_view(frame_.data(), length_);
}
