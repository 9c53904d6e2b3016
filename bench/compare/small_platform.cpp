#include "small_platform.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <array>

#include "platform_peer.h"
#include "rig.h"

namespace compare {

SmallPlatform::SmallPlatform(bench::UniqueFd listener)
    : listener_(std::move(listener)),
      stop_(eventfd(0, EFD_CLOEXEC)),
      thread_([this] { serve(); }) {}

SmallPlatform::~SmallPlatform() {
    eventfd_write(stop_.get(), 1);
    thread_.join();
    for (const auto& [fd, stream] : streams_) {
        close(fd);
    }
}

void SmallPlatform::serve() {
    for (;;) {
        std::vector<pollfd> set{{stop_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
        for (const auto& [fd, stream] : streams_) {
            set.push_back({fd, POLLIN, 0});
        }
        poll(set.data(), set.size(), -1);
        if (set[0].revents != 0) {
            return;
        }
        for (std::size_t at = 2; at < set.size(); ++at) {
            if (set[at].revents != 0 && !take(set[at].fd)) {
                close(set[at].fd);
                streams_.erase(set[at].fd);
            }
        }
        if (set[1].revents != 0) {
            const int fd = accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                streams_[fd];
            }
        }
    }
}

bool SmallPlatform::take(int fd) {
    std::array<char, 4096> area;
    const ssize_t got = recv(fd, area.data(), area.size(), 0);
    if (got <= 0) {
        return false;
    }
    std::string& stream = streams_[fd];
    stream.append(area.data(), static_cast<std::size_t>(got));
    bool broken = false;
    while (const auto pack = bench::take_pack(stream, broken)) {
        if (pack->kind == bench::PackKind::report) {
            continue;
        }
        const std::string answer = bench::encode_pack(bench::PackKind::command, kPlatformAnswer);
        if (send(fd, answer.data(), answer.size(), MSG_NOSIGNAL) < 0) {
            return false;
        }
    }
    return !broken;
}

}  // namespace compare
