#include "world.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

namespace world {
namespace {

constexpr int64_t kNsInMs = 1'000'000;
constexpr int64_t kNsInSecond = 1'000 * kNsInMs;
constexpr int64_t kStartNs = 1'700'000'000'000'000'123;  // any; the fuzzers' year does not matter
constexpr std::size_t kMostDescriptors = 100;
// So many waits for nothing in a row end a loop as one without end does.
constexpr int kMostIdlePolls = 8;

// A plain area: it has to be valid while libFuzzer's own start and end use the wrapped calls.
struct State {
    std::vector<Descriptor> descriptors;
    std::function<void()> reader;
    std::function<void(int)> after_socket;
    std::function<void(int)> after_bind;
    int64_t now_ns = kStartNs;
    int64_t answer_ns = 0;
    std::array<unsigned, kCalls> failing_uses{};
    int idle_polls = 0;
    bool can_leave = false;
    sigjmp_buf leave;
};
State& state() {
    static State* const one = new State;
    return *one;
}

// libFuzzer's own threads use the same calls.
thread_local bool t_is_inside = false;

bool is_ours(int fd) {
    return t_is_inside && fd >= kFirstDescriptor &&
           fd < kFirstDescriptor + static_cast<int>(state().descriptors.size());
}

[[noreturn]] void leave(End why) {
    if (!state().can_leave)
        fail(__FILE__, __LINE__, "a wait for input, or a stop, where none is expected");
    siglongjmp(state().leave, static_cast<int>(why));
}

bool takes_failure(Call call) {
    unsigned& uses = state().failing_uses[static_cast<std::size_t>(call)];
    const bool fails = (uses & 1) != 0;
    uses >>= 1;
    return fails;
}

int refuse(int error) {
    errno = error;
    return -1;
}

ssize_t take_written(int fd, const void* bytes, std::size_t size, const sockaddr_in& peer) {
    Descriptor& device = at(fd);
    HOLDS(device.is_open);
    std::size_t count = size;
    switch (device.fault) {
        case Fault::none:
            break;
        case Fault::short_writes:
            count = size - size / 2;
            break;
        case Fault::try_again:
            if (++device.refusals % 3 != 0)
                return refuse(EAGAIN);
            break;
        case Fault::stalled:
            return refuse(EAGAIN);
        case Fault::broken:
            return refuse(EPIPE);
    }
    device.written.push_back({{static_cast<const char*>(bytes), count}, peer, false});
    return static_cast<ssize_t>(count);
}

ssize_t give(int fd, void* area, std::size_t size, int flags, sockaddr_in* peer) {
    Descriptor& device = at(fd);
    HOLDS(device.is_open);
    if (device.incoming.empty() && device.is_hung_up)
        return 0;
    if (!device.incoming.empty() && device.incoming.front().is_silence) {
        device.incoming.pop_front();
        return refuse(EAGAIN);
    }
    const bool is_refused = (flags & MSG_DONTWAIT) != 0 || device.starves_with_error;
    if (device.incoming.empty() && is_refused)
        return refuse(EAGAIN);
    if (device.incoming.empty())
        leave(End::starved);
    const Message& message = device.incoming.front();
    const std::size_t count = std::min(size, message.bytes.size());
    const std::size_t whole = message.bytes.size();
    // Through ASan's eyes the whole area is the callee's to write.
    if (count > 0)
        memcpy(area, message.bytes.data(), count);
    if (peer != nullptr)
        *peer = message.peer;
    if ((flags & MSG_PEEK) == 0)
        device.incoming.pop_front();
    return static_cast<ssize_t>((flags & MSG_TRUNC) != 0 ? whole : count);
}

short ready_events(const pollfd& entry) {
    if (!is_ours(entry.fd))
        return 0;
    const Descriptor& device = at(entry.fd);
    if (!device.is_open)
        return POLLNVAL;
    short events = 0;
    if (!device.incoming.empty())
        events |= POLLIN;
    else if (device.is_hung_up)
        events |= POLLIN | POLLHUP;
    return static_cast<short>(events & (entry.events | POLLHUP | POLLNVAL));
}

}  // namespace

std::string Descriptor::all_written() const {
    std::string all;
    for (const Message& message : written) all += message.bytes;
    return all;
}

Run::Run() {
    State& now = state();
    now.descriptors.clear();
    now.descriptors.reserve(kMostDescriptors);  // references stay valid
    now.reader = nullptr;
    now.after_socket = nullptr;
    now.after_bind = nullptr;
    now.now_ns = kStartNs;
    now.answer_ns = 0;
    now.failing_uses = {};
    now.idle_polls = 0;
    now.can_leave = false;
    t_is_inside = true;
}

Run::~Run() {
    t_is_inside = false;
}

int open_descriptor() {
    std::vector<Descriptor>& all = state().descriptors;
    if (all.size() == kMostDescriptors)
        return -1;
    all.emplace_back();
    return kFirstDescriptor + static_cast<int>(all.size()) - 1;
}

int next_descriptor() {
    return kFirstDescriptor + static_cast<int>(state().descriptors.size());
}

void on_socket(std::function<void(int)> then) {
    state().after_socket = std::move(then);
}

void on_bind(std::function<void(int)> then) {
    state().after_bind = std::move(then);
}

Descriptor& at(int fd) {
    return state().descriptors.at(static_cast<std::size_t>(fd - kFirstDescriptor));
}

bool is_open(int fd) {
    return is_ours(fd) && at(fd).is_open;
}

void advance_ms(int64_t ms) {
    state().now_ns += ms * kNsInMs;
}

void fail_next(Call call, unsigned uses) {
    state().failing_uses[static_cast<std::size_t>(call)] = uses;
}

void on_wait(std::function<void()> reader) {
    state().reader = std::move(reader);
}

void answer_after_ms(int64_t ms) {
    state().answer_ns = ms * kNsInMs;
}

End run(const std::function<void()>& body) {
    const auto why = static_cast<End>(sigsetjmp(state().leave, 0));
    if (why == End::returned) {
        state().can_leave = true;
        body();
    }
    state().can_leave = false;
    return why;
}

bool is_free(pthread_mutex_t* mutex) {
    if (pthread_mutex_trylock(mutex) != 0)
        return false;
    pthread_mutex_unlock(mutex);
    return true;
}

void fail(const char* file, int line, const char* what) {
    t_is_inside = false;
    fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
    abort();
}

}  // namespace world

