#include "ports.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace compare {

namespace {

constexpr int kDeadlineMs = 60'000;
constexpr std::size_t kMostAtOnce = 65536;

std::size_t take_into(int fd, char* area, std::size_t size, const char* what) {
    pollfd ready{fd, POLLIN, 0};
    if (poll(&ready, 1, kDeadlineMs) <= 0) {
        throw Trouble(std::string("waited in vain for ") + what);
    }
    const ssize_t got = read(fd, area, size);
    if (got <= 0) {
        throw Trouble(std::string("reading ") + what + ": " + strerror(got == 0 ? EIO : errno));
    }
    return static_cast<std::size_t>(got);
}

}  // namespace

int64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

void make_blocking(int fd) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
}

void write_whole(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            throw Trouble(std::string("writing: ") + strerror(errno));
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}

std::string take_some(int fd, std::size_t most, const char* what) {
    std::string bytes(most, '\0');
    bytes.resize(take_into(fd, bytes.data(), bytes.size(), what));
    return bytes;
}

std::string take_until(int fd, std::string_view end, const char* what) {
    std::string text;
    std::array<char, 4096> area;
    while (!text.ends_with(end)) {
        text.append(area.data(), take_into(fd, area.data(), area.size(), what));
    }
    return text;
}

void take_count(int fd, std::size_t count, const char* what) {
    static thread_local std::array<char, kMostAtOnce> area;
    while (count > 0) {
        count -= take_into(fd, area.data(), std::min(count, area.size()), what);
    }
}

void drain(int fd) {
    std::array<char, 4096> area;
    pollfd ready{fd, POLLIN, 0};
    while (poll(&ready, 1, 0) > 0 && read(fd, area.data(), area.size()) > 0) {
    }
}

}  // namespace compare
