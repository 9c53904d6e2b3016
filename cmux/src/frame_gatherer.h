// Whole multiplexer frames out of a serial line's reads, which cut and glue them anywhere.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "gsm0710_frame.h"

// Finds the frame that its length byte announces. A closing flag serves as the next opening flag
// (3GPP TS 27.010 5.2.6.1 allows both) and extra flags between frames mean nothing. What cannot be
// a frame comes out once per run, to be refused by the session; the rest of the run is dropped.
// One thread.
class FrameGatherer {
  public:
    // A frame that rests longer than this before its next byte is given up.
    static constexpr int64_t kGiveUpMs = 250;

    // Takes bytes from the front of `input` up to the next piece: a whole frame or junk. Nothing
    // when the input is used up. `now_ms` is any monotonic clock. The piece is valid until the
    // next call and no longer than `input` is.
    std::optional<std::string_view> next(std::string_view& input, int64_t now_ms);
    // What was handled until `now_ms` kept the reader busy: the line's silence begins only then.
    void quiet_from(int64_t now_ms) { last_ms_ = now_ms; }
    // Forgets what was begun: the line was opened anew.
    void reset();

  private:
    // The largest N1 that the +CMUX test form announces, with two length bytes.
    static constexpr std::size_t kLongestFrame = 1509 + kMuxMinFrame + 1;

    enum class State { hunting, after_flag, in_frame };

    std::optional<std::string_view> give_up_after_pause(int64_t now_ms);
    std::optional<std::string_view> hunt(std::string_view& input);
    std::optional<std::string_view> follow_flag(std::string_view& input);
    std::optional<std::string_view> gather(std::string_view& input);
    std::optional<std::string_view> junk_once(std::string_view piece);
    [[nodiscard]] std::size_t announced_length() const;
    [[nodiscard]] UINT8 byte(std::size_t index) const { return static_cast<UINT8>(frame_[index]); }

    State state_ = State::hunting;
    bool is_run_refused_ = false;  // the present run of junk has come out already
    int64_t last_ms_ = 0;
    std::size_t length_ = 0;
    std::array<char, kLongestFrame> frame_{};
};
