// Single passes of the readers: what they do, and in which order. They never return, so each runs
// in a process of its own, which tells its steps on stderr.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>

#include "descriptors.h"
#include "host_readers.h"
#include "mhi_monitor.h"
#include "modem_readers.h"
#include "port_records.h"
#include "port_state.h"
#include "shared_int.h"
#include "system_calls.h"

namespace {

constexpr unsigned long kIntent = 0x4004C300;

// Two connected sockets that keep message bounds. They live until their process ends.
struct Ends {
    int daemon = -1;
    int peer = -1;
    Ends() {
        int ends[2] = {-1, -1};
        socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends);
        daemon = ends[0];
        peer = ends[1];
    }
    // Bytes of the next message, 0 when there is none.
    [[nodiscard]] int take() const {
        char area[64];
        const ssize_t count = recv(peer, area, sizeof area, MSG_DONTWAIT);
        return count < 0 ? 0 : static_cast<int>(count);
    }
};

// A reader that does not do what is expected would otherwise go on for ever.
void end_in_time() {
    alarm(60);
}

struct GlinkRow {
    void* (*entry)(void*);
    PortIndex port;
    thread_info_t info;
    pthread_mutex_t* published_mutex;
    int** published_fd;
};
const GlinkRow kGlinkRows[] = {
    {modem_to_usb_bridge_glink, kModemPort, kModemMain, &g_mutex_usb_devie, &g_fd_usb_modem_device},
    {modem_to_usb_bridge_glink_atport, kAtPort, kModemAtOnPcie, &g_mutex_usb_atport_devie,
     &g_fd_usb_atport_device},
    {modem_to_usb_bridge_glink_uartport, kUartPort, kModemUart, &g_mutex_usb_uartport_devie,
     &g_fd_usb_uartport_device},
};

// A GLINK member that is served one message. When it makes room for the next one, the process ends.
class OneMessage {
  public:
    explicit OneMessage(const GlinkRow& row) : row_(row), info_(row.info) {
        *info_.from_fd = modem_.daemon;
        *info_.to_fd = host_.daemon;
        usb_atport_fd_pcie = pipe_.daemon;
        store_shared(g_is_single_char_input, 1);
        store_shared(g_ports[row.port].send_done, 1);
        taken_.ioctl = [this](int, unsigned long request, void*) {
            if (request == kIntent && ++intents_ == 2)
                end();
            return 0;
        };
        taken_.usleep = [this](useconds_t microseconds) {
            tell_what_came();
            fprintf(stderr, "pause %u;", static_cast<unsigned>(microseconds));
            return 0;
        };
        taken_.pthread_cond_signal = [this](pthread_cond_t* cond) {
            pthread_mutex_t* mutex =
                cond == &g_cond_ap_with_cp ? &g_mut_ap_with_cp : &g_ports[row_.port].response_mutex;
            const bool is_free = pthread_mutex_trylock(mutex) == 0;
            fprintf(stderr, "signal %s%s, single %d, awaited %d;", name_of(cond),
                    is_free ? "" : " locked", load_shared(g_is_single_char_input),
                    load_shared(g_ports[row_.port].send_done));
            if (is_free)
                pthread_mutex_unlock(mutex);
            return 0;
        };
    }

    [[noreturn]] void serve(const std::string& message) {
        end_in_time();
        if (freopen("/dev/null", "w", stdout) == nullptr ||
            send(modem_.peer, message.data(), message.size(), 0) < 0)
            _exit(3);
        row_.entry(&info_);
        _exit(2);
    }
    static void make_pipe_live() {
        store_shared(g_vexa_pcie_enabled, 1);
        store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_CONNECTED_FULL);
    }
    void close_host() const {
        close(*info_.to_fd);
        *info_.to_fd = -1;
    }

  private:
    [[noreturn]] void end() const {
        tell_what_came();
        fprintf(stderr, "end, awaited %d, host %s", load_shared(g_ports[row_.port].send_done),
                *info_.to_fd < 0 ? "closed" : "open");
        // What the writers of the port were given: its slot, and a mutex of their own.
        pthread_mutex_lock(info_.to_mutex);
        const bool is_published =
            *row_.published_fd == info_.to_fd && pthread_mutex_trylock(row_.published_mutex) == 0;
        fputs(is_published ? ", published" : ", not published", stderr);
        _exit(0);
    }
    void tell_what_came() const {
        if (const int count = host_.take(); count > 0)
            fprintf(stderr, "host %d;", count);
        if (const int count = pipe_.take(); count > 0)
            fprintf(stderr, "pipe %d;", count);
    }
    const char* name_of(const pthread_cond_t* cond) const {
        if (cond == &g_cond_ap_with_cp)
            return "both";
        return cond == &g_ports[row_.port].response_cond ? "port" : "another";
    }

    const GlinkRow& row_;
    thread_info_t info_;
    Ends modem_;
    Ends host_;
    Ends pipe_;
    TakenCalls taken_;
    int intents_ = 0;
};

