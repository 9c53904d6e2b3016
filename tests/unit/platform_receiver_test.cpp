// How the platform receiver begins and how it takes a broken connection. It never returns, so each
// test has one in a process of its own.
#include "platform_receiver.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "platform_link.h"
#include "platform_pack.h"
#include "port_state.h"
#include "shared_int.h"
#include "system_calls.h"
#include "vexa_socket_client.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kNeverMs = 100;
constexpr int kDeadlineMs = 60'000;

constexpr std::array<int (*)(), kPortCount> kOpeners = {
    init_socket_client, init_socket_client_atport, init_socket_client_uartport};

void send_answer(int connection, std::string_view text) {
    std::array<char, 128> area{};
    const std::size_t size = build_pack(area, CMD_IND, text);
    if (write(connection, area.data(), size) < 0)
        _exit(90);
}

// The three connections and host ports; leaves the process with a number that says what failed.
class Link {
  public:
    Link() {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        for (const PortRecord& port : g_ports) {
            End& end = ends_[static_cast<std::size_t>(port.index)];
            make_pair(end.connection);
            make_pair(end.host);
            store_shared(port.platform_socket, -1);  // not what another test left
            thread_info_t& bridge = bridges_[static_cast<std::size_t>(port.index)];
            bridge.to_file_path = port.host_path;
            bridge.to_fd = end.host.data();
            bridge.to_mutex = &end.host_mutex;
        }
    }
    void connect(PortIndex port) {
        store_shared(g_ports[port].platform_socket, ends_[port].connection[0]);
    }
    void connect_all_but(PortIndex left_out) {
        for (const PortRecord& port : g_ports)
            if (port.index != left_out)
                connect(port.index);
    }
    // What the receiver's thread calls is answered or done as `prepare` says.
    void start_receiver(const std::function<void(SystemCalls&, TakenCalls&)>& prepare =
                            [](SystemCalls&, TakenCalls&) {}) {
        std::thread([this, prepare] {
            SystemCalls system;
            TakenCalls taken;
            prepare(system, taken);
            recv_data_handler(bridges_.data());
        }).detach();
    }
    [[nodiscard]] int host(PortIndex port) const { return ends_[port].host[0]; }
    void platform_answers(PortIndex port, std::string_view text) {
        send_answer(ends_[port].connection[1], text);
    }
    bool is_heard(PortIndex port, int at_most_ms) {
        pollfd entry{ends_[port].host[1], POLLIN, 0};
        return poll(&entry, 1, at_most_ms) == 1;
    }
    // With bytes unread, which makes the other end's hang-up an error as well.
    void break_connection(PortIndex port) {
        if (write(ends_[port].connection[0], "unread", 6) < 0)
            _exit(91);
        close(ends_[port].connection[1]);
    }

  private:
    struct End {
        std::array<int, 2> connection;
        std::array<int, 2> host;
        pthread_mutex_t host_mutex = PTHREAD_MUTEX_INITIALIZER;
    };
    static void make_pair(std::array<int, 2>& ends) {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
            _exit(92);
    }

    std::array<End, kPortCount> ends_{};
    std::array<thread_info_t, kPortCount> bridges_{};
};

// A platform that listens; the daemon's connections come here when they are led to its name.
class Platform {
  public:
    Platform() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name().copy(address.sun_path, sizeof address.sun_path - 1);
        if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            listen(listener_, kPortCount) != 0)
            _exit(93);
    }
    // Of this process alone, and no file.
    static std::string name() {
        return std::string(1, '\0') + "vexa platform " + std::to_string(getpid());
    }
    static void lead(SystemCalls& system) { system.lead_connects(kPlatformSocketPath, name()); }
    // The next connection, after its port report; ends the process when it is not this port's.
    [[nodiscard]] int accept(PortIndex port) const {
        pollfd entry{listener_, POLLIN, 0};
        if (poll(&entry, 1, kDeadlineMs) != 1)
            _exit(94);
        const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        const auto expected = build_port_report(g_ports[port].platform_name);
        std::array<char, kPortReportSize> report{};
        if (recv(connection, report.data(), report.size(), MSG_WAITALL) != kPortReportSize ||
            !std::equal(report.begin(), report.end(), expected.begin()))
            _exit(95);
        return connection;
    }

  private:
    int listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

// What a host reader does at its start, while the system has no socket left.
void open_without_socket(PortIndex port) {
    SystemCalls system;
    system.answer(Call::socket, -1, ENFILE);
    if (kOpeners[port]() != kNoSocket || load_shared(g_ports[port].platform_socket) != -1)
        _exit(96);
}

