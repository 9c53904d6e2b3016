// The least that carries bytes between two devices: two threads, each polls, reads and writes.
// --resting: as the daemon must, with a rest of 1 ms behind each chunk to the first device.
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string_view>
#include <thread>

namespace {

constexpr std::size_t kMostAtOnce = 16384;
constexpr useconds_t kRestUs = 1000;

bool write_whole(int fd, const char* bytes, std::size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, bytes, size);
        if (written <= 0)
            return false;
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

void carry(int from, int to, bool rests) {
    if (rests)
        prctl(PR_SET_TIMERSLACK, 1UL);  // as the daemon's threads
    std::array<char, kMostAtOnce> bytes;
    for (;;) {
        pollfd ready{from, POLLIN, 0};
        if (poll(&ready, 1, -1) < 0)
            return;
        const ssize_t size = read(from, bytes.data(), bytes.size());
        if (size <= 0 || !write_whole(to, bytes.data(), static_cast<std::size_t>(size)))
            return;
        if (rests)
            usleep(kRestUs);
    }
}

int open_device(const char* path) {
    const int fd = open(path, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        perror(path);
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    const bool rests = argc == 4 && std::string_view(argv[1]) == "--resting";
    if (argc != 3 && !rests) {
        fprintf(stderr, "usage: vexa-plain-bridge [--resting] DEVICE DEVICE\n");
        return 2;
    }
    const int first = open_device(argv[argc - 2]);
    const int second = open_device(argv[argc - 1]);
    if (first < 0 || second < 0)
        return 1;
    std::thread back([=] { carry(second, first, rests); });
    carry(first, second, false);
    back.join();
    return 1;
}
