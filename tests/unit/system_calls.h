// The C library as the daemon's code meets it in this program: calls that a test has an answer for
// never reach the kernel. The linker leads them here (--wrap), so the code under test is as it
// ships. Answers count for the calling thread only.
#pragma once

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <string>

enum class Call {
    access,
    pclose,
    sem_destroy,
    sem_init,
    sem_wait,
    pthread_create,
    inet_socket,  // a socket call for the Internet; what has no answer here is a `socket`
    socket,
    setsockopt,
    bind,
    poll,
    recv,
    recvfrom,
    send,
    sendto,
    uname,
    unlink,
    allocation,  // operator new that does not throw
};

// From its making to its end the thread's calls are answered as told.
class SystemCalls {
  public:
    SystemCalls();
    ~SystemCalls();
    SystemCalls(const SystemCalls&) = delete;
    SystemCalls& operator=(const SystemCalls&) = delete;

    // The next call that has no answer yet gives `result`, with errno set to `error`; the ones
    // after the last answer are real. A poll with a result above 0 is given what it asks for. A
    // recvfrom or an allocation fails with a result below 0 and is real with any other.
    void answer(Call call, int result, int error = 0);
    // How often it was called meanwhile, whoever answered.
    int count(Call call) const;
    // What connects to the UNIX socket at `path` comes out at `other`.
    void lead_connects(const std::string& path, const std::string& other);
    // The length of the address that the last connect to a UNIX socket gave.
    unsigned connect_length() const;
};

// Calls that a test does itself, in place of the system, on its own thread and while this lives.
// What is left empty is the system's.
struct TakenCalls {
    TakenCalls();
    ~TakenCalls();
    TakenCalls(const TakenCalls&) = delete;
    TakenCalls& operator=(const TakenCalls&) = delete;

    using ThreadEntry = void* (*)(void*);
    std::function<int(pthread_t*, const pthread_attr_t*, ThreadEntry, void*)> pthread_create;
    std::function<int(pthread_t)> pthread_join;
    std::function<int(pthread_cond_t*)> pthread_cond_signal;
    std::function<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)>
        pthread_cond_clockwait;
    std::function<int(clockid_t, timespec*)> clock_gettime;
    std::function<int(pthread_mutex_t*)> pthread_mutex_unlock;
    std::function<int(useconds_t)> usleep;
    std::function<int(int fd, unsigned long request, void* argument)> ioctl;
    std::function<int(int fd, int command, int argument)> fcntl;
    std::function<int(int fd, int level, int name, const void* value, socklen_t size)> setsockopt;
    std::function<FILE*(const char* command, const char* mode)> popen;
    std::function<ssize_t(int fd, void* area, std::size_t size)> read;
    std::function<ssize_t(int fd, const void* bytes, std::size_t size)> write;
    std::function<int(pollfd* set, nfds_t count, int timeout_ms)> poll;
    std::function<int(int fd, int action, const termios* settings)> tcsetattr;
};
int real_fcntl(int fd, int command, int argument);
FILE* real_popen(const char* command, const char* mode);
