// The bridge's start: which thread is given which record, what it says about itself, how it ends.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "descriptors.h"
#include "host_readers.h"
#include "mhi_monitor.h"
#include "modem_readers.h"
#include "platform_receiver.h"
#include "port_records.h"
#include "port_state.h"
#include "refusing_mutex.h"
#include "shared_int.h"
#include "start_trace.h"
#include "system_calls.h"
#include "target.h"
#include "udp_server.h"
#include "vexa_port_bridge.h"

extern thread_info_t usb_atport_info;

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using Entry = TakenCalls::ThreadEntry;

// Known before anything of this program has run.
const bool g_trace_enabled_at_start = port_bridge_log_enabled;
const int g_pcie_enabled_at_start = g_vexa_pcie_enabled;

// Clients of the record's layout rely on the order.
static_assert(offsetof(thread_info_t, from_file_path) < offsetof(thread_info_t, to_file_path));
static_assert(offsetof(thread_info_t, to_file_path) < offsetof(thread_info_t, from_fd));
static_assert(offsetof(thread_info_t, from_fd) < offsetof(thread_info_t, to_fd));
static_assert(offsetof(thread_info_t, to_fd) < offsetof(thread_info_t, from_mutex));
static_assert(offsetof(thread_info_t, from_mutex) < offsetof(thread_info_t, to_mutex));
static_assert(offsetof(thread_info_t, to_mutex) < offsetof(thread_info_t, to_file_path_pcie));
static_assert(offsetof(thread_info_t, to_file_path_pcie) < offsetof(thread_info_t, to_fd_pcie));
static_assert(offsetof(thread_info_t, to_fd_pcie) < offsetof(thread_info_t, pcie_valid));

struct Started {
    Entry entry;
    bool has_default_attributes;
    const void* argument;
    std::vector<thread_info_t> records;  // as they stood then
};

void expect_record(const thread_info_t& found, const thread_info_t& expected) {
    EXPECT_STREQ(found.from_file_path, expected.from_file_path);
    EXPECT_STREQ(found.to_file_path, expected.to_file_path);
    EXPECT_EQ(found.from_fd, expected.from_fd);
    EXPECT_EQ(found.to_fd, expected.to_fd);
    EXPECT_EQ(found.from_mutex, expected.from_mutex);
    EXPECT_EQ(found.to_mutex, expected.to_mutex);
    EXPECT_STREQ(found.to_file_path_pcie, expected.to_file_path_pcie);
    EXPECT_EQ(found.to_fd_pcie, expected.to_fd_pcie);
    EXPECT_EQ(found.pcie_valid, expected.pcie_valid);
}

void expect_in_order(const std::string& log, const std::vector<std::string>& texts) {
    std::size_t at = 0;
    for (const std::string& text : texts) {
        const std::size_t found = log.find(text, at);
        ASSERT_NE(found, std::string::npos) << text << "missing or out of order in\n" << log;
        at = found + text.size();
    }
}

// No thread is really started: each creation is noted, and each join.
class BridgeStart : public testing::Test {
  protected:
    void SetUp() override {
        unsetenv("VEXA_DS_TARGET");
        store_shared(g_vexa_pcie_enabled, VEXA_LINUX_TRISTATE_FALSE);
        taken_.pthread_create = [this](pthread_t* thread, const pthread_attr_t* attributes,
                                       Entry entry, void* argument) {
            const auto* records = static_cast<const thread_info_t*>(argument);
            const std::ptrdiff_t count = entry == recv_data_handler ? 3 : 1;
            started_.push_back(
                {entry, attributes == nullptr, argument, {records, records + count}});
            *thread = started_.size();
            return create_result_;
        };
        taken_.pthread_join = [this](pthread_t thread) {
            joined_.push_back(static_cast<int>(thread));
            return join_result_;
        };
        taken_.popen = [this](const char* command, const char* mode) -> FILE* {
            commands_.emplace_back(command);
            EXPECT_EQ(mode[0], 'r');
            return output_ == nullptr ? nullptr : real_popen(output_, mode);
        };
    }
    void TearDown() override {
        store_shared(g_vexa_pcie_enabled, VEXA_LINUX_TRISTATE_UNKNOWN);
        g_fd_usb_modem_device = nullptr;
        g_fd_usb_atport_device = nullptr;
        g_fd_usb_atport_device_pcie = nullptr;
        g_fd_usb_uartport_device = nullptr;
        log_file = nullptr;
        port_bridge_log_enabled = false;
        unsetenv("VEXA_DS_TARGET");
    }