[[noreturn]] void begin_with(PortIndex first, PortIndex second) {
    Link& link = *new Link;  // the receiver outlives this function
    link.connect(kUartPort);
    link.connect(first);
    link.start_receiver();
    link.platform_answers(first, "x");
    if (link.is_heard(first, kNeverMs))
        _exit(1);
    link.connect(second);
    _exit(link.is_heard(first, kDeadlineMs) ? 0 : 2);
}

TEST(ReceiverStartDeathTest, NothingIsServedBeforeTheModemAndTheAtPortAreConnected) {
    EXPECT_EXIT(begin_with(kModemPort, kAtPort), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(begin_with(kAtPort, kModemPort), testing::ExitedWithCode(0), "");
}

[[noreturn]] void begin_with_none() {
    Link& link = *new Link;
    if (freopen("/dev/null", "w", stdout) == nullptr)
        _exit(97);
    link.start_receiver([](SystemCalls&, TakenCalls& taken) {
        taken.usleep = [pauses = 0](useconds_t microseconds) mutable {
            fprintf(stderr, "pause %u;", static_cast<unsigned>(microseconds));
            if (++pauses == 2)
                _exit(0);
            return 0;
        };
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(kDeadlineMs));
    _exit(1);
}

TEST(ReceiverStartDeathTest, TheConnectionsAreLookedForEveryHalfSecond) {
    EXPECT_EXIT(begin_with_none(), testing::ExitedWithCode(0), "^pause 500000;pause 500000;$");
}

[[noreturn]] void begin_refused_with(PortIndex first, PortIndex second) {
    Link& link = *new Link;
    link.connect(kUartPort);
    open_without_socket(first);
    link.start_receiver();
    link.platform_answers(kUartPort, "x");
    if (link.is_heard(kUartPort, kNeverMs))
        _exit(1);
    link.connect(second);
    _exit(link.is_heard(kUartPort, kDeadlineMs) ? 0 : 2);
}

TEST(ReceiverStartDeathTest, AFailedOpenIsNotWaitedForButTheOtherPortsIs) {
    EXPECT_EXIT(begin_refused_with(kModemPort, kAtPort), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(begin_refused_with(kAtPort, kModemPort), testing::ExitedWithCode(0), "");
}

// The receiver's own first attempt has no socket either.
[[noreturn]] void begin_without_socket(PortIndex port) {
    Link& link = *new Link;
    const Platform platform;
    link.connect_all_but(port);
    const auto start = Clock::now();
    open_without_socket(port);
    link.start_receiver([](SystemCalls& system, TakenCalls&) {
        Platform::lead(system);
        system.answer(Call::socket, -1, ENFILE);
    });
    const int connection = platform.accept(port);
    if (Clock::now() - start < 1990ms)  // the receiver counts whole milliseconds
        _exit(1);
    send_answer(connection, "x");
    const bool is_served = link.is_heard(port, kDeadlineMs);
    fflush(stdout);
    _exit(is_served ? 0 : 2);
}

TEST(ReceiverStartDeathTest, AFailedOpenIsTriedAgainEverySecond) {
    constexpr std::array<const char*, kPortCount> names = {"modem port", "at port", "uart port"};
    for (const PortRecord& port : g_ports) {
        const std::string name = names[static_cast<std::size_t>(port.index)];
        EXPECT_EXIT(begin_without_socket(port.index), testing::ExitedWithCode(0),
                    "client socket failed, info:Too many open files in system,\r\n.*"
                    "client socket failed, info:Too many open files in system,\r\n.*"
                    "new connection " +
                        name + " is failed\\.\\(m_fd:.*new connection is " + name + " OK again");
    }
}

// By a clock that stands, so that the time-out is the whole of it.
[[noreturn]] void poll_without_socket() {
    Link& link = *new Link;
    if (freopen("/dev/null", "w", stdout) == nullptr)
        _exit(97);
    link.connect_all_but(kUartPort);
    open_without_socket(kUartPort);
    link.start_receiver([](SystemCalls&, TakenCalls& taken) {
        taken.clock_gettime = [](clockid_t, timespec* now) {
            *now = {5, 0};
            return 0;
        };
        taken.poll = [](pollfd*, nfds_t, int timeout_ms) -> int {
            fprintf(stderr, "poll for %d ms", timeout_ms);
            _exit(0);
        };
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(kDeadlineMs));
    _exit(1);
}

TEST(ReceiverStartDeathTest, AFailedOpenIsDueAgainInASecond) {
    EXPECT_EXIT(poll_without_socket(), testing::ExitedWithCode(0), "^poll for 1000 ms$");
}

// The receiver is in its poll already.
[[noreturn]] void fail_late_uart() {
    Link& link = *new Link;
    const Platform platform;
    link.connect_all_but(kUartPort);
    link.start_receiver([](SystemCalls& system, TakenCalls&) { Platform::lead(system); });
    link.platform_answers(kAtPort, "x");
    if (!link.is_heard(kAtPort, kDeadlineMs))
        _exit(1);
    open_without_socket(kUartPort);
    send_answer(platform.accept(kUartPort), "x");
    _exit(link.is_heard(kUartPort, kDeadlineMs) ? 0 : 2);
}

// A process that has no descriptor for a socket has none for the receiver's wake-up either.
[[noreturn]] void fail_late_uart_without_any_descriptor() {
    Link& link = *new Link;
    const Platform platform;
    link.connect_all_but(kUartPort);
    // The thread is there before: the sanitizer's look at an object of a thread wants a descriptor.
    static std::atomic<bool> has_none;
    link.start_receiver([](SystemCalls& system, TakenCalls&) {
        Platform::lead(system);
        while (!has_none) std::this_thread::yield();
    });
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {16, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    while (dup(STDERR_FILENO) >= 0) {
    }
    has_none = true;
    link.platform_answers(kAtPort, "x");
    if (!link.is_heard(kAtPort, kDeadlineMs))
        _exit(1);
    if (init_socket_client_uartport() != kNoSocket)
        _exit(2);
    setrlimit(RLIMIT_NOFILE, &limit);
    send_answer(platform.accept(kUartPort), "x");
    _exit(link.is_heard(kUartPort, kDeadlineMs) ? 0 : 3);
}

TEST(ReceiverStartDeathTest, AFailedOpenOfALateUartIsTriedAgain) {
    EXPECT_EXIT(fail_late_uart(), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(fail_late_uart_without_any_descriptor(), testing::ExitedWithCode(0), "");
}

[[noreturn]] void begin_without_uart() {
    Link& link = *new Link;
    link.connect(kModemPort);
    link.connect(kAtPort);
    link.start_receiver();
    link.platform_answers(kAtPort, "x");
    _exit(link.is_heard(kAtPort, kDeadlineMs) ? 0 : 1);
}

TEST(ReceiverStartDeathTest, TheUartsConnectionIsNotWaitedFor) {
    EXPECT_EXIT(begin_without_uart(), testing::ExitedWithCode(0), "");
}

// The poll that is on its way knows nothing of the UART's connection and has no time-out.
[[noreturn]] void open_uart_during_the_poll() {
    Link& link = *new Link;
    const Platform platform;
    link.connect_all_but(kUartPort);
    static std::atomic<bool> is_polling;
    static std::atomic<int> wake_ups_read;  // one that is not keeps the poll awake
    link.start_receiver([](SystemCalls&, TakenCalls& taken) {
        taken.read = [](int fd, void* area, std::size_t size) {
            const iovec place = {area, size};
            const ssize_t length = readv(fd, &place, 1);  // not one of the taken calls
            if (fd == platform_wake_descriptor() && length > 0)
                ++wake_ups_read;
            return length;
        };
        taken.poll = [](pollfd* set, nfds_t count, int timeout_ms) {
            if (timeout_ms != -1)
                _exit(1);
            is_polling = set[kUartPort].fd < 0;
            return ppoll(set, count, nullptr, nullptr);  // nor is this
        };
    });
    for (const auto limit = Clock::now() + std::chrono::milliseconds(kDeadlineMs);
         !is_polling && Clock::now() < limit;)
        std::this_thread::yield();
    SystemCalls system;
    Platform::lead(system);
    if (init_socket_client_uartport() != 0)
        _exit(2);
    send_answer(platform.accept(kUartPort), "x");
    if (!link.is_heard(kUartPort, kDeadlineMs))
        _exit(3);
    _exit(wake_ups_read > 0 ? 0 : 4);
}

TEST(ReceiverStartDeathTest, AUartThatIsConnectedLateIsHeardAtOnce) {
    EXPECT_EXIT(open_uart_during_the_poll(), testing::ExitedWithCode(0), "");
}

timespec now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time;
}

// In nanoseconds.
int64_t between(const timespec& from, const timespec& until) {
    return int64_t{until.tv_sec - from.tv_sec} * 1'000'000'000 + until.tv_nsec - from.tv_nsec;
}

const char* name_of(PortIndex port, const pthread_cond_t* cond) {
    if (cond == &g_cond_ap_with_cp)
        return "both";
    return cond == &g_ports[port].response_cond ? "port" : "another";
}

void tell_wait(const pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t clock,
               const timespec& begin, const timespec& deadline) {
    constexpr int64_t kFiveSeconds = 5'000'000'000;
    const bool is_right = cond == &g_cond_ap_with_cp && mutex == &g_mut_ap_with_cp &&
                          clock == CLOCK_MONOTONIC && pthread_mutex_trylock(mutex) == EBUSY &&
                          between(begin, deadline) >= kFiveSeconds &&
                          between(now(), deadline) <= kFiveSeconds;
    fputs(is_right ? "wait 5 s for CP;" : "another wait;", stderr);
}

// Tells on stderr what the receiver does with one answer.
[[noreturn]] void take_one_answer(PortIndex port, bool is_awaited_from_cp) {
    Link& link = *new Link;
    if (freopen("/dev/null", "w", stdout) == nullptr)
        _exit(97);
    for (const PortRecord& record : g_ports) link.connect(record.index);
    store_shared(g_ports[port].send_done, is_awaited_from_cp ? 1 : 0);
    link.platform_answers(port, "x");
    link.start_receiver([&link, port, begin = now()](SystemCalls&, TakenCalls& taken) {
        taken.poll = [polls = 0](pollfd* set, nfds_t count, int) mutable {
            if (++polls == 2) {
                fputs("end", stderr);
                _exit(0);
            }
            return ppoll(set, count, nullptr, nullptr);
        };
        taken.pthread_cond_clockwait = [begin](pthread_cond_t* cond, pthread_mutex_t* mutex,
                                               clockid_t clock, const timespec* deadline) {
            tell_wait(cond, mutex, clock, begin, *deadline);
            return 0;
        };
        taken.write = [host = link.host(port)](int fd, const void*, std::size_t size) {
            fprintf(stderr, "%s %zu;", fd == host ? "host" : "another", size);
            return static_cast<ssize_t>(size);
        };
        taken.usleep = [](useconds_t microseconds) {
            fprintf(stderr, "pause %u;", static_cast<unsigned>(microseconds));
            return 0;
        };
        taken.pthread_cond_signal = [port](pthread_cond_t* cond) {
            fprintf(stderr, "signal %s;", name_of(port, cond));
            return 0;
        };
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(kDeadlineMs));
    _exit(1);
}

TEST(ReceiverStepsDeathTest, AnAnswerIsWrittenThenThePortIsSignalledAfterAPause) {
    for (const PortRecord& port : g_ports)
        EXPECT_EXIT(take_one_answer(port.index, false), testing::ExitedWithCode(0),
                    "^host 1;pause 1000;signal port;end$");
}

TEST(ReceiverStepsDeathTest, AnAnswerGoesOnWhenTheWaitForTheModemEnds) {
    for (const PortRecord& port : g_ports)
        EXPECT_EXIT(take_one_answer(port.index, true), testing::ExitedWithCode(0),
                    "^wait 5 s for CP;host 1;pause 1000;signal port;end$");
}

[[noreturn]] void break_one(PortIndex port) {
    Link& link = *new Link;
    for (const PortRecord& record : g_ports) link.connect(record.index);
    link.break_connection(port);
    const int broken = load_shared(g_ports[port].platform_socket);
    link.start_receiver();
    for (const auto limit = Clock::now() + std::chrono::milliseconds(kDeadlineMs);
         load_shared(g_ports[port].platform_socket) == broken && Clock::now() < limit;)
        std::this_thread::yield();
    fflush(stdout);
    _exit(load_shared(g_ports[port].platform_socket) == broken ? 1 : 0);
}

TEST(ReceiverStartDeathTest, AnErrorOnAConnectionIsLoggedAndItsHangUpClosesIt) {
    EXPECT_EXIT(break_one(kModemPort), testing::ExitedWithCode(0),
                "POLLERR is err\\(mport\\)\\.\r\n.*POLLHUP is hang up\\(mport\\), close socket it");
    EXPECT_EXIT(break_one(kAtPort), testing::ExitedWithCode(0),
                "POLLERR is err\\(atport\\)\\.\r\n");
    EXPECT_EXIT(break_one(kUartPort), testing::ExitedWithCode(0),
                "POLLERR is err\\(uartport\\)\\.\r\n");
}

}  // namespace
