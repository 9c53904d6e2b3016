// Single passes of the readers: what they do, and in which order. They never return, so each runs
// in a process of its own, which tells its steps on stderr.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "descriptors.h"
#include "host_readers.h"
#include "input_source.h"
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

bool is_free(pthread_mutex_t* mutex) {
    if (pthread_mutex_trylock(mutex) != 0)
        return false;
    pthread_mutex_unlock(mutex);
    return true;
}

bool is_socket(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode);
}

// A poll that only asks whether there was a hang-up looks at a device alone.
bool asks_for_hang_up(nfds_t count) {
    return count == 1;
}

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
            if (request == kIntent && is_free(info_.from_mutex))
                fputs("intent without the mutex;", stderr);
            if (request == kIntent && ++intents_ == 2)
                end();
            return 0;
        };
        taken_.write = [this](int fd, const void* bytes, std::size_t size) {
            if (is_free(info_.to_mutex))
                fputs("write without the mutex;", stderr);
            return send(fd, bytes, size, 0);
        };
        taken_.usleep = [this](useconds_t microseconds) {
            tell_what_came();
            fprintf(stderr, "pause %u;", static_cast<unsigned>(microseconds));
            return 0;
        };
        taken_.pthread_cond_signal = [this](pthread_cond_t* cond) {
            pthread_mutex_t* mutex =
                cond == &g_cond_ap_with_cp ? &g_mut_ap_with_cp : &g_ports[row_.port].response_mutex;
            fprintf(stderr, "signal %s%s, single %d, awaited %d;", name_of(cond),
                    is_free(mutex) ? "" : " locked", load_shared(g_is_single_char_input),
                    load_shared(g_ports[row_.port].send_done));
            return 0;
        };
    }

    // With the log on stderr, among the steps.
    [[noreturn]] void serve_with_log(const std::string& message) {
        is_logged_ = true;
        serve(message);
    }
    [[noreturn]] void serve(const std::string& message) {
        end_in_time();
        if (is_logged_ ? dup2(STDERR_FILENO, STDOUT_FILENO) < 0
                       : freopen("/dev/null", "w", stdout) == nullptr)
            _exit(3);
        if (send(modem_.peer, message.data(), message.size(), 0) < 0)
            _exit(3);
        row_.entry(&info_);
        _exit(2);
    }
    // Its one poll gives this; what is opened after it is another file.
    void lose_channel(int result, short revents) {
        info_.from_file_path = "/dev/null";
        taken_.poll = [this, result, revents](pollfd* set, nfds_t count, int /*timeout_ms*/) {
            if (asks_for_hang_up(count))
                return 0;
            if (!is_socket(set[0].fd) || ++polls_ > 1)
                _exit(4);
            set[0].revents = revents;
            return result;
        };
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
        fputs(is_socket(*info_.from_fd) ? ", channel kept" : ", channel anew", stderr);
        fflush(stdout);
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
    int polls_ = 0;
    bool is_logged_ = false;
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

// Without POLLIN nothing is read before, and the host's port is left alone.
TEST_P(ModemReaderStepsDeathTest, AChannelThatIsLostIsOpenedAnewWithAFreshIntent) {
    const struct {
        int result;
        short revents;
        const char* why;
    } rows[] = {
        {1, POLLERR, "an error without a hang-up"},
        {1, POLLHUP, "a hang-up without an error"},
        {1, POLLNVAL, "a number without a file"},
        {1, POLLERR | POLLIN, "what is pending goes with it"},
        {-1, 0, "a poll that fails"},
    };
    for (const auto& row : rows)
        EXPECT_EXIT(
            {
                OneMessage message(this->row());
                message.lose_channel(row.result, row.revents);
                message.serve("lost");
            },
            testing::ExitedWithCode(0), "^end, awaited 1, host open, published, channel anew$")
            << row.why;
}

TEST_P(ModemReaderStepsDeathTest, WhatEndedTheChannelIsLogged) {
    const struct {
        short revents;
        const char* logged;
    } rows[] = {
        {POLLERR, "[)]:POLLERR is set[.]\r\n[^:]*:[^:]*:[^:]*:Closing: "},
        {POLLHUP, "[)]:POLLHUP is set[.]\r\n[^:]*:[^:]*:[^:]*:Closing: "},
        {POLLERR | POLLHUP, "[)]:POLLERR is set[.]\r\n[^:]*:[^:]*:[^:]*:POLLHUP is set[.]\r\n"},
    };
    for (const auto& row : rows)
        EXPECT_EXIT(
            {
                OneMessage message(this->row());
                message.lose_channel(1, row.revents);
                message.serve_with_log("lost");
            },
            testing::ExitedWithCode(0), row.logged)
            << row.revents;
}

TEST_P(ModemReaderStepsDeathTest, TheLineThatIsBeingTypedOnThePortIsLogged) {
    constexpr InputSource kSources[] = {InputSource::modem_port, InputSource::at_port,
                                        InputSource::uart_port};
    for (int typed_on = 0; typed_on < kPortCount; ++typed_on)
        EXPECT_EXIT(
            {
                g_at_buf_cache[static_cast<int>(kSources[typed_on])].assign("AT+CF");
                OneMessage(row()).serve_with_log("\r\n+CREG: 1\r\n");
            },
            testing::ExitedWithCode(0),
            typed_on == row().port ? "after recv data clean g_at_buf_cache.at CP. :<AT.CF>[.]\r\n"
                                   : "after recv data clean g_at_buf_cache.at CP. :<>[.]\r\n");
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

// The two members that only carry bytes.

struct Polled {
    int result;
    short revents;
};

// A plain member on a main pair whose channel is polled as told; the poll after these ends the
// process.
class PlainPasses {
  public:
    PlainPasses(bool is_mhi, std::vector<Polled> polls)
        : is_mhi_(is_mhi), polls_(std::move(polls)) {
        info_.from_file_path = "/dev/null";
        *info_.from_fd = channel_.daemon;
        *info_.to_fd = host_.daemon;
        taken_.poll = [this](pollfd* set, nfds_t count, int timeout_ms) {
            return asks_for_hang_up(count) ? 0 : next_poll(set, timeout_ms);
        };
        taken_.read = [this](int, void* area, std::size_t) {
            memcpy(area, "abc", 3);
            now_ms_ += reads_ < gaps_ms.size() ? gaps_ms[reads_++] : 0;
            fputs("read;", stderr);
            return read_result;
        };
        taken_.write = [this](int, const void*, std::size_t size) {
            fprintf(stderr, is_free(info_.to_mutex) ? "write without the mutex;" : "write %zu;",
                    size);
            return static_cast<ssize_t>(size);
        };
        taken_.ioctl = [this](int, unsigned long request, void* word) {
            if (request == TIOCMGET)
                *static_cast<int*>(word) = lines;
            if (request != TIOCMSET)
                return 0;
            fprintf(stderr, "set %d;", *static_cast<int*>(word));
            errno = std::exchange(refusal, 0);
            return errno == 0 ? 0 : -1;
        };
        taken_.usleep = [](useconds_t microseconds) {
            fprintf(stderr, "pause %u;", static_cast<unsigned>(microseconds));
            return 0;
        };
        taken_.clock_gettime = [this](clockid_t, timespec* now) {
            *now = {now_ms_ / 1000, now_ms_ % 1000 * 1'000'000};
            return 0;
        };
    }

    [[noreturn]] void run() {
        end_in_time();
        if (is_logged ? dup2(STDERR_FILENO, STDOUT_FILENO) < 0
                      : freopen("/dev/null", "w", stdout) == nullptr)
            _exit(3);
        (is_mhi_ ? modem_to_usb_bridge_mhi : modem_to_usb_bridge_smd)(&info_);
        _exit(2);
    }

    ssize_t read_result = 0;
    std::vector<int> gaps_ms;  // by which time has passed at each read
    int lines = 0;             // the channel's
    bool is_logged = false;    // on stderr, among the steps
    int refusal = 0;           // errno of the first setting of the host's lines, 0: it is taken

  private:
    int next_poll(pollfd* set, int timeout_ms) {
        fprintf(stderr, "poll %s;", is_socket(set[0].fd) ? "first" : "anew");
        // SMD waits for all of it without an end, MHI half a second for data.
        if (set[0].events != (is_mhi_ ? POLLIN : 0x1B) || timeout_ms != (is_mhi_ ? 500 : -1))
            fprintf(stderr, "for 0x%x, %d ms;", static_cast<unsigned>(set[0].events), timeout_ms);
        if (at_ == polls_.size())
            _exit(0);
        set[0].revents = polls_[at_].revents;
        return polls_[at_++].result;
    }

    const bool is_mhi_;
    const std::vector<Polled> polls_;
    thread_info_t info_ = kModemMain;
    const Ends channel_;
    const Ends host_;
    TakenCalls taken_;
    std::size_t at_ = 0;
    std::size_t reads_ = 0;
    int now_ms_ = 5000;
};

TEST(PlainReaderStepsDeathTest, WhatAPollTellsIsReadOrEndsTheChannel) {
    constexpr bool kSmd = false;
    constexpr bool kMhi = true;
    const struct {
        bool is_mhi;
        Polled poll;
        ssize_t read;
        const char* steps;
        const char* why;
    } rows[] = {
        {kSmd, {1, POLLIN}, 3, "read;write 3;poll first;", "bytes are passed on"},
        {kMhi, {1, POLLIN}, 3, "read;write 3;poll first;", "bytes are passed on"},
        {kSmd, {1, POLLIN}, 0, "read;poll first;", "an empty read goes on"},
        {kMhi, {1, POLLIN}, 0, "read;poll first;", "an empty read goes on"},
        {kSmd, {1, POLLIN}, -1, "read;poll anew;", "a failed read ends the channel"},
        {kMhi, {1, POLLIN}, -1, "read;poll anew;", "a failed read ends the channel"},
        {kSmd, {-1, 0}, 3, "poll anew;", "so does a failed poll"},
        {kMhi, {-1, 0}, 3, "poll anew;", "so does a failed poll"},
        {kSmd, {1, POLLERR}, 3, "poll anew;", "an error without a hang-up"},
        {kMhi, {1, POLLERR}, 3, "poll anew;", "an error without a hang-up"},
        {kSmd, {1, POLLHUP}, 3, "poll anew;", "a hang-up without an error"},
        {kMhi, {1, POLLHUP}, 3, "poll anew;", "a hang-up without an error"},
        {kSmd, {1, POLLHUP | POLLIN}, 3, "poll anew;", "SMD leaves what is pending"},
        {kMhi, {1, POLLHUP | POLLIN}, 3, "read;write 3;poll first;", "MHI reads it first"},
        {kMhi, {1, POLLHUP | POLLIN}, 0, "read;poll anew;", "until nothing is left"},
        {kMhi, {0, 0}, 3, "poll first;", "a time-out goes on"},
    };
    for (const auto& row : rows)
        EXPECT_EXIT(
            {
                PlainPasses passes(row.is_mhi, {row.poll});
                passes.read_result = row.read;
                passes.run();
            },
            testing::ExitedWithCode(0), std::string("^poll first;").append(row.steps).append("$"))
            << (row.is_mhi ? "MHI: " : "SMD: ") << row.why;
}

TEST(PlainReaderStepsDeathTest, WhatWasReadIsLogged) {
    for (const bool is_mhi : {false, true})
        EXPECT_EXIT(
            {
                setvbuf(stdout, nullptr, _IONBF, 0);
                PlainPasses passes(is_mhi, {{1, POLLIN}});
                passes.read_result = 3;
                passes.is_logged = true;
                passes.run();
            },
            testing::ExitedWithCode(0), "read;.*buf contains 'abc'\r\n.*write 3;");
}

TEST(PlainReaderStepsDeathTest, AWordOfTheModemIsSentUntilTheHostsPortIsThereToTakeIt) {
    const struct {
        int refusal;
        const char* steps;
        const char* why;
    } rows[] = {
        {0, "poll first;set 2;poll first;poll first;", "a word is news once"},
        {ENOTTY, "poll first;set 2;poll first;poll first;", "the port has no such lines"},
        {EINVAL, "poll first;set 2;poll first;poll first;", "the port has not these lines"},
        {EBADF, "poll first;set 2;poll first;set 2;poll first;", "the port is away"},
        {EIO, "poll first;set 2;poll first;set 2;poll first;", "it is hung up, not yet closed"},
    };
    for (const auto& row : rows)
        EXPECT_EXIT(
            {
                PlainPasses passes(true, {{0, 0}, {0, 0}});
                passes.lines = TIOCM_DTR;
                passes.refusal = row.refusal;
                passes.run();
            },
            testing::ExitedWithCode(0), std::string("^").append(row.steps).append("$"))
            << row.why;
}

TEST(PlainReaderStepsDeathTest, PausesOfEmptyReadsGrowToASecond) {
    std::string steps = "^poll first;read;";
    for (int pause = 1000; pause < 1'000'000; pause *= 2)
        steps += "poll first;read;pause " + std::to_string(pause) + ";";
    for (int i = 0; i < 3; ++i) steps += "poll first;read;pause 1000000;";
    EXPECT_EXIT(
        {
            PlainPasses passes(false, std::vector<Polled>(14, {1, POLLIN}));
            passes.run();
        },
        testing::ExitedWithCode(0), steps + "poll first;$");
}

TEST(PlainReaderStepsDeathTest, EmptyReadsInARowPauseAndOnesFarApartDoNot) {
    const Polled readable = {1, POLLIN};
    const std::vector<int> gaps_ms = {0, 1, 1, 2000, 2001, 1, 2001};
    EXPECT_EXIT(
        {
            PlainPasses passes(false, std::vector<Polled>(7, readable));
            passes.gaps_ms = gaps_ms;
            passes.run();
        },
        testing::ExitedWithCode(0),
        "^poll first;read;poll first;read;pause 1000;poll first;read;pause 2000;"
        "poll first;read;pause 4000;poll first;read;poll first;read;pause 1000;"
        "poll first;read;poll first;$");
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
