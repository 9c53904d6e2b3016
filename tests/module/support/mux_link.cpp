#include "mux_link.h"

#include <algorithm>

namespace {

constexpr const char* kUart = "/dev/ttyMSM1";
// The daemon gives up a frame that rests for 250 ms; the clock here stops a little earlier.
constexpr std::chrono::milliseconds kLongestRest{240};

}  // namespace

void MuxLink::take_input() {
    const std::string bytes = module_.uart_port().received();
    module_.uart_port().forget_received();
    host_.received(bytes);
}

bench::MuxHost& MuxLink::host() {
    take_input();
    return host_;
}

bool MuxLink::open(Here here) {
    host_.open();
    return wait_until([&] { return host_.is_open(); }, "the multiplexer's channels", here);
}

bool MuxLink::send(int dlci, std::string_view text, Here here) {
    host_.send(dlci, text);
    return flush(here);
}

bool MuxLink::send_raw(std::string_view bytes, Here here) {
    return write(bytes, here);
}

bool MuxLink::expect(int dlci, std::string_view text, Here here) {
    return wait_until([&] { return host_.take(dlci, text); },
                      "\"" + bench::visible(text) + "\" on DLCI " + std::to_string(dlci), here);
}

bool MuxLink::flush(Here here) {
    const std::string output = host_.take_output();
    return output.empty() || write(output, here);
}

// Also carries what the host has to say next, such as the following step of the set-up.
bool MuxLink::wait_until(const std::function<bool()>& done, const std::string& what, Here here) {
    const auto carry = [&] {
        take_input();
        return done() || !flush(here);
    };
    module_.wait_until(carry, what, here);
    return !was_slow_;
}

bool MuxLink::write(std::string_view bytes, Here here) {
    if (cut_ == 0) {
        module_.uart_port().write(bytes, here);
        return !was_slow_;
    }
    for (; !bytes.empty(); bytes.remove_prefix(std::min(cut_, bytes.size())))
        was_slow_ = !write_piece(bytes.substr(0, cut_), here) || was_slow_;
    return !was_slow_;
}

// A piece is a read of its own because the next one is written only when the daemon polls again.
bool MuxLink::write_piece(std::string_view piece, Here here) {
    const auto start = std::chrono::steady_clock::now();
    DeviceControl uart = module_.device(kUart);
    const int polls = uart.polls();
    module_.uart_port().write(piece, here);
    module_.wait_until([&] { return uart.polls() > polls; }, "the daemon to read a piece", here);
    return std::chrono::steady_clock::now() - start < kLongestRest / 2;
}
