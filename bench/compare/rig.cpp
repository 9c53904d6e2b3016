#include "rig.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <termios.h>

namespace compare {

namespace {

struct Paths {
    const char* host;
    const char* modem;
};
constexpr std::array<Paths, kPorts> kPaths{{{"/dev/at_usb0", "/dev/at_mdm0"},
                                            {"/dev/at_usb1", "/dev/smd7"},
                                            {"/dev/ttyMSM1", "/dev/smd8"}}};
constexpr std::size_t kMostArrivals = 1 << 20;

void make_raw(const bench::Pty& pty) {
    termios settings{};
    tcgetattr(pty.slave.get(), &settings);
    cfmakeraw(&settings);
    tcsetattr(pty.slave.get(), TCSANOW, &settings);
}

}  // namespace

Rig::Rig() {
    if (!space_.open(bench::program_folder())) {
        throw Trouble(space_.error());
    }
    for (const Paths& paths : kPaths) {
        auto host = space_.make_pty(paths.host);
        auto modem = space_.make_pty(paths.modem);
        if (!host || !modem) {
            throw Trouble(space_.error());
        }
        lines_.push_back({paths.host, paths.modem, std::move(*host), std::move(*modem)});
        make_blocking(lines_.back().host());
        make_blocking(lines_.back().modem());
        make_blocking(lines_.back().host_pty.slave.get());
    }
}

void Rig::clean() {
    for (const Line& line : lines_) {
        for (const bench::Pty* pty : {&line.host_pty, &line.modem_pty}) {
            drain(pty->master.get());
            tcflush(pty->slave.get(), TCIOFLUSH);
            drain(pty->master.get());
            make_raw(*pty);
        }
    }
}

AnsweringModem::AnsweringModem(int fd, std::string answer)
    : fd_(fd), answer_(std::move(answer)), stop_(eventfd(0, EFD_CLOEXEC)) {
    arrivals_.reserve(kMostArrivals);
    thread_ = std::thread([this] { serve(); });
}

AnsweringModem::~AnsweringModem() {
    finish();
}

void AnsweringModem::finish() {
    if (thread_.joinable()) {
        eventfd_write(stop_.get(), 1);
        thread_.join();
    }
}

void AnsweringModem::serve() {
    std::array<char, 16384> area;
    for (;;) {
        std::array<pollfd, 2> set{{{fd_, POLLIN, 0}, {stop_.get(), POLLIN, 0}}};
        poll(set.data(), set.size(), -1);
        if (set[1].revents != 0) {
            return;
        }
        const ssize_t got = read(fd_, area.data(), area.size());
        if (got <= 0 || area[static_cast<std::size_t>(got) - 1] != '\r') {
            continue;
        }
        if (arrivals_.size() < kMostArrivals) {
            arrivals_.push_back(now_ns());
        }
        if (write(fd_, answer_.data(), answer_.size()) < 0) {
            return;
        }
    }
}

}  // namespace compare