// The linker's names for the wrapped calls.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl50-cpp)
using world::at;
using world::is_ours;
using world::state;
using world::t_is_inside;

extern "C" {
ssize_t __real_write(int fd, const void* bytes, size_t size);
ssize_t __real_send(int fd, const void* bytes, size_t size, int flags);
ssize_t __real_sendto(int fd, const void* bytes, size_t size, int flags, const sockaddr* peer,
                      socklen_t peer_size);
ssize_t __real_read(int fd, void* area, size_t size);
ssize_t __real_recv(int fd, void* area, size_t size, int flags);
ssize_t __real_recvfrom(int fd, void* area, size_t size, int flags, sockaddr* peer,
                        socklen_t* peer_size);
int __real_close(int fd);
int __real_shutdown(int fd, int how);
int __real_socket(int domain, int type, int protocol);
int __real_bind(int fd, const sockaddr* address, socklen_t size);
int __real_connect(int fd, const sockaddr* address, socklen_t size);
int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t size);
int __real_poll(pollfd* entries, nfds_t count, int timeout_ms);
unsigned __real_sleep(unsigned seconds);
int __real_usleep(useconds_t microseconds);
int __real_gettimeofday(timeval* now, void* zone);
int __real_clock_gettime(clockid_t clock, timespec* now);
int __real_pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline);
[[noreturn]] void __real_abort();

ssize_t __wrap_write(int fd, const void* bytes, size_t size) {
    return is_ours(fd) ? world::take_written(fd, bytes, size, {}) : __real_write(fd, bytes, size);
}

ssize_t __wrap_send(int fd, const void* bytes, size_t size, int flags) {
    return is_ours(fd) ? world::take_written(fd, bytes, size, {})
                       : __real_send(fd, bytes, size, flags);
}

ssize_t __wrap_sendto(int fd, const void* bytes, size_t size, int flags, const sockaddr* peer,
                      socklen_t peer_size) {
    if (!is_ours(fd))
        return __real_sendto(fd, bytes, size, flags, peer, peer_size);
    HOLDS(peer_size == sizeof(sockaddr_in));
    return world::take_written(fd, bytes, size, *reinterpret_cast<const sockaddr_in*>(peer));
}

ssize_t __wrap_read(int fd, void* area, size_t size) {
    return is_ours(fd) ? world::give(fd, area, size, 0, nullptr) : __real_read(fd, area, size);
}

ssize_t __wrap_recv(int fd, void* area, size_t size, int flags) {
    return is_ours(fd) ? world::give(fd, area, size, flags, nullptr)
                       : __real_recv(fd, area, size, flags);
}

ssize_t __wrap_recvfrom(int fd, void* area, size_t size, int flags, sockaddr* peer,
                        socklen_t* peer_size) {
    if (!is_ours(fd))
        return __real_recvfrom(fd, area, size, flags, peer, peer_size);
    *peer_size = sizeof(sockaddr_in);
    return world::give(fd, area, size, flags, reinterpret_cast<sockaddr_in*>(peer));
}

