#include "dispatch.h"

#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <ctime>

#include "engine_fixture.h"
#include "refusing_mutex.h"
#include "system_calls.h"

namespace {

int dispatch(TestPort& port, const std::string& line) {
    return send_atcmd_to_plat_or_cp(
        load_shared(port.record.platform_socket), line.c_str(), static_cast<int>(line.size()),
        &port.record.mode, &port.record.response_mutex, &port.record.response_cond, &port.tinfo);
}

std::string last_line(const TestPort& port) {
    char area[kTextAreaSize];
    port.record.last_line.copy_to(area, sizeof area);
    return area;
}

// From now on CP's channel is open and takes no write; its descriptor.
int refuse_writes(Device& cp) {
    if (cp.daemon_fd >= 0)
        close(cp.daemon_fd);
    cp.daemon_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    return cp.daemon_fd;
}

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

class Dispatch : public EveryPort {};
INSTANTIATE_TEST_SUITE_P(Ports, Dispatch, ::testing::Values(kModemPort, kAtPort, kUartPort),
                         port_name);

TEST_P(Dispatch, Roads) {
    struct {
        const char* line;
        bool cp, platform;
        const char* why;
    } const rows[] = {
        {"AT+CFUN=1\r", true, false, "in no table"},
        {"AT+CSQ\r", false, true, "the platform's"},
        {"at+csq;+cops?\r", true, false, "a combination is CP's whole"},
        {"ATE1\r", true, true, "both"},
        {"ATS24=5\r", true, true, "both"},
        {"AT+CMEE=1\r", true, true, "both"},
        {"ATI\r", true, false, "only ATI9 is the platform's"},
        {"ATI9\r", false, true, "the platform's"},
        {"AT+CGMR\r", false, true, "the platform's"},
    };
    for (const auto& row : rows) {
        dispatch(own, row.line);
        EXPECT_EQ(own.cp.messages(), row.cp ? Lines{row.line} : Lines{}) << row.why;
        EXPECT_EQ(own.to_platform(), row.platform ? Lines{row.line} : Lines{}) << row.why;
        EXPECT_EQ(last_line(own), row.line);
    }
    EXPECT_EQ(all_hosts(), "");
}

TEST_P(Dispatch, EchoOffIsRecordedFromTheLineBeingSent) {
    own.feed("ATE0\r");
    EXPECT_EQ(load_shared(g_client_ate_status), kEchoOff);
    EXPECT_EQ(own.cp.messages(), (Lines{"ATE0\r"}));
    EXPECT_EQ(own.to_platform(), (Lines{"ATE0\r"}));
}

TEST_P(Dispatch, EchoIsLeftAloneWhenCpCannotBeToldAndItsChannelIsClosed) {
    for (const char* line : {"ATE0\r", "ATQ0\r", "ATV0\r", "ATS0=1\r", "AT+CMEE=1\r"}) {
        const int channel = refuse_writes(own.cp);
        testing::internal::CaptureStdout();
        own.feed(line);
        const std::string log = testing::internal::GetCapturedStdout();
        const auto closed = log.find("close_fd_mutexed file_path close:");
        const auto told = log.find("write_to_device forward_exc_atcmd_to_cp_too failed. ");
        EXPECT_NE(told, std::string::npos) << line;
        EXPECT_LT(closed, told) << line;
        EXPECT_EQ(own.cp.daemon_fd, -1) << line;
        EXPECT_FALSE(is_open(channel)) << line;
        EXPECT_EQ(load_shared(g_client_ate_status), kEchoOn) << line;
        EXPECT_EQ(load_shared(g_client_atv_status), 1) << line;
        EXPECT_EQ(own.to_platform(), (Lines{line})) << "the platform is asked all the same";
    }
}

TEST_P(Dispatch, InOtherModesThePlatformIsNotAsked) {
    for (const int mode :
         {USB_PORT_HEX_MODE, USB_PORT_SMS_MODE, USB_PORT_PPP_MODE, USB_PORT_DATA_MODE}) {
        own.set_mode(mode);
        dispatch(own, "AT+CSQ\r");
        EXPECT_TRUE(own.cp.messages().empty()) << mode;
        dispatch(own, "ATQ0\r");
        EXPECT_EQ(own.cp.messages(), (Lines{"ATQ0\r"})) << mode;
        EXPECT_TRUE(own.to_platform().empty()) << mode;
        EXPECT_EQ(last_line(own), "") << mode;
    }
}

TEST_P(Dispatch, WithoutAPlatformAnOrdinaryCommandGoesToCp) {
    store_shared(own.record.platform_socket, -1);
    EXPECT_EQ(dispatch(own, "AT+CSQ\r"), 0);
    EXPECT_EQ(own.cp.messages(), (Lines{"AT+CSQ\r"}));
    EXPECT_EQ(all_hosts(), "");
}

TEST_P(Dispatch, WithoutPlatformAndCpTheHostIsTold) {
    store_shared(own.record.platform_socket, -1);
    own.cp.daemon_fd = -1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(dispatch(own, "AT+CSQ\r"), -1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find(
                  "!!!!!send_data_to_app_platform(USB_PORT_ATCMD_MODE) faile!!!!!"),
              std::string::npos);
    EXPECT_EQ(own_host.bytes(), is_uart ? "" : kDownText);
    EXPECT_EQ(all_hosts(), "");
}

TEST_P(Dispatch, ACommandOfCpsIsMarkedAsSent) {
    dispatch(own, "AT+CSQ\r");
    EXPECT_EQ(load_shared(own.record.send_done), 0) << "the platform's is not";
    dispatch(own, "AT+CFUN?\r");
    for (const PortRecord& record : g_ports)
        EXPECT_EQ(load_shared(record.send_done), &record == &own.record ? 1 : 0);
}

TEST_P(Dispatch, AnAnswerBeforeTheWriteReturnsFindsItsCommand) {
    std::string line_then;
    int mark_then = 0;
    std::thread cp([&] {
        own.cp.wait_for_message();
        line_then = last_line(own);
        mark_then = load_shared(own.record.send_done);
    });
    dispatch(own, "ATD*99#\r");
    cp.join();
    EXPECT_EQ(line_then, "ATD*99#\r");
    EXPECT_EQ(mark_then, 1);
}

TEST_P(Dispatch, AFailedWriteClosesTheChannelAndMarksNothing) {
    for (const int channel : {refuse_writes(own.cp), -1}) {  // open; then closed already
        testing::internal::CaptureStdout();
        EXPECT_EQ(dispatch(own, "AT+CFUN?\r"), -1);
        EXPECT_THAT(testing::internal::GetCapturedStdout(),
                    testing::HasSubstr("send_atcmd_to_cp close_fd_mutexed 1 '" +
                                       std::to_string(channel) + "'..."));
        EXPECT_EQ(own.cp.daemon_fd, -1);
        EXPECT_FALSE(is_open(channel));
        EXPECT_EQ(load_shared(own.record.send_done), 0);
        EXPECT_EQ(last_line(own), "AT+CFUN?\r");
    }
}

// An earlier command timed out and its answer may still come.
TEST_P(Dispatch, AFailedWriteLeavesTheMarkOfTheCommandBefore) {
    dispatch(own, "AT+CFUN?\r");
    ASSERT_EQ(load_shared(own.record.send_done), 1);
    refuse_writes(own.cp);
    EXPECT_EQ(dispatch(own, "AT+CFUN?\r"), -1);
    EXPECT_EQ(load_shared(own.record.send_done), 1);
}

struct Wait {
    pthread_cond_t* cond;
    pthread_mutex_t* mutex;
    int64_t seconds;
    bool operator==(const Wait&) const = default;
};

TEST_P(Dispatch, EachWaitIsThePortsOwnAndAsLongAsItsSide) {
    constexpr int64_t kNow = 1000;
    std::vector<Wait> waits;
    TakenCalls calls;
    calls.clock_gettime = [](clockid_t /*clock*/, timespec* now) {
        *now = {kNow, 0};
        return 0;
    };
    calls.pthread_cond_clockwait = [&waits](pthread_cond_t* cond, pthread_mutex_t* mutex,
                                            clockid_t /*clock*/, const timespec* deadline) {
        waits.push_back({cond, mutex, deadline->tv_sec - kNow});
        return ETIMEDOUT;
    };
    struct {
        const char* line;
        int seconds;
        bool is_platform_there;
        const char* why;
    } const rows[] = {
        {"AT+CFUN?\r", 10, true, "CP's"},
        {"AT+CSQ\r", 5, true, "the platform's"},
        {"ATE1\r", 5, true, "both: only the platform is waited for"},
        {"AT+CSQ\r", 10, false, "CP in the platform's place"},
    };
    for (const auto& row : rows) {
        if (!row.is_platform_there)
            store_shared(own.record.platform_socket, -1);
        waits.clear();
        dispatch(own, row.line);
        EXPECT_EQ(waits, (std::vector<Wait>{
                             {&own.record.response_cond, &own.record.response_mutex, row.seconds}}))
            << row.why;
    }
}

TEST_P(Dispatch, LinesForCpAreWrittenUnderItsLockAlone) {
    const RefusingMutex held(own.cp_mutex);
    EXPECT_EQ(held.tries_of([this] { dispatch(own, "AT+CFUN?\r"); }), 1);
    EXPECT_EQ(held.tries_of([this] { dispatch(own, "ATE1\r"); }), 1) << "forwarded to CP too";
    EXPECT_EQ(held.tries_of([this] { dispatch(own, "AT+CSQ\r"); }), 0) << "the platform's";
    EXPECT_EQ(own.cp.messages(), (Lines{"AT+CFUN?\r", "ATE1\r"})) << "written all the same";
}

TEST_P(Dispatch, MissingArgumentsSendNothing) {
    const PortRecord& record = own.record;
    pthread_mutex_t* mutex = &record.response_mutex;
    pthread_cond_t* cond = &record.response_cond;
    for (const auto send : {send_atcmd_to_plat_or_cp, send_atcmd_to_cp}) {
        testing::internal::CaptureStdout();
        EXPECT_LT(send(-1, "AT\r", 3, nullptr, mutex, cond, &own.tinfo), 0);
        EXPECT_LT(send(-1, "AT\r", 3, &record.mode, nullptr, cond, &own.tinfo), 0);
        EXPECT_LT(send(-1, "AT\r", 3, &record.mode, mutex, nullptr, &own.tinfo), 0);
        EXPECT_LT(send(-1, "AT\r", 3, &record.mode, mutex, cond, nullptr), 0);
        EXPECT_LT(send(-1, nullptr, 3, &record.mode, mutex, cond, &own.tinfo), 0);
        const std::string log = testing::internal::GetCapturedStdout();
        const char* text = send == send_atcmd_to_cp ? "send_atcmd_to_cp input error.\r"
                                                    : "send_atcmd_to_plat_cp input error.\r";
        EXPECT_NE(log.find(text), std::string::npos);
    }
    EXPECT_TRUE(own.cp.messages().empty());
    // A length of nothing is none of these: what follows is CP's closed channel.
    own.cp.daemon_fd = -1;
    testing::internal::CaptureStdout();
    EXPECT_LT(send_atcmd_to_cp(-1, "", 0, &record.mode, mutex, cond, &own.tinfo), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout().find("input error"), std::string::npos);
}

class DispatchWait : public EngineFixture {};

// The paths stand here once more: the tests' own records take them from the ports.
TEST_F(DispatchWait, ACommandMarksThePortWhosePathItCameBy) {
    const char* const paths[kPortCount] = {"/dev/at_usb0", "/dev/at_usb1", "/dev/ttyMSM1"};
    for (const PortRecord& from : g_ports) {
        const Answerer answerer(g_cond_atport);
        at_port.tinfo.from_file_path = paths[from.index];
        dispatch(at_port, "AT+CFUN?\r");
        for (const PortRecord& record : g_ports)
            EXPECT_EQ(load_shared(record.send_done), record.index == from.index) << record.log_name;
        store_shared(from.send_done, 0);
    }
}

TEST_F(DispatchWait, ACommandFromThePciePipeMarksNoPort) {
    const Answerer answerer(g_cond_atport);
    at_port.tinfo.from_file_path = "/dev/mhi_pipe_32";
    EXPECT_EQ(dispatch(at_port, "AT+CFUN?\r"), 0);
    EXPECT_EQ(at_port.cp.messages(), (Lines{"AT+CFUN?\r"}));
    for (const PortRecord& record : g_ports)
        EXPECT_EQ(load_shared(record.send_done), 0) << record.log_name;
}

// A wait would have to lock this mutex, which says so instead of blocking.
TEST_F(DispatchWait, NoCommandWaitsWhileTheMultiplexerRuns) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_t held;
    pthread_mutex_init(&held, &attributes);
    pthread_mutex_lock(&held);
    store_shared(g_uart_port_status, 1);
    store_shared(g_is_cp_timeout_times, 2);
    testing::internal::CaptureStdout();
    for (const char* line : {"AT+CFUN?\r", "AT+CSQ\r"})
        send_atcmd_to_plat_or_cp(-1, line, static_cast<int>(strlen(line)), &g_usb_modem_port_mode,
                                 &held, &g_cond_mport, &modem_port.tinfo);
    EXPECT_EQ(testing::internal::GetCapturedStdout().find("mutex lock failed"), std::string::npos);
    EXPECT_EQ(modem_port.cp.messages(), (Lines{"AT+CFUN?\r"}));
    EXPECT_EQ(modem_port.to_platform(), (Lines{"AT+CSQ\r"}));
    EXPECT_EQ(load_shared(g_is_cp_timeout_times), 2) << "nobody waited, nothing is judged";
    pthread_mutex_unlock(&held);
    pthread_mutex_destroy(&held);
    pthread_mutexattr_destroy(&attributes);
}

