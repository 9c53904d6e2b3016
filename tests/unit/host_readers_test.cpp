// The host-port readers on ports that are lost or never come, run in the test's own thread: the
// UART's reader ends after its 61st failed open, the AT port's when its gate breaks.
#include "host_readers.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "descriptors.h"
#include "device_io.h"
#include "mhi_monitor.h"
#include "port_records.h"
#include "port_state.h"
#include "recorded_sleeps.h"
#include "shared_int.h"
#include "system_calls.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr char kAbsent[] = "/dev/vexa_not_there";
constexpr int kNobodysSocket = 12345;  // a number, so that no connection is opened

int count_of(std::string_view text, std::string_view part) {
    int count = 0;
    for (auto at = text.find(part); at != text.npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

// Holds what it tells and what it leaves, for one run of a reader to its end.
struct Ended {
    void* result;
    std::string log;
    std::vector<unsigned> pauses;
};

class HostReaders : public testing::Test {
  protected:
    HostReaders() {
        for (const PortRecord& port : g_ports) store_shared(port.platform_socket, kNobodysSocket);
    }
    ~HostReaders() override {
        for (const PortRecord& port : g_ports) {
            store_shared(port.platform_socket, -1);
            // The ended reader's is destroyed; a test after this in the same process may use it.
            pthread_mutex_init(&port.response_mutex, nullptr);
            pthread_cond_init(&port.response_cond, nullptr);
        }
    }
    HostReaders(const HostReaders&) = delete;
    HostReaders& operator=(const HostReaders&) = delete;

    static thread_info_t uart_info(const char* path = kAbsent) {
        thread_info_t info = kUsbUart;
        info.from_file_path = path;
        return info;
    }
    static Ended run(void* (*entry)(void*), thread_info_t info) {
        const RecordedSleeps sleeps;
        testing::internal::CaptureStdout();
        void* const result = entry(&info);
        return {result, testing::internal::GetCapturedStdout(), sleeps.seconds};
    }
    // On a port that is open already and does not open again.
    static Ended run_uart_on(int fd) {
        usb_uartport_fd = fd;
        return run(usb_uartport_to_modem_bridge, uart_info());
    }

    SystemCalls system_;
};

TEST_F(HostReaders, UartThatNeverComesUpEndsItsReaderAtThe61stFailedOpen) {
    struct {
        const char* path;
        int error;
        std::size_t pauses;
        const char* why;
    } const rows[] = {
        {kAbsent, ENOENT, 61, "the driver is not ready yet"},
        {"/dev/null/x", ENOTDIR, 0, "any other error is no reason to pause"},
    };
    for (const auto& row : rows) {
        const Ended ended = run(usb_uartport_to_modem_bridge, uart_info(row.path));
        EXPECT_EQ(ended.result, nullptr);
        EXPECT_EQ(ended.pauses, std::vector<unsigned>(row.pauses, 1)) << row.why;
        EXPECT_EQ(count_of(ended.log, "Driver not ready yet; retrying after delay..."),
                  static_cast<int>(row.pauses));
        for (const std::string& text :
             {std::string("usb_uartport_to_modem_bridge open before......\n"),
              std::string("usb_uartport_to_modem_bridge open after......\n"),
              "====>:Blocking open on '" + std::string(row.path) + "' fd:-1.\r\n"})
            EXPECT_EQ(count_of(ended.log, text), 61) << text;
        EXPECT_THAT(ended.log, Not(HasSubstr("Device file already open!")));
        const std::string last =
            "Couldn't open device file: " + std::to_string(row.error) + "\r\nreturn NULL.\n";
        EXPECT_TRUE(ended.log.ends_with(last)) << row.why;
        EXPECT_THAT(ended.log, HasSubstr("client uartport has been inited."));
    }
}

TEST_F(HostReaders, ReaderWorksOnACopyOfItsRecordAndPublishesIt) {
    thread_info_t info = uart_info();
    store_shared(g_uart_tinfo_for_mux, static_cast<thread_info_t*>(nullptr));
    RecordedSleeps sleeps([&] { info.from_file_path = "/dev/another"; });
    testing::internal::CaptureStdout();
    usb_uartport_to_modem_bridge(&info);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), Not(HasSubstr("/dev/another")));
    const thread_info_t* const published = load_shared(g_uart_tinfo_for_mux);
    ASSERT_NE(published, nullptr);
    EXPECT_NE(published, &info);
    EXPECT_STREQ(published->from_file_path, kAbsent);
    EXPECT_EQ(published->to_fd, &mdm_uartport_fd);
}

