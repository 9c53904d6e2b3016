#include "host_port.h"

#include <array>

#include "module.h"

void HostPort::take_input() {
    std::array<char, 65536> bytes;
    for (;;) {
        const ssize_t got = read(fd(), bytes.data(), bytes.size());
        if (got <= 0) {
            return;
        }
        received_.append(bytes.data(), static_cast<std::size_t>(got));
    }
}

void HostPort::write(std::string_view bytes, Here here) {
    const auto push = [&] {
        const ssize_t sent = ::write(fd(), bytes.data(), bytes.size());
        if (sent > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
        return bytes.empty();
    };
    module_.wait_until(push, path_ + " to take what is written", here);
}

void HostPort::expect(std::string_view bytes, Here here) {
    const auto agree = [&] {
        const std::size_t size = std::min(received_.size(), bytes.size());
        return received_.compare(0, size, bytes.substr(0, size)) == 0;
    };
    const auto whole = [&] { return !agree() || received_.size() >= bytes.size(); };
    module_.wait_until(whole, path_ + ": \"" + bench::visible(bytes) + "\"", here);
    if (!agree()) {
        module_.fail(path_ + ": expected \"" + bench::visible(bytes) + "\"", here);
    }
    received_.erase(0, bytes.size());
}

std::string HostPort::expect_up_to(std::string_view text, Here here) {
    const auto found = [&] { return received_.find(text) != std::string::npos; };
    module_.wait_until(found, path_ + ": ... \"" + bench::visible(text) + "\"", here);
    const std::size_t end = received_.find(text) + text.size();
    std::string all = received_.substr(0, end);
    received_.erase(0, end);
    return all;
}

void HostPort::unplug() {
    module_.remove(path_);
    if (pty_) {
        take_input();
    }
    pty_.reset();
}

void HostPort::plug() {
    pty_ = module_.space_.make_pty(path_);
}

void HostPort::replug() {
    if (pty_) {
        take_input();
    }
    plug();
}