    std::string start() {
        testing::internal::CaptureStdout();
        EXPECT_EQ(init_vexa_port_bridge(), 0);
        return testing::internal::GetCapturedStdout();
    }
    void start_on_pcie() {
        store_shared(g_vexa_pcie_enabled, VEXA_LINUX_TRISTATE_TRUE);
        log_ = start();
    }

    TakenCalls taken_;
    std::vector<Started> started_;
    std::vector<int> joined_;  // by the number of their creation
    std::vector<std::string> commands_;
    std::string log_;
    int create_result_ = 0;
    int join_result_ = 0;
    const char* output_ = "true";  // stands for the command asked for: prints nothing
};

struct ThreadRow {
    Entry entry;
    std::vector<thread_info_t> records;
};

void expect_threads(const std::vector<Started>& started, const std::vector<ThreadRow>& rows) {
    ASSERT_EQ(started.size(), rows.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE("thread " + std::to_string(i + 1));
        EXPECT_EQ(started[i].entry, rows[i].entry);
        EXPECT_TRUE(started[i].has_default_attributes);
        ASSERT_EQ(started[i].records.size(), rows[i].records.size());
        for (std::size_t at = 0; at < rows[i].records.size(); ++at)
            expect_record(started[i].records[at], rows[i].records[at]);
    }
}

TEST_F(BridgeStart, EachThreadIsGivenItsRecord) {
    start();
    expect_threads(started_, {{modem_to_usb_bridge_glink, {kModemMain}},
                              {usb_to_modem_bridge, {kUsbMain}},
                              {modem_to_usb_bridge_glink_atport, {kModemAt}},
                              {usb_atport_to_modem_bridge, {kUsbAt}},
                              {modem_to_usb_bridge_glink_uartport, {kModemUart}},
                              {usb_uartport_to_modem_bridge, {kUsbUart}},
                              {recv_data_handler, {kModemMain, kModemAt, kModemUart}},
                              {remote_udp_data_handler, {kUsbAt}}});
    EXPECT_NE(started_.back().argument, &usb_atport_info) << "a copy of its own";
}

TEST_F(BridgeStart, OnPcieThePipeIsASecondEndOfTheAtPort) {
    start_on_pcie();
    expect_threads(started_, {{modem_to_usb_bridge_glink, {kModemMain}},
                              {usb_to_modem_bridge, {kUsbMain}},
                              {modem_to_usb_bridge_glink_atport, {kModemAtOnPcie}},
                              {usb_atport_to_modem_bridge, {kUsbAt}},
                              {usb_atport_to_modem_bridge, {kPipeAt}},
                              {modem_to_usb_bridge_glink_uartport, {kModemUart}},
                              {usb_uartport_to_modem_bridge, {kUsbUart}},
                              {recv_data_handler, {kModemMain, kModemAtOnPcie, kModemUart}},
                              {remote_udp_data_handler, {kUsbAt}}});
}

TEST_F(BridgeStart, TheMainPairIsTheTargets) {
    setenv("VEXA_DS_TARGET", "24", 1);
    start();
    EXPECT_EQ(started_[0].entry, modem_to_usb_bridge_mhi);
    EXPECT_STREQ(started_[0].records[0].from_file_path, "/dev/mhi_pipe_32");
    EXPECT_EQ(started_[0].records[0].from_fd, &mdm_fd);
    EXPECT_STREQ(started_[1].records[0].to_file_path, "/dev/mhi_pipe_32");
}

TEST_F(BridgeStart, JoinsEndInTheirOrderAndAreLogged) {
    log_ = start();
    EXPECT_THAT(joined_, ElementsAre(8, 7, 1, 2, 3, 4, 5, 6));
    expect_in_order(
        log_,
        {"udp_at_server_thread pthread_join ok....0,0,0.\r\n",
         "recv_thread pthread_join ok....0,0,0.\r\n", "mdm_thread pthread_join ok....0,0,0.\r\n",
         "usb_thread pthread_join ok....0,0,0.\r\n", "recv_thread pthread_join ok....0,0,0.\r\n",
         "recv_thread pthread_join ok....0,0,0.\r\n", "recv_thread pthread_join ok....0,0,0.\r\n",
         "recv_thread pthread_join ok....0,0,0.\r\n", "end init_vexa_port_bridge...0,0,0.\r\n"});
}

TEST_F(BridgeStart, OnPcieThePipesReaderIsJoinedBeforeTheUarts) {
    start_on_pcie();
    EXPECT_THAT(joined_, ElementsAre(9, 8, 1, 2, 3, 4, 5, 6, 7));
    expect_in_order(log_, std::vector<std::string>(6, "recv_thread pthread_join ok....0,0,0.\r\n"));
}