class ModemReaderStepsDeathTest : public testing::TestWithParam<int> {
  protected:
    static const GlinkRow& row() { return kGlinkRows[GetParam()]; }
};
INSTANTIATE_TEST_SUITE_P(ModemAtUart, ModemReaderStepsDeathTest, testing::Values(0, 1, 2));

// These steps from the first to the last; there may be more behind them.
std::string begins_with(std::initializer_list<const char*> steps) {
    std::string pattern = "^";
    for (const char* step : steps) pattern += step;
    return pattern;
}

constexpr const char* kPortSignalled = "pause 1000;signal port, single 0, awaited 1;";

TEST_P(ModemReaderStepsDeathTest, TextIsWrittenThenThePortIsSignalledAfterAPause) {
    EXPECT_EXIT(OneMessage(row()).serve("\r\n+CREG: 1\r\n"), testing::ExitedWithCode(0),
                begins_with({"host 12;", kPortSignalled, "end, awaited 1, host open, published"}));
}

TEST_P(ModemReaderStepsDeathTest, AFinalResultSignalsTheOtherWaiterAfterAPauseOfItsOwn) {
    EXPECT_EXIT(
        OneMessage(row()).serve("\r\nOK\r\n"), testing::ExitedWithCode(0),
        begins_with({"host 6;", kPortSignalled, "pause 1000;signal both, single 0, awaited 1;",
                     "end, awaited 0, host open"}));
}

TEST(ModemReaderStepsDeathTest, SixWordsAreAFinalResult) {
    const struct {
        const char* text;
        bool is_final;
        const char* why;
    } rows[] = {
        {"ok\r\n", true, "the short forms with their line end"},
        {"OK\r\n", true, "the short forms with their line end"},
        {"OK", false, "the short forms with their line end"},
        {"Ok\r\n", false, "either case, no mixture"},
        {"error", true, "without one"},
        {"+CME ERROR: 10", true, "within a longer text"},
        {"Error", false, "either case, no mixture"},
        {"no carrier", true, "without one"},
        {"NO CARRIER", true, "without one"},
        {"NO ANSWER", false, "another result"},
    };
    for (const auto& row : rows)
        EXPECT_EXIT(OneMessage(kGlinkRows[kModemPort]).serve(row.text), testing::ExitedWithCode(0),
                    row.is_final ? "signal both" : "signal port, single 0, awaited 1;end")
            << row.text << ": " << row.why;
}

TEST_P(ModemReaderStepsDeathTest, WhatCannotBeWrittenIsNotSignalledAndThePortIsClosed) {
    EXPECT_EXIT(
        {
            OneMessage message(row());
            message.close_host();
            message.serve("\r\nOK\r\n");
        },
        testing::ExitedWithCode(0), "^end, awaited 1, host closed");
}

// The other ports have no second end, whatever the pipe's state.
TEST_P(ModemReaderStepsDeathTest, ALivePipeTakesTheAtPortsTextAlone) {
    const bool is_at_port = row().port == kAtPort;
    EXPECT_EXIT(
        {
            OneMessage message(row());
            OneMessage::make_pipe_live();
            message.serve("text");
        },
        testing::ExitedWithCode(0),
        begins_with({is_at_port ? "pipe 4;" : "host 4;", kPortSignalled, "end"}));
}

TEST(ModemReaderStepsDeathTest, TextForALivePipeThatIsClosedIsDroppedAndSignalled) {
    EXPECT_EXIT(
        {
            OneMessage message(kGlinkRows[kAtPort]);
            OneMessage::make_pipe_live();
            usb_atport_fd_pcie = -1;
            message.serve("text");
        },
        testing::ExitedWithCode(0), begins_with({kPortSignalled, "end"}));
}

// Host readers.

