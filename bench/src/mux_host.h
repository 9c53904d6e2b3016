// A multiplexing host on the module's UART: sets the session up and talks on its channels. Pure:
// the caller carries the bytes.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "mux_codec.h"

namespace bench {

// Channels as this module uses them: commands on DLCI 1 and 2, dialling on DLCI 4.
inline constexpr int kMuxCommandChannel = 2;
inline constexpr int kMuxDialChannel = 4;

class MuxHost {
  public:
    // Begins the set-up: AT+CMUX=0, then DLCI 0, 1, 2 and 4, each when the one before is up.
    void open();
    [[nodiscard]] bool is_open() const { return step_ == Step::open; }

    // Text on a channel as UIH frames of at most 127 bytes.
    void send(int dlci, std::string_view text);
    // What the UART said.
    void received(std::string_view bytes);
    // What is to be written to the UART; emptied.
    std::string take_output();

    // True, and everything up to and with `text` taken, when the channel has said it.
    bool take(int dlci, std::string_view text);
    // What the channel said and nobody took.
    [[nodiscard]] const std::string& heard(int dlci) { return heard_[dlci]; }
    // What came outside frames, such as the module's refusals.
    [[nodiscard]] const std::string& stray() const { return stray_; }
    bool take_stray(std::string_view text);
    // Frames that should not have come: wrong check sequence, unexpected type or sender's bit.
    [[nodiscard]] const std::vector<std::string>& oddities() const { return oddities_; }

  private:
    enum class Step { idle, command, channel, open };

    void take_item(const MuxItem& item);
    void take_frame(const MuxItem& item);
    void take_acknowledgement(const MuxItem& item);
    void set_up_next();

    Step step_ = Step::idle;
    std::size_t channel_index_ = 0;  // into the order of the set-up
    MuxDecoder decoder_;
    std::string output_;
    std::string stray_;
    std::map<int, std::string> heard_;
    std::vector<std::string> oddities_;
};

// One line of a script: "mux open", "mux send 2 AT\r", "mux expect 2 OK". Text knows the escapes
// \r \n \t \\ and \xHH.
struct MuxStep {
    enum class Verb { none, open, send, expect } verb = Verb::none;  // none: not such a line
    int dlci = 0;
    std::string text;
};

MuxStep parse_mux_step(std::string_view line);

}  // namespace bench