TEST_F(BridgeStart, AJoinThatFailsSaysNothing) {
    join_result_ = ESRCH;
    EXPECT_THAT(start(), Not(HasSubstr("pthread_join")));
    EXPECT_EQ(joined_.size(), 8u);
}

TEST_F(BridgeStart, AThreadThatCannotBeMadeIsLoggedAndTheNextOneTried) {
    create_result_ = EAGAIN;
    start_on_pcie();
    expect_in_order(
        log_,
        {"begin mdm_handler....0,0,0.\r\n", "mdm_thread pthread_create failed....0,0,0.\r\n",
         "begin usb_to_modem_bridge....0,0,0.\r\n",
         "usb_thread pthread_create failed....0,0,0.\r\n", "begin mdm_handler....0,0,0.\r\n",
         "modem_to_usb_bridge_glink_atport pthread_create failed....-1,-1,0.\r\n",
         "begin usb_atport_to_modem_bridge...0,0,0.\r\n",
         "usb_atport_to_modem_bridge pthread_create failed....-1,-1,0.\r\n",
         "set usb_atport_info_pcie....0,0,0.\r\n", "begin pcie_atport_to_modem_bridge...0,0,0.\r\n",
         "pcie_atport_to_modem_bridge pthread_create failed....0,0,0.\r\n",
         "set mdm_uartport_info...0,0,0.\r\n", "set usb_uartport_info....0,0,0.\r\n",
         "modem_to_usb_bridge_glink_atport pthread_create failed....-1,-1,0.\r\n",
         "begin usb_atport_to_modem_bridge...0,0,0.\r\n",
         "usb_atport_to_modem_bridge pthread_create failed....-1,-1,0.\r\n",
         "recv_data_handler pthread_create failed....0,0,0.\r\n",
         "udp_at_server_thread pthread_create failed....0,0,0.\r\n",
         "end init_vexa_port_bridge...0,0,0.\r\n"});
    EXPECT_EQ(started_.size(), 9u);
    EXPECT_TRUE(joined_.empty());
    EXPECT_THAT(log_, Not(HasSubstr("suceess")));
}

TEST_F(BridgeStart, TheTraceChannelIsOnAtFirstAndSilencedByTheStart) {
    EXPECT_TRUE(g_trace_enabled_at_start);
    port_bridge_log_enabled = true;
    EXPECT_THAT(start(), Not(HasSubstr("(INFO)")));
    EXPECT_FALSE(port_bridge_log_enabled);
    EXPECT_EQ(log_file, stdout);
}

TEST_F(BridgeStart, TheDiagnosticChannelIsToldFirstWhateverTheSwitch) {
    const auto diag = [] {
        std::ifstream file(getenv("VEXA_DIAG_LOG"));
        return std::string((std::istreambuf_iterator<char>(file)), {});
    };
    const std::size_t before = diag().size();
    EXPECT_THAT(start(), Not(HasSubstr("init_vexa_port_bridge enter.")));
    EXPECT_THAT(diag().substr(before), HasSubstr(" init_vexa_port_bridge(): init_vexa_port_bridge "
                                                 "enter.\n"));
}

TEST_F(BridgeStart, TheLinkIsUnknownBeforeItIsLookedFor) {
    EXPECT_EQ(g_pcie_enabled_at_start, 2);
}

TEST_F(BridgeStart, BothFilesAreReadByTheirNames) {
    setenv("VEXA_DS_TARGET", "36", 1);
    output_ = "printf 3x";
    log_ = start();
    EXPECT_THAT(commands_, ElementsAre("cat /etc/data/usb/softap_w_dun",
                                       "cat /etc/data/port_bridge/port_bridge.config"));
    EXPECT_THAT(log_, HasSubstr("IN PCIE PATH"));
    EXPECT_STREQ(started_[0].records[0].to_file_path, "/dev/mhi_pipe_32");
}

TEST_F(BridgeStart, EachCommandIsClosedAsOne) {
    setenv("VEXA_DS_TARGET", "36", 1);
    const SystemCalls system;
    start();
    EXPECT_EQ(commands_.size(), 2u);
    EXPECT_EQ(system.count(Call::pclose), 2) << "its process would stay as a zombie";
}

// A reader holds its channel's mutex inside the intent ioctl, for as long as a channel takes.
TEST_F(BridgeStart, WaitsForNoDevicesMutex) {
    for (pthread_mutex_t* mutex : {&mdm_mutex, &usb_mutex, &mdm_atport_mutex, &usb_atport_mutex,
                                   &mdm_uartport_mutex, &usb_uartport_mutex}) {
        const RefusingMutex held(*mutex);
        EXPECT_EQ(held.tries_of(init_vexa_port_bridge), 0);
    }
}