// Standard output goes where the parent looks.
void tell_log() {
    end_in_time();
    dup2(STDERR_FILENO, STDOUT_FILENO);
}

struct HostRow {
    void* (*entry)(void*);
    PortIndex port;
    thread_info_t info;
    thread_info_t** published;
    const char* entry_text;
    const char* inited_text;
};
const HostRow kHostRows[] = {
    {usb_to_modem_bridge, kModemPort, kUsbMain, &g_modem_tinfo_for_mux,
     "usb_to_modem_bridge enter[.]\n", "client has been inited[.]"},
    {usb_atport_to_modem_bridge, kAtPort, kUsbAt, &g_atport_tinfo_for_mux,
     "usb_atport_to_modem_bridge enter[.]\n", "client atport has been inited[.]"},
    {usb_uartport_to_modem_bridge, kUartPort, kUsbUart, &g_uart_tinfo_for_mux,
     "usb_atport_to_modem_bridge enter[.]\n",  // the UART's line says atport
     "client uartport has been inited[.]"},
};

// What the multiplexer reaches the port by: the record, but a copy of it.
bool is_published(const HostRow& row, const thread_info_t& given) {
    const thread_info_t* copy = load_shared(*row.published);
    return copy != nullptr && copy != &given && copy->from_fd == given.from_fd &&
           copy->to_fd == given.to_fd && copy->to_mutex == given.to_mutex;
}

// A host reader whose first poll tells `revents` and whose read then gives nothing; its second poll
// ends the process.
[[noreturn]] void poll_once(const HostRow& row, short revents) {
    tell_log();
    const Ends host;
    thread_info_t info = row.info;
    *info.from_fd = host.daemon;
    send(host.peer, "", 0, 0);
    TakenCalls taken;
    int polls = 0;
    taken.poll = [&](pollfd* set, nfds_t count, int timeout_ms) {
        if (set[0].fd != host.daemon)
            return 0;
        if (++polls == 2) {
            fflush(stdout);
            const bool asks_for_all = set[0].events == 0x1B && timeout_ms == -1;
            _exit(asks_for_all && is_published(row, info) ? 0 : 1);
        }
        for (nfds_t at = 0; at < count; ++at) set[at].revents = 0;
        set[0].revents = revents;
        return 1;
    };
    row.entry(&info);
    _exit(2);
}

class HostReaderSteps : public testing::TestWithParam<int> {
  protected:
    static const HostRow& row() { return kHostRows[GetParam()]; }
};
using HostReaderStepsOfAPortDeathTest = HostReaderSteps;
INSTANTIATE_TEST_SUITE_P(ModemAtUart, HostReaderStepsOfAPortDeathTest, testing::Values(0, 1, 2));

TEST_P(HostReaderStepsOfAPortDeathTest, APlatformConnectionThatIsThereIsKept) {
    EXPECT_EXIT(
        {
            store_shared(g_ports[row().port].platform_socket, 100);
            poll_once(row(), POLLIN);
        },
        testing::ExitedWithCode(0),
        std::string("^").append(row().entry_text).append(".*").append(row().inited_text));
}

TEST_P(HostReaderStepsOfAPortDeathTest, APlatformConnectionThatIsNotThereIsTriedOnce) {
    EXPECT_EXIT(
        {
            store_shared(g_ports[row().port].platform_socket, -1);
            SystemCalls system;
            system.lead_connects("/dev/socket/qmux_webs/server_webs", "/dev/vexa_not_there");
            poll_once(row(), POLLIN);
        },
        testing::ExitedWithCode(0), "client conenct failed, info:");
}

constexpr short kNotAskedFor = 0x400;

// The modem port traces events that it did not ask for after each chunk, the others do not.
TEST_P(HostReaderStepsOfAPortDeathTest, OnlyTheModemPortTracesOddEventsOfAChunk) {
    const bool is_modem_port = row().port == kModemPort;
    EXPECT_EXIT(poll_once(row(), POLLIN | kNotAskedFor), testing::ExitedWithCode(0),
                is_modem_port ? "read data 0 !!!!0,0,0[.]\r\n.*An unrecognized event happened!  "
                                "pollinfo.revents=0x401\r\n$"
                              : "read data 0 !!!!0,0,0[.]\r\n$");
    EXPECT_EXIT(poll_once(row(), POLLIN), testing::ExitedWithCode(0),
                "read data 0 !!!!0,0,0[.]\r\n$");
}

}  // namespace
