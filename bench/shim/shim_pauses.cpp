#include "shim_pauses.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <random>

namespace {

long g_longest_us = 0;

// Every thread draws for itself: a shared generator would order the threads it is to disturb.
std::minstd_rand& generator() {
    thread_local std::minstd_rand drawn(static_cast<unsigned>(syscall(SYS_gettid)) * 2654435761U +
                                        static_cast<unsigned>(time(nullptr)));
    return drawn;
}

}  // namespace

void bench::begin_pauses() {
    const char* longest = getenv("VEXA_PAUSES");
    g_longest_us = longest == nullptr ? 0 : strtol(longest, nullptr, 10);
}

void bench::RandomPauses::pause() {
    constexpr unsigned kOneOf = 4;  // pauses at every call would keep the order again
    if (g_longest_us <= 0 || generator()() % kOneOf != 0) {
        return;
    }
    const int error = errno;
    const auto drawn = static_cast<long>(generator()() % static_cast<unsigned long>(g_longest_us));
    const timespec length{drawn / 1'000'000, drawn % 1'000'000 * 1000};
    nanosleep(&length, nullptr);
    errno = error;
}