#ifndef __SANITIZE_THREAD__  // which rightly reports a look at a destroyed mutex
TEST_F(HostReaders, EndingReaderDestroysItsWaitAndTheNextOneInitialisesIt) {
    pthread_mutex_t* const mutex = &g_ports[kUartPort].response_mutex;
    run(usb_uartport_to_modem_bridge, uart_info());
    EXPECT_EQ(pthread_mutex_trylock(mutex), EINVAL) << "as the C library marks a destroyed one";
    thread_info_t info = uart_info();
    int usable = 0;
    const RecordedSleeps sleeps([&] {
        if (pthread_mutex_trylock(mutex) == 0) {
            ++usable;
            pthread_mutex_unlock(mutex);
        }
    });
    testing::internal::CaptureStdout();
    usb_uartport_to_modem_bridge(&info);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(usable, 61);
}
#endif

// What the reader says and does when the port that it polls is lost.
void expect_lost(const Ended& ended) {
    const auto dtr = ended.log.find("Sending DTR low signal to MODEM.\n");
    const auto set =
        ended.log.find("TIOCMSET on '/dev/smd8' returned -1, signals=0x0 (0x0)\r\n", dtr);
    const auto close = ended.log.find("close_fd_mutexed file_path close:", set);
    const auto reopen = ended.log.find("usb_uartport_to_modem_bridge open before......", close);
    EXPECT_NE(reopen, std::string::npos) << ended.log;
    EXPECT_THAT(ended.log, Not(HasSubstr("POLLIN is set.")));
    EXPECT_EQ(usb_uartport_fd, -1);
}

TEST_F(HostReaders, PollThatFailsIsAHangUp) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    ASSERT_EQ(write(ends[1], "AT\r", 3), 3);
    system_.answer(Call::poll, -1, ENOMEM);
    const Ended ended = run_uart_on(ends[0]);
    expect_lost(ended);
    EXPECT_THAT(ended.log, Not(HasSubstr("An unrecognized event happened!")));
    close(ends[1]);
}

TEST_F(HostReaders, HangUpGoesBeforeTheDataOfTheSamePoll) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    ASSERT_EQ(write(ends[1], "AT\r", 3), 3);
    close(ends[1]);
    const Ended ended = run_uart_on(ends[0]);
    expect_lost(ended);
    EXPECT_THAT(ended.log, HasSubstr("POLLHUP is set."));
    EXPECT_THAT(ended.log, Not(HasSubstr("POLLERR is set.")));
}

TEST_F(HostReaders, ErrorOfThePortIsAHangUp) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[0]);  // what a pipe's writer has then is an error
    const Ended ended = run_uart_on(ends[1]);
    expect_lost(ended);
    EXPECT_THAT(ended.log, HasSubstr("POLLERR is set."));
    EXPECT_THAT(ended.log, Not(HasSubstr("POLLHUP is set.")));
}

TEST_F(HostReaders, NumberWithoutAFileIsOpenedAnewAndToldOfOnTheWayOut) {
    const int gone = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 500);  // beyond what is opened meanwhile
    close(gone);
    const Ended ended = run_uart_on(gone);
    expect_lost(ended);
    EXPECT_EQ(count_of(ended.log, "An unrecognized event happened!  pollinfo.revents=0x20\r\n"), 1);
}

// A terminal by a name of its own, which can be taken away.
class NamedTerminal {
  public:
    NamedTerminal() {
        char folder[] = "/tmp/vexa_uart_XXXXXX";
        char name[64];
        if (mkdtemp(folder) == nullptr || openpty(&master_, &slave_, name, nullptr, nullptr) != 0)
            std::abort();
        folder_ = folder;
        path_ = folder_ + "/uart";
        if (symlink(name, path_.c_str()) != 0)
            std::abort();
    }
    ~NamedTerminal() {
        take_away();
        rmdir(folder_.c_str());
        close(slave_);
        close(master_);
    }
    NamedTerminal(const NamedTerminal&) = delete;
    NamedTerminal& operator=(const NamedTerminal&) = delete;