int __wrap_close(int fd) {
    if (!is_ours(fd))
        return __real_close(fd);
    HOLDS(at(fd).is_open);
    at(fd).is_open = false;
    return 0;
}

int __wrap_shutdown(int fd, int how) {
    if (!is_ours(fd))
        return __real_shutdown(fd, how);
    at(fd).is_hung_up = true;
    at(fd).incoming.clear();
    return 0;
}

int __wrap_socket(int domain, int type, int protocol) {
    if (!t_is_inside)
        return __real_socket(domain, type, protocol);
    if (world::takes_failure(world::Call::socket))
        return world::refuse(EMFILE);
    const int fd = world::open_descriptor();
    if (fd < 0)
        return world::refuse(EMFILE);
    if (state().after_socket)
        std::exchange(state().after_socket, nullptr)(fd);
    return fd;
}

int __wrap_bind(int fd, const sockaddr* address, socklen_t size) {
    if (!is_ours(fd))
        return __real_bind(fd, address, size);
    if (world::takes_failure(world::Call::bind))
        return world::refuse(EADDRINUSE);
    if (state().after_bind)
        std::exchange(state().after_bind, nullptr)(fd);
    return 0;
}

int __wrap_connect(int fd, const sockaddr* address, socklen_t size) {
    if (!is_ours(fd))
        return __real_connect(fd, address, size);
    return world::takes_failure(world::Call::connect) ? world::refuse(ECONNREFUSED) : 0;
}

int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t size) {
    if (!is_ours(fd))
        return __real_setsockopt(fd, level, name, value, size);
    return world::takes_failure(world::Call::setsockopt) ? world::refuse(ENOMEM) : 0;
}

int __wrap_poll(pollfd* entries, nfds_t count, int timeout_ms) {
    if (!t_is_inside)
        return __real_poll(entries, count, timeout_ms);
    int ready = 0;
    for (nfds_t i = 0; i < count; ++i) {
        entries[i].revents = world::ready_events(entries[i]);
        ready += entries[i].revents != 0 ? 1 : 0;
    }
    if (ready > 0)
        state().idle_polls = 0;
    if (ready > 0 || timeout_ms == 0)
        return ready;
    if (timeout_ms < 0 || ++state().idle_polls > world::kMostIdlePolls)
        world::leave(world::End::starved);
    world::advance_ms(timeout_ms);
    return 0;
}

unsigned __wrap_sleep(unsigned seconds) {
    if (!t_is_inside)
        return __real_sleep(seconds);
    world::advance_ms(int64_t{seconds} * 1000);
    return 0;
}

int __wrap_usleep(useconds_t microseconds) {
    if (!t_is_inside)
        return __real_usleep(microseconds);
    state().now_ns += int64_t{microseconds} * 1000;
    return 0;
}

int __wrap_gettimeofday(timeval* now, void* zone) {
    if (!t_is_inside)
        return __real_gettimeofday(now, zone);
    *now = {state().now_ns / 1'000'000'000, state().now_ns % 1'000'000'000 / 1000};
    return 0;
}

// The real-time clock stays real for libFuzzer's watch over a hang, which looks in from a signal.
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    if (!t_is_inside || clock != CLOCK_MONOTONIC)
        return __real_clock_gettime(clock, now);
    *now = {state().now_ns / 1'000'000'000, state().now_ns % 1'000'000'000};
    return 0;
}

int __wrap_pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline) {
    if (!t_is_inside)
        return __real_pthread_cond_clockwait(cond, mutex, clock, deadline);
    HOLDS(clock == CLOCK_MONOTONIC);
    HOLDS(deadline->tv_nsec >= 0 && deadline->tv_nsec < 1'000'000'000);
    const int64_t longest =
        deadline->tv_sec * world::kNsInSecond + deadline->tv_nsec - state().now_ns;
    HOLDS(longest == 5 * world::kNsInSecond || longest == 10 * world::kNsInSecond);
    HOLDS(!world::is_free(mutex));
    pthread_mutex_unlock(mutex);
    if (state().reader)
        state().reader();
    const int64_t waited = std::min(state().answer_ns, longest);
    state().now_ns += waited;
    pthread_mutex_lock(mutex);
    return waited < longest ? 0 : ETIMEDOUT;
}

[[noreturn]] void __wrap_abort() {
    if (t_is_inside && state().can_leave)
        world::leave(world::End::stopped);
    t_is_inside = false;
    __real_abort();
}

// What the daemon says on its way out is not the fuzzer's output.
__attribute__((format(printf, 2, 3))) int __wrap_fprintf(FILE* stream, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char text[256];
    const int length = t_is_inside ? vsnprintf(text, sizeof text, format, arguments)
                                   : vfprintf(stream, format, arguments);
    va_end(arguments);
    return length;
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl50-cpp)