// A wait would have to lock the port's mutex, which refuses and says so.
TEST_F(DispatchWait, ALineThatWasNotSentWholeIsNotWaitedFor) {
    struct {
        int sent;
        int waits;
        const char* why;
    } const rows[] = {
        {0, 0, "nothing went out"},  {1, 0, "a part"},          {6, 0, "all but one byte"},
        {7, 1, "the line's length"}, {51, 1, "with its heads"},
    };
    const Answerer answerer(g_cond_mport);
    const RefusingMutex held(g_mut_mport);
    SystemCalls system;
    for (const auto& row : rows) {
        system.answer(Call::send, row.sent);
        int result = -1;
        EXPECT_EQ(held.tries_of([&] { result = dispatch(modem_port, "AT+CSQ\r"); }), row.waits)
            << row.why;
        EXPECT_EQ(result, row.sent) << row.why;
    }
    EXPECT_TRUE(modem_port.cp.messages().empty());
    EXPECT_EQ(all_hosts(), "");
}

TEST_F(DispatchWait, AQuickAnswerResetsTheCountOnTheDevicesGivenOnly) {
    struct {
        const char* channel;
        int after;
    } const rows[] = {{"/dev/at_mdm0", 0}, {"/dev/at_smd7", 0}, {"/dev/smd7", 3}, {"/dev/smd8", 3}};
    const Answerer answerer(g_cond_mport);
    for (const auto& row : rows) {
        store_shared(g_is_cp_timeout_times, 3);
        modem_port.tinfo.to_file_path = row.channel;
        dispatch(modem_port, "AT+CFUN?\r");
        EXPECT_EQ(load_shared(g_is_cp_timeout_times), row.after) << row.channel;
    }
}

