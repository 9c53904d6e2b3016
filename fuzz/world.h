// The system calls of the code under test, served from memory: descriptors, a clock, waits that
// cost no time. The linker leads the calls here (--wrap, CMakeLists.txt); outside a Run, and for
// numbers below kFirstDescriptor, they are the C library's own.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace world {

// Below FD_SETSIZE, beyond what a fuzzer really opens.
inline constexpr int kFirstDescriptor = 900;

enum class Fault : uint8_t {
    none,
    short_writes,  // half of what is asked for, at least one byte
    try_again,     // EAGAIN twice before each write
    stalled,       // EAGAIN for ever
    broken,        // EPIPE
};
inline constexpr int kFaults = 5;

struct Message {
    std::string bytes;
    sockaddr_in peer{};
    bool is_silence = false;  // for a reader: a wait that ends with EAGAIN
};

struct Descriptor {
    std::deque<Message> incoming;  // one for each read
    std::vector<Message> written;  // one for each write
    Fault fault = Fault::none;
    int refusals = 0;  // EAGAINs of `try_again` so far
    bool is_open = true;
    bool is_hung_up = false;
    bool starves_with_error = false;  // nothing to read is EAGAIN also for a reader that waits
    [[nodiscard]] std::string all_written() const;
};

// One execution. What is fed and set does not outlive it.
class Run {
  public:
    Run();
    ~Run();
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;
};

int open_descriptor();
// What the next socket(2) gives. Once it has, or bind(2) was happy, this is done with it.
int next_descriptor();
void on_socket(std::function<void(int)> then);
void on_bind(std::function<void(int)> then);
Descriptor& at(int fd);
[[nodiscard]] bool is_open(int fd);

void advance_ms(int64_t ms);
// Which of a call's next uses fail: a bit for each, the lowest for the first.
enum class Call : uint8_t { socket, bind, setsockopt, connect };
inline constexpr int kCalls = 4;
void fail_next(Call call, unsigned uses);
// Called in the middle of every wait for an answer, with the wait's mutex free, as a reader is.
void on_wait(std::function<void()> reader);
// How long the next waits take before they are woken; those beyond the deadline time out.
void answer_after_ms(int64_t ms);

enum class End {
    returned,
    starved,  // it waits for input, and there is none left
    stopped,  // it stopped the process on purpose
};
// Runs an endless loop until there is nothing to read, or a function that may stop the process.
// Nothing that needs a destructor may be alive in `body` where it waits.
End run(const std::function<void()>& body);

[[nodiscard]] bool is_free(pthread_mutex_t* mutex);

// Ends the fuzzer with a finding.
[[noreturn]] void fail(const char* file, int line, const char* what);

}  // namespace world

// A property of the code under test.
#define HOLDS(condition)                                 \
    do {                                                 \
        if (!(condition))                                \
            world::fail(__FILE__, __LINE__, #condition); \
    } while (false)
