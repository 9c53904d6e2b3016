#include "relay.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>

#include <array>

namespace bench {
namespace {

using namespace std::chrono_literals;
// The master of a pty that nobody has open polls "hung up" for ever; it is looked at this often.
constexpr auto kLookAgain = 200ms;

}  // namespace

Relay::Relay(Loop& loop, std::function<void(std::string_view)> typed)
    : loop_(loop), typed_(std::move(typed)) {}

Relay::~Relay() {
    loop_.cancel(timer_);
    loop_.unwatch(master_.get());
}

bool Relay::open() {
    master_ = UniqueFd(::open("/dev/ptmx", O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
    std::array<char, 64> name{};
    if (!master_.is_open() || grantpt(master_.get()) != 0 || unlockpt(master_.get()) != 0 ||
        ptsname_r(master_.get(), name.data(), name.size()) != 0) {
        return false;
    }
    name_ = name.data();
    const UniqueFd slave(::open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios settings{};
    if (!slave.is_open() || tcgetattr(slave.get(), &settings) != 0) {
        return false;
    }
    cfmakeraw(&settings);
    tcsetattr(slave.get(), TCSANOW, &settings);
    look();
    return true;
}

bool Relay::is_used() const {
    pollfd state{master_.get(), POLLIN, 0};
    return poll(&state, 1, 0) >= 0 && (state.revents & POLLHUP) == 0;
}

void Relay::look() {
    timer_ = 0;
    if (is_used()) {
        loop_.watch(master_.get(), [this] { take_input(); });
        return;
    }
    timer_ = loop_.after(kLookAgain, [this] { look(); });
}

void Relay::take_input() {
    std::array<char, 4096> bytes;
    const ssize_t got = read(master_.get(), bytes.data(), bytes.size());
    if (got > 0) {
        typed_({bytes.data(), static_cast<std::size_t>(got)});
        return;
    }
    if (!is_used()) {
        loop_.unwatch(master_.get());
        look();
    }
}

void Relay::say(std::string_view bytes) {
    if (is_used()) {
        (void)!write(master_.get(), bytes.data(), bytes.size());
    }
}

}  // namespace bench