TEST_F(DispatchWait, SlowAnswersInARowAreLoggedFromTheSixthOn) {
    constexpr int64_t kSecond = 1'000'000'000;
    struct {
        const char* channel;
        int64_t answer_ns;  // after how long it comes
        const char* said;   // null: nothing
        const char* why;
    } const rows[] = {
        {"/dev/at_mdm0", 3 * kSecond + 1, nullptr, "slow, the first in a row"},
        {"/dev/at_mdm0", 10 * kSecond, nullptr, "second"},
        {"/dev/at_mdm0", 10 * kSecond, nullptr, "third"},
        {"/dev/at_mdm0", 10 * kSecond, nullptr, "fourth"},
        {"/dev/at_mdm0", 10 * kSecond, nullptr, "fifth"},
        {"/dev/at_mdm0", 3 * kSecond + 1, "6, 0, 0.\r\n", "sixth"},
        {"/dev/at_mdm0", 10 * kSecond, "7, 0, 0.\r\n", "and at every further one"},
        {"/dev/smd7", 10 * kSecond, nullptr, "not counted"},
        {"/dev/smd7", 1 * kSecond, nullptr, "not counted"},
        {"/dev/at_smd7", 10 * kSecond, "8, 0, 0.\r\n", "one count for all"},
        {"/dev/at_mdm0", 3 * kSecond, nullptr, "quick"},
        {"/dev/at_mdm0", 10 * kSecond, nullptr, "the first in a row again"},
        {"/dev/at_mdm0", 10 * kSecond, nullptr, "second"},
        {"/dev/at_mdm0", 10 * kSecond, nullptr, "third"},
        {"/dev/at_mdm0", 10 * kSecond, nullptr, "fourth"},
        {"/dev/at_mdm0", 10 * kSecond, nullptr, "fifth"},
        {"/dev/at_mdm0", 10 * kSecond, "6, 0, 0.\r\n", "sixth"},
    };
    const std::string complaint = "!!!!! vexa_at_client exit bls cp error.!!!!! ";
    int64_t passed_ns = 0;  // time passes in the wait alone
    int64_t answer_ns = 0;
    TakenCalls calls;
    calls.clock_gettime = [&passed_ns](clockid_t /*clock*/, timespec* now) {
        *now = {static_cast<time_t>(passed_ns / kSecond), static_cast<long>(passed_ns % kSecond)};
        return 0;
    };
    calls.pthread_cond_clockwait = [&](auto...) {
        passed_ns += answer_ns;
        return answer_ns < 10 * kSecond ? 0 : ETIMEDOUT;
    };
    for (const auto& row : rows) {
        modem_port.tinfo.to_file_path = row.channel;
        answer_ns = row.answer_ns;
        testing::internal::CaptureStdout();
        EXPECT_EQ(dispatch(modem_port, "AT+CFUN?\r"), 0);
        const std::string log = testing::internal::GetCapturedStdout();
        if (row.said == nullptr)
            EXPECT_THAT(log, testing::Not(testing::HasSubstr(complaint))) << row.why;
        else
            EXPECT_THAT(log, testing::HasSubstr(complaint + row.said)) << row.why;
    }
}

int64_t seconds_for(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() -
                                                            start)
        .count();
}

TEST_F(DispatchWait, CpIsWaitedForTenSecondsAndTheSixthSlowAnswerIsLogged) {
    store_shared(g_is_cp_timeout_times, 5);
    testing::internal::CaptureStdout();
    EXPECT_GE(seconds_for([this] { EXPECT_EQ(dispatch(modem_port, "AT+CFUN?\r"), 0); }), 9);
    EXPECT_NE(testing::internal::GetCapturedStdout().find(
                  "!!!!! vexa_at_client exit bls cp error.!!!!! "),
              std::string::npos);
    EXPECT_EQ(load_shared(g_is_cp_timeout_times), 6);
}

TEST_F(DispatchWait, ThePlatformIsWaitedForFiveSeconds) {
    EXPECT_GE(seconds_for([this] { EXPECT_GT(dispatch(modem_port, "AT+CSQ\r"), 0); }), 4);
    EXPECT_EQ(load_shared(g_is_cp_timeout_times), 0);
}

}  // namespace
