#include "system_calls.h"

#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <map>
#include <new>
#include <optional>

namespace {

struct Answer {
    int result;
    int error;
};

struct Script {
    std::map<Call, std::deque<Answer>> answers;
    std::map<Call, int> counts;
    std::map<std::string, std::string> connects;
    unsigned connect_length = 0;
};

Script& script() {
    thread_local Script made;
    return made;
}

std::optional<int> answered(Call call) {
    ++script().counts[call];
    auto& waiting = script().answers[call];
    if (waiting.empty())
        return std::nullopt;
    const Answer answer = waiting.front();
    waiting.pop_front();
    errno = answer.error;
    return answer.result;
}

thread_local constinit TakenCalls* t_taken = nullptr;

// The test's own function for a call, or null.
template <typename Function>
const Function* taken(Function TakenCalls::*call) {
    return t_taken != nullptr && t_taken->*call ? &(t_taken->*call) : nullptr;
}

}  // namespace

TakenCalls::TakenCalls() {
    t_taken = this;
}

TakenCalls::~TakenCalls() {
    t_taken = nullptr;
}

// What was called before does not count.
SystemCalls::SystemCalls() {
    script() = {};
}

SystemCalls::~SystemCalls() {
    script() = {};
}

void SystemCalls::answer(Call call, int result, int error) {
    script().answers[call].push_back({result, error});
}

int SystemCalls::count(Call call) const {
    const auto& counts = script().counts;
    const auto found = counts.find(call);
    return found == counts.end() ? 0 : found->second;
}

void SystemCalls::lead_connects(const std::string& path, const std::string& other) {
    script().connects[path] = other;
}

unsigned SystemCalls::connect_length() const {
    return script().connect_length;
}

// The names are the linker's: __wrap_NAME is called in place of NAME, which is __real_NAME.
extern "C" {

int __real_access(const char* path, int mode);
int __wrap_access(const char* path, int mode) {
    const auto given = answered(Call::access);
    return given ? *given : __real_access(path, mode);
}

int __real_sem_destroy(sem_t* semaphore);
int __wrap_sem_destroy(sem_t* semaphore) {
    const auto given = answered(Call::sem_destroy);
    return given ? *given : __real_sem_destroy(semaphore);
}

int __real_sem_init(sem_t* semaphore, int shared, unsigned value);
int __wrap_sem_init(sem_t* semaphore, int shared, unsigned value) {
    const auto given = answered(Call::sem_init);
    return given ? *given : __real_sem_init(semaphore, shared, value);
}

int __real_sem_wait(sem_t* semaphore);
int __wrap_sem_wait(sem_t* semaphore) {
    const auto given = answered(Call::sem_wait);
    return given ? *given : __real_sem_wait(semaphore);
}

using Entry = void* (*)(void*);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* how, Entry entry, void* arg);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* how, Entry entry, void* arg) {
    if (const auto* own = taken(&TakenCalls::pthread_create))
        return (*own)(thread, how, entry, arg);
    const auto given = answered(Call::pthread_create);
    return given ? *given : __real_pthread_create(thread, how, entry, arg);
}

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
    if (domain == AF_INET)
        if (const auto given = answered(Call::inet_socket))
            return *given;
    const auto given = answered(Call::socket);
    return given ? *given : __real_socket(domain, type, protocol);
}

int __real_setsockopt(int fd, int level, int name, const void* value, socklen_t size);
int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t size) {
    if (const auto* own = taken(&TakenCalls::setsockopt))
        return (*own)(fd, level, name, value, size);
    const auto given = answered(Call::setsockopt);
    return given ? *given : __real_setsockopt(fd, level, name, value, size);
}

int __real_bind(int fd, const sockaddr* address, socklen_t size);
int __wrap_bind(int fd, const sockaddr* address, socklen_t size) {
    const auto given = answered(Call::bind);
    return given ? *given : __real_bind(fd, address, size);
}

int __real_poll(pollfd* set, nfds_t count, int timeout);
int __wrap_poll(pollfd* set, nfds_t count, int timeout) {
    if (const auto* own = taken(&TakenCalls::poll))
        return (*own)(set, count, timeout);
    const auto given = answered(Call::poll);
    if (!given)
        return __real_poll(set, count, timeout);
    for (nfds_t at = 0; at < count; ++at) set[at].revents = *given > 0 ? set[at].events : short{0};
    return *given;
}

ssize_t __real_recv(int fd, void* area, size_t size, int flags);
ssize_t __wrap_recv(int fd, void* area, size_t size, int flags) {
    const auto given = answered(Call::recv);
    return given ? *given : __real_recv(fd, area, size, flags);
}

ssize_t __real_send(int fd, const void* bytes, size_t size, int flags);
ssize_t __wrap_send(int fd, const void* bytes, size_t size, int flags) {
    const auto given = answered(Call::send);
    return given ? *given : __real_send(fd, bytes, size, flags);
}

ssize_t __real_recvfrom(int fd, void* area, size_t size, int flags, sockaddr* from,
                        socklen_t* length);
ssize_t __wrap_recvfrom(int fd, void* area, size_t size, int flags, sockaddr* from,
                        socklen_t* length) {
    const auto given = answered(Call::recvfrom);
    return given && *given < 0 ? *given : __real_recvfrom(fd, area, size, flags, from, length);
}

ssize_t __real_sendto(int fd, const void* bytes, size_t size, int flags, const sockaddr* to,
                      socklen_t length);