    const char* path() const { return path_.c_str(); }
    void take_away() const { unlink(path_.c_str()); }
    void hang_up() { close(std::exchange(master_, -1)); }
    bool is_at(int fd) const {
        struct stat own {};
        struct stat other {};
        return fstat(slave_, &own) == 0 && fstat(fd, &other) == 0 && own.st_rdev == other.st_rdev;
    }
    // How often it is open beside the test's own.
    int times_open() const {
        int times = -1;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
            times += is_at(std::stoi(entry.path().filename())) ? 1 : 0;
        return times;
    }

  private:
    int master_ = -1;
    int slave_ = -1;
    std::string folder_;
    std::string path_;
};

// Output that does not drain holds up the set-up alone. A writer that fails meanwhile closes the
// port, and its number is soon another file's.
TEST_F(HostReaders, TheUartIsSetUpWithoutItsMutexAndAsNoOtherFile) {
    const NamedTerminal terminal;
    bool was_port = false;
    TakenCalls taken;
    taken.tcsetattr = [&](int fd, int, const termios*) {
        terminal.take_away();
        EXPECT_EQ(pthread_mutex_trylock(&usb_uartport_mutex), 0) << "a writer would wait";
        pthread_mutex_unlock(&usb_uartport_mutex);
        const int number = usb_uartport_fd;
        EXPECT_TRUE(terminal.is_at(number)) << "a writer writes to it";
        close_fd_mutexed(terminal.path(), &usb_uartport_fd, &usb_uartport_mutex);
        const int other = open("/dev/null", O_RDWR | O_CLOEXEC);
        EXPECT_EQ(other, number);
        was_port = terminal.is_at(fd);
        close(other);
        return 0;
    };
    const Ended ended = run(usb_uartport_to_modem_bridge, uart_info(terminal.path()));
    EXPECT_TRUE(was_port);
    const auto flags = ended.log.find("uart fcntl=0\n");
    const auto settings = ended.log.find("tcsetattr for " + std::string(terminal.path()), flags);
    EXPECT_NE(settings, std::string::npos) << ended.log;
    EXPECT_EQ(ended.pauses.size(), 61u) << "it was opened once";
    EXPECT_EQ(terminal.times_open(), 0);
}

// A port that took the last number is served all the same; nobody has its number before it is set
// up.
TEST_F(HostReaders, AUartThatTookTheLastNumberIsSetUpBeforeItIsKnown) {
    NamedTerminal terminal;
    int known_as = 0;
    bool was_port = false;
    TakenCalls taken;
    taken.fcntl = [](int fd, int command, int argument) {
        if (command != F_DUPFD_CLOEXEC)
            return real_fcntl(fd, command, argument);
        errno = EMFILE;
        return -1;
    };
    taken.tcsetattr = [&](int fd, int, const termios*) {
        known_as = usb_uartport_fd;
        was_port = terminal.is_at(fd);
        terminal.take_away();
        terminal.hang_up();
        return 0;
    };
    const Ended ended = run(usb_uartport_to_modem_bridge, uart_info(terminal.path()));
    EXPECT_TRUE(was_port);
    EXPECT_EQ(known_as, -1);
    const auto set_up = ended.log.find("tcsetattr for " + std::string(terminal.path()));
    EXPECT_NE(ended.log.find("POLLHUP is set.", set_up), std::string::npos)
        << "it was served until the hang-up: " << ended.log;
    EXPECT_EQ(ended.pauses.size(), 61u) << "it was opened once";
    EXPECT_EQ(terminal.times_open(), 0);
}

