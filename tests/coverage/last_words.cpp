// Part of the coverage preset only. A program's counters are written when it returns, and the
// daemon ends otherwise: told to, or by abort(). So here those signals write them first.
#include <signal.h>
#include <unistd.h>

extern "C" void __gcov_dump(void);  // libgcov; it merges into the files under a lock of theirs

namespace {

constexpr unsigned kPatience = 30;  // seconds, should the signal have come within an allocation

// The main thread takes it, which sleeps for ever once the daemon is up and so holds no lock of the
// C library.
void write_counters_and_end(int number) {
    alarm(kPatience);
    __gcov_dump();
    _exit(128 + number);
}

// abort() goes on to end the program.
void write_counters(int /*number*/) {
    __gcov_dump();
}

[[gnu::constructor]] void listen_for_the_end() {
    signal(SIGTERM, write_counters_and_end);
    signal(SIGABRT, write_counters);
}

}  // namespace
