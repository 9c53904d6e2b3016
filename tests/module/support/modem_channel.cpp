#include "modem_channel.h"

#include <sys/socket.h>

#include <cerrno>

#include "module.h"

namespace {

constexpr std::size_t kLargestMessage = 65536;

}  // namespace

void ModemChannel::accept_connection() {
    bench::UniqueFd next(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (next.is_open()) {
        if (connection_.is_open()) {
            take_input();
        }
        connection_ = std::move(next);
    }
}

void ModemChannel::take_input() {
    std::string message(kLargestMessage, '\0');
    for (;;) {
        const ssize_t got = recv(connection_.get(), message.data(), message.size(), 0);
        if (got > 0) {
            received_.emplace_back(message.data(), static_cast<std::size_t>(got));
            continue;
        }
        if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
            connection_.reset();
        }
        return;
    }
}

std::string ModemChannel::expect_message(Here here) {
    module_.wait_until([&] { return !received_.empty(); }, path_ + ": a message", here);
    std::string message = std::move(received_.front());
    received_.pop_front();
    return message;
}

void ModemChannel::expect(std::string_view message, Here here) {
    module_.wait_until([&] { return !received_.empty(); },
                       path_ + ": \"" + bench::visible(message) + "\"", here);
    if (received_.front() != message) {
        module_.fail(path_ + ": expected the message \"" + bench::visible(message) + "\"", here);
    }
    received_.pop_front();
}

void ModemChannel::send(std::string_view message, Here here) {
    const auto sent = [&] {
        return connection_.is_open() &&
               ::send(connection_.get(), message.data(), message.size(), MSG_NOSIGNAL) >= 0;
    };
    module_.wait_until(sent, path_ + " to take a message", here);
}

void ModemChannel::close() {
    module_.remove(path_);
    listener_.reset();
    drop_connection();
}

void ModemChannel::open() {
    listener_ = module_.listen(path_, SOCK_SEQPACKET);
}

void ModemChannel::hang_up(Here here) {
    // What the daemon has open may still wait to be accepted.
    accept_connection();
    wait_until_open(here);
    drop_connection();
}

void ModemChannel::drop_connection() {
    if (connection_.is_open()) {
        take_input();
    }
    connection_.reset();
}

void ModemChannel::wait_until_open(Here here) {
    module_.wait_until([&] { return connection_.is_open(); }, path_ + " to be opened", here);
}
