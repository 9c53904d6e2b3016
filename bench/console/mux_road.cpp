#include "mux_road.h"

#include <utility>

namespace bench {
namespace {

using namespace std::chrono_literals;

// What scripts have not expected for so long is forgotten.
constexpr std::size_t kUnreadLimit = 65536;

bool is_dial(std::string_view bytes) {
    return bytes.find("ATD") != std::string_view::npos ||
           bytes.find("atd") != std::string_view::npos;
}

// Text of a channel on one line.
std::string in_one_line(std::string_view text) {
    std::string line;
    for (const char byte : text) {
        const bool is_blank = byte == '\r' || byte == '\n';
        if (!is_blank || (!line.empty() && line.back() != ' ')) {
            line += is_blank ? ' ' : byte;
        }
    }
    return line;
}

}  // namespace

std::string MuxRoad::title() const {
    return "channel " + std::to_string(kMuxCommandChannel) +
           " of the multiplexer on the UART port, dial commands to channel " +
           std::to_string(kMuxDialChannel);
}

bool MuxRoad::open(const std::function<void()>& opened) {
    opened_ = opened;
    module_.on_port_output(kUartHostPort, [this](std::string_view bytes) {
        host_.received(bytes);
        carry();
    });
    host_.open();
    carry();
    return true;
}

void MuxRoad::send(std::string_view bytes) {
    const bool is_connected = channel_ == kMuxDialChannel && dial_reader_.in_data();
    if (!is_connected) {
        channel_ = is_dial(bytes) ? kMuxDialChannel : kMuxCommandChannel;
    }
    say(channel_, bytes);
}

// What a script expects afterwards is an answer to this.
void MuxRoad::say(int dlci, std::string_view text) {
    unread_[dlci].clear();
    host_.send(dlci, text);
    carry();
}

bool MuxRoad::carry_out(const std::string& line, const std::function<void()>& done) {
    MuxStep step = parse_mux_step(line);
    if (step.verb == MuxStep::Verb::none) {
        return false;
    }
    if (step.verb == MuxStep::Verb::expect) {
        expected_ = std::move(step);
        found_ = done;
        look_for_expected();
        return true;
    }
    if (step.verb == MuxStep::Verb::send) {
        say(step.dlci, step.text);
    }
    // The road is open before the first line: "mux open" is done already.
    module_.loop().after(0ms, done);
    return true;
}

void MuxRoad::carry() {
    const std::string output = host_.take_output();
    if (!output.empty()) {
        module_.write_port(kUartHostPort, output);
    }
    if (opened_ && host_.is_open()) {
        const auto opened = std::exchange(opened_, nullptr);
        opened();
    }
    for (const int dlci : {0, 1, kMuxCommandChannel, 3, kMuxDialChannel}) {
        take_heard(dlci);
    }
    const std::string stray = host_.stray();
    if (host_.is_open() && !stray.empty() && host_.take_stray(stray)) {
        aside("outside the channels: " + in_one_line(stray));
    }
    look_for_expected();
}

void MuxRoad::take_heard(int dlci) {
    const std::string text = host_.heard(dlci);
    if (text.empty() || !host_.take(dlci, text)) {
        return;
    }
    std::string& unread = unread_[dlci];
    unread += text;
    if (unread.size() > kUnreadLimit) {
        unread.erase(0, unread.size() - kUnreadLimit);
    }
    const bool is_consoles = dlci == channel_;
    if (dlci == kMuxDialChannel) {
        follow_dial(text);
    }
    // Last, because what the console hears makes it send its next line.
    if (is_consoles) {
        heard(text);
    } else {
        aside("channel " + std::to_string(dlci) + ": " + in_one_line(text));
    }
}

// A call that ends, or never begins, gives the console back to the command channel.
void MuxRoad::follow_dial(std::string_view text) {
    for (const AnswerReader::Item& item : dial_reader_.feed(text)) {
        if (item.kind == AnswerReader::Kind::final_result && !dial_reader_.in_data()) {
            channel_ = kMuxCommandChannel;
        }
    }
}

void MuxRoad::look_for_expected() {
    if (!found_) {
        return;
    }
    std::string& unread = unread_[expected_.dlci];
    const std::size_t at = unread.find(expected_.text);
    if (at == std::string::npos) {
        return;
    }
    unread.erase(0, at + expected_.text.size());
    module_.loop().after(0ms, std::exchange(found_, nullptr));
}

}  // namespace bench
