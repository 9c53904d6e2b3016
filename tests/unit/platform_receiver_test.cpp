// How the platform receiver begins and how it takes a broken connection. It never returns, so each
// test has one in a process of its own.
#include "platform_receiver.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <string_view>
#include <thread>

#include "platform_pack.h"
#include "port_state.h"
#include "shared_int.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kNeverMs = 100;
constexpr int kDeadlineMs = 60'000;

// The three connections and host ports; leaves the process with a number that says what failed.
class Link {
  public:
    Link() {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        for (const PortRecord& port : g_ports) {
            End& end = ends_[static_cast<std::size_t>(port.index)];
            make_pair(end.connection);
            make_pair(end.host);
            thread_info_t& bridge = bridges_[static_cast<std::size_t>(port.index)];
            bridge.to_file_path = port.host_path;
            bridge.to_fd = end.host.data();
            bridge.to_mutex = &end.host_mutex;
        }
    }
    void connect(PortIndex port) {
        store_shared(g_ports[port].platform_socket, ends_[port].connection[0]);
    }
    void start_receiver() { std::thread(recv_data_handler, bridges_.data()).detach(); }
    void platform_answers(PortIndex port, std::string_view text) {
        std::array<char, 128> area{};
        const std::size_t size = build_pack(area, CMD_IND, text);
        if (write(ends_[port].connection[1], area.data(), size) < 0)
            _exit(90);
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