TEST_F(BridgeStart, ACommandThatCannotBeRunIsNeitherDunNorPcie) {
    setenv("VEXA_DS_TARGET", "36", 1);
    output_ = nullptr;
    EXPECT_THAT(start(), Not(HasSubstr("IN PCIE PATH")));
    EXPECT_STREQ(started_[0].records[0].to_file_path, "/dev/at_usb0");
}

// What the trace channel is told while it is on.
class TraceTexts : public BridgeStart {
  protected:
    template <typename Call>
    std::string traced(Call call) {
        char* text = nullptr;
        std::size_t size = 0;
        log_file = open_memstream(&text, &size);
        port_bridge_log_enabled = true;
        call();
        fclose(log_file);
        log_file = nullptr;
        std::string all(text, size);
        free(text);
        return all;
    }
};

TEST_F(TraceTexts, ATargetIsNamedWithItsEndsAndItsHandler) {
    expect_in_order(
        traced([] {
            pb_targetinfo found{};
            pb_resolve_target(found);
        }),
        {"(INFO):    Resolved target to: DS_TARGET_LE_STINGRAY\n",
         "(INFO):    Using USB end point: /dev/at_usb0\n",
         "(INFO):    Using MDM end point: /dev/at_mdm0\n", "(INFO):    Using mdm_handler: 0x"});
}

TEST_F(TraceTexts, AnyOtherFlagLetsTheStartGoOn) {
    output_ = "printf N";
    EXPECT_THAT(traced([] { EXPECT_FALSE(IsDunSoftAPMode()); }),
                HasSubstr("(INFO):     Not in DUN+SoftAP mode. Continue !!"));
}

TEST_F(TraceTexts, TheKernelIsNamedBeforeItIsJudged) {
    SystemCalls system;
    system.answer(Call::uname, 0);  // names nothing
    expect_in_order(traced([] { EXPECT_FALSE(Check_kernel_version()); }),
                    {"system_info : sysname [] nodename [] release [] version []  machine []",
                     "SMD transport not supported!!"});
    system.answer(Call::uname, -1, EFAULT);
    EXPECT_THAT(traced([] { EXPECT_FALSE(Check_kernel_version()); }),
                HasSubstr("Failed to get system_info ret [-1] !!"));
    // This machine's own.
    const std::string own = traced([] { Check_kernel_version(); });
    EXPECT_THAT(own, HasSubstr("system_info : sysname [Linux] nodename ["));
    EXPECT_THAT(own, testing::AnyOf(HasSubstr(" SMD transport supported!!"),
                                    HasSubstr(" SMD transport not supported!!")));
}

// A stream to stderr that tells at the process's end whether the daemon closed it.
int g_traced_fd = -1;
void trace_to_stderr() {
    g_traced_fd = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 100);
    log_file = fdopen(g_traced_fd, "w");
    port_bridge_log_enabled = true;
    atexit([] {
        const bool is_closed = fcntl(g_traced_fd, F_GETFD) < 0;
        fputs(is_closed ? "trace closed" : "trace open", stderr);
    });
}

using BridgeStartDeathTest = TraceTexts;

TEST_F(BridgeStartDeathTest, AnUnknownTargetClosesTheTraceThatIsOn) {
    EXPECT_EXIT(
        {
            trace_to_stderr();
            setenv("VEXA_DS_TARGET", "99", 1);
            pb_targetinfo found{};
            pb_resolve_target(found);
        },
        testing::ExitedWithCode(1),
        "ERROR.:   Unsupported target: DS_TARGET_UNKNOWN\n.*"
        "ERROR.:   Failed to resolve target info. Dying...\ntrace closed");
}

TEST_F(BridgeStartDeathTest, ATraceThatIsOffIsLeftOpen) {
    EXPECT_EXIT(
        {
            trace_to_stderr();
            pb_get_log_enabled();
            setenv("VEXA_DS_TARGET", "99", 1);
            pb_targetinfo found{};
            pb_resolve_target(found);
        },
        testing::ExitedWithCode(1), "^trace open");
}

TEST_F(BridgeStartDeathTest, DunSoftApModeEndsWithStatus0BeforeAnyThread) {
    EXPECT_EXIT(
        {
            taken_.pthread_create = [](pthread_t*, const pthread_attr_t*, Entry, void*) {
                _exit(1);
                return 0;
            };
            output_ = "printf Yes";
            init_vexa_port_bridge();
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