ssize_t __wrap_sendto(int fd, const void* bytes, size_t size, int flags, const sockaddr* to,
                      socklen_t length) {
    const auto given = answered(Call::sendto);
    return given ? *given : __real_sendto(fd, bytes, size, flags, to, length);
}

int __real_unlink(const char* path);
int __wrap_unlink(const char* path) {
    const auto given = answered(Call::unlink);
    return given ? *given : __real_unlink(path);
}

// The mangled name of operator new(size_t, const std::nothrow_t&).
#if __SIZEOF_SIZE_T__ == 8
#define NOTHROW_NEW(prefix) prefix##_ZnwmRKSt9nothrow_t
#else
#define NOTHROW_NEW(prefix) prefix##_ZnwjRKSt9nothrow_t
#endif
void* NOTHROW_NEW(__real_)(size_t size, const std::nothrow_t& tag);
void* NOTHROW_NEW(__wrap_)(size_t size, const std::nothrow_t& tag) {
    const auto given = answered(Call::allocation);
    return given && *given < 0 ? nullptr : NOTHROW_NEW(__real_)(size, tag);
}

int __real_uname(utsname* names);
int __wrap_uname(utsname* names) {
    const auto given = answered(Call::uname);
    return given ? *given : __real_uname(names);
}

int __real_connect(int fd, const sockaddr* address, socklen_t size);
int __wrap_connect(int fd, const sockaddr* address, socklen_t size) {
    if (address->sa_family != AF_UNIX)
        return __real_connect(fd, address, size);
    script().connect_length = size;
    sockaddr_un other{};
    memcpy(&other, address, std::min<size_t>(size, sizeof other - 1));
    const auto found = script().connects.find(other.sun_path);
    if (found == script().connects.end())
        return __real_connect(fd, address, size);
    memset(other.sun_path, 0, sizeof other.sun_path);
    found->second.copy(other.sun_path, sizeof other.sun_path - 1);
    return __real_connect(fd, reinterpret_cast<const sockaddr*>(&other), sizeof other);
}

int __real_pthread_join(pthread_t thread, void** result);
int __wrap_pthread_join(pthread_t thread, void** result) {
    const auto* own = taken(&TakenCalls::pthread_join);
    return own != nullptr ? (*own)(thread) : __real_pthread_join(thread, result);
}

int __real_pthread_cond_signal(pthread_cond_t* cond);
int __wrap_pthread_cond_signal(pthread_cond_t* cond) {
    const auto* own = taken(&TakenCalls::pthread_cond_signal);
    return own != nullptr ? (*own)(cond) : __real_pthread_cond_signal(cond);
}

int __real_pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline);
int __wrap_pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline) {
    const auto* own = taken(&TakenCalls::pthread_cond_clockwait);
    return own != nullptr ? (*own)(cond, mutex, clock, deadline)
                          : __real_pthread_cond_clockwait(cond, mutex, clock, deadline);
}

int __real_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    const auto* own = taken(&TakenCalls::clock_gettime);
    return own != nullptr ? (*own)(clock, now) : __real_clock_gettime(clock, now);
}

int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    const auto* own = taken(&TakenCalls::pthread_mutex_unlock);
    return own != nullptr ? (*own)(mutex) : __real_pthread_mutex_unlock(mutex);
}

int __real_usleep(useconds_t microseconds);
int __wrap_usleep(useconds_t microseconds) {
    const auto* own = taken(&TakenCalls::usleep);
    return own != nullptr ? (*own)(microseconds) : __real_usleep(microseconds);
}

int __real_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    const auto* own = taken(&TakenCalls::ioctl);
    return own != nullptr ? (*own)(fd, request, argument) : __real_ioctl(fd, request, argument);
}

// Every command used here has an int or nothing behind it.
int __real_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const int argument = va_arg(arguments, int);
    va_end(arguments);
    const auto* own = taken(&TakenCalls::fcntl);
    return own != nullptr ? (*own)(fd, command, argument) : __real_fcntl(fd, command, argument);
}

ssize_t __real_read(int fd, void* area, std::size_t size);
ssize_t __wrap_read(int fd, void* area, std::size_t size) {
    const auto* own = taken(&TakenCalls::read);
    return own != nullptr ? (*own)(fd, area, size) : __real_read(fd, area, size);
}

ssize_t __real_write(int fd, const void* bytes, std::size_t size);
ssize_t __wrap_write(int fd, const void* bytes, std::size_t size) {
    const auto* own = taken(&TakenCalls::write);
    return own != nullptr ? (*own)(fd, bytes, size) : __real_write(fd, bytes, size);
}

FILE* __real_popen(const char* command, const char* mode);
FILE* __wrap_popen(const char* command, const char* mode) {
    const auto* own = taken(&TakenCalls::popen);
    return own != nullptr ? (*own)(command, mode) : __real_popen(command, mode);
}

int __real_pclose(FILE* pipe);
int __wrap_pclose(FILE* pipe) {
    const auto given = answered(Call::pclose);
    return given ? *given : __real_pclose(pipe);
}

int __real_tcsetattr(int fd, int action, const termios* settings);
int __wrap_tcsetattr(int fd, int action, const termios* settings) {
    const auto* own = taken(&TakenCalls::tcsetattr);
    return own != nullptr ? (*own)(fd, action, settings) : __real_tcsetattr(fd, action, settings);
}
}

int real_fcntl(int fd, int command, int argument) {
    return __real_fcntl(fd, command, argument);
}

FILE* real_popen(const char* command, const char* mode) {
    return __real_popen(command, mode);
}