// The reader gives nothing back on this way out, so a process of its own is the one that it leaves.
[[noreturn]] void run_uart_whose_flags_cannot_be_set(bool has_number_to_spare) {
    const NamedTerminal terminal;
    TakenCalls taken;
    taken.fcntl = [=](int fd, int command, int argument) {
        const bool is_refused =
            command == F_SETFL || (command == F_DUPFD_CLOEXEC && !has_number_to_spare);
        return is_refused ? -1 : real_fcntl(fd, command, argument);
    };
    thread_info_t info = kUsbUart;
    info.from_file_path = terminal.path();
    dup2(STDERR_FILENO, STDOUT_FILENO);
    usb_uartport_to_modem_bridge(&info);
    printf("port open %d, in all %d\n", terminal.is_at(usb_uartport_fd) ? 1 : 0,
           terminal.times_open());
    fflush(stdout);
    terminal.take_away();
    _exit(0);
}

TEST(HostReadersDeathTest, AUartWhoseFlagsCannotBeSetEndsItsReaderAndLeavesThePortAloneOpen) {
    for (const bool has_number_to_spare : {true, false})
        EXPECT_EXIT(run_uart_whose_flags_cannot_be_set(has_number_to_spare),
                    testing::ExitedWithCode(0), "uart fcntl failed!\nport open 1, in all 1\n$")
            << has_number_to_spare;
}

TEST_F(HostReaders, BrokenGateEndsTheReaderOfThePipe) {
    store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_CONNECTED_W);
    system_.answer(Call::sem_wait, -1, EINVAL);
    const Ended ended = run(usb_atport_to_modem_bridge,
                            {kAbsent, "/dev/smd7", &usb_atport_fd_pcie, &mdm_atport_fd,
                             &usb_atport_mutex, &mdm_atport_mutex, nullptr, nullptr, 1});
    store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_UNKNOWN);
    EXPECT_EQ(ended.result, nullptr);
    EXPECT_EQ(count_of(ended.log, "Reader thread is waiting for MHI to be in Connected state."), 1);
    EXPECT_THAT(ended.log, HasSubstr("client atport has been inited."));
    EXPECT_THAT(ended.log, Not(HasSubstr("Attempting to open")));
    EXPECT_TRUE(ended.log.ends_with("return NULL.\n"));
    const thread_info_t* const published = load_shared(g_atport_tinfo_for_mux);
    ASSERT_NE(published, nullptr);
    EXPECT_STREQ(published->from_file_path, kAbsent);
}

struct LastingRow {
    const char* name;
    void* (*entry)(void*);
    const char* words;  // the first ones, in order
};

void PrintTo(const LastingRow& row, std::ostream* out) {
    *out << row.name;
}

void run_for_ever(void* (*entry)(void*)) {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    for (const PortRecord& port : g_ports) store_shared(port.platform_socket, kNobodysSocket);
    RecordedSleeps sleeps;
    sleeps.instead = [&sleeps] {
        constexpr std::size_t kEnough = 200;
        if (sleeps.seconds == std::vector<unsigned>(kEnough, 1))
            exit(3);
        if (sleeps.seconds.size() >= kEnough)
            exit(4);
    };
    int fd = -1;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    thread_info_t info = {kAbsent, kAbsent, &fd, &fd, &mutex, &mutex, nullptr, nullptr, 0};
    entry(&info);
}

class HostReadersDeathTest : public testing::TestWithParam<LastingRow> {};

// The reader never returns: its 200th pause ends the process, with 3 when each was one second.
TEST_P(HostReadersDeathTest, PortIsTriedOnceASecondForEver) {
    EXPECT_EXIT(run_for_ever(GetParam().entry), testing::ExitedWithCode(3), GetParam().words);
}

INSTANTIATE_TEST_SUITE_P(
    Ports, HostReadersDeathTest,
    testing::Values(
        LastingRow{"mport", usb_to_modem_bridge,
                   "usb_to_modem_bridge enter.\n.*client has been inited..*usb_to_modem_bridge "
                   "Attempting to open '/dev/vexa_not_there'...\r\n.*====>:Blocking open on "
                   "'/dev/vexa_not_there' fd:-1.\r\n"},
        LastingRow{"atport", usb_atport_to_modem_bridge,
                   "usb_atport_to_modem_bridge enter.\n.*client atport has been inited..*"
                   "usb_atport_to_modem_bridge Attempting to open '/dev/vexa_not_there'...\r\n.*"
                   "====>:Blocking open on '/dev/vexa_not_there' fd:-1.\r\n"}),
    [](const auto& row) { return row.param.name; });

}  // namespace
