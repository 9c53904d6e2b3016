// The log facility: both sinks, and the stand-in behind the diagnostic one.
#include "log.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform_pack.h"
#include "shared_int.h"
#include "start_trace.h"
#include "vexa_common_def.h"
#include "vexa_socket_client.h"

namespace {

// An argument that lets a test see the site of its message instead of sending it.
struct SiteProbe {
    const vexa_diag_message** site;
};
void send_diag_message(const vexa_diag_message* site, const char* /*function*/,
                       const SiteProbe& probe) {
    *probe.site = site;
}

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

std::string g_diag_path;

// The stand-in opens its file at its first use, so the name is set before the first test.
class DiagFile : public testing::Environment {
  public:
    void SetUp() override {
        char path[] = "/tmp/vexa_diag_XXXXXX";
        const int fd = mkstemp(path);
        if (fd >= 0)
            close(fd);
        setenv("VEXA_DIAG_LOG", path, 1);
        g_diag_path = path;
    }
    void TearDown() override { unlink(g_diag_path.c_str()); }
};
const auto* const g_diag_file = testing::AddGlobalTestEnvironment(new DiagFile);

std::string diag_text() {
    std::ifstream file(g_diag_path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

class LogTest : public testing::Test {
  protected:
    void TearDown() override { store_shared(g_qxdm_log, 0); }

    static std::string logged_with(int sink) {
        store_shared(g_qxdm_log, sink);
        testing::internal::CaptureStdout();
        VEXA_LOG("%s enter. 201909191715.%d.%d.\r\n", "main", 0, 0);
        return testing::internal::GetCapturedStdout();
    }
};

TEST_F(LogTest, EntryLineIsStampFunctionLineAndMessage) {
    EXPECT_THAT(logged_with(0),
                MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} "
                             "logged_with\\([0-9]+\\):main enter. 201909191715.0.0.\r\n"));
}

// By the daemon's clock: time() is that of the last tick, milliseconds late.
time_t this_second() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now.tv_sec;
}

std::string stamp_in_zone(const char* zone, time_t second) {
    setenv("TZ", zone, 1);
    tzset();
    tm local{};
    char text[26];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", localtime_r(&second, &local));
    return text;
}

TEST_F(LogTest, TheStampIsLocalTime) {
    const char* const zone = getenv("TZ");
    const std::string zone_before = zone == nullptr ? "" : zone;
    for (const char* other : {"XXX-14", "YYY+11:30"}) {  // east and west, and a part of an hour
        const std::string from = stamp_in_zone(other, this_second());
        std::string line;
        std::thread([&line] { line = logged_with(0); }).join();  // which has no stamp kept yet
        const std::string to = stamp_in_zone(other, this_second());
        EXPECT_THAT(line.substr(0, 19), testing::AllOf(testing::Ge(from), testing::Le(to)));
    }
    if (zone == nullptr)
        unsetenv("TZ");
    else
        setenv("TZ", zone_before.c_str(), 1);
    tzset();
}

TEST_F(LogTest, ALineIsThreeWritesStampPlaceAndMessage) {
    std::vector<std::string> writes;
    const cookie_io_functions_t gather{
        nullptr,
        [](void* cookie, const char* text, std::size_t size) {
            static_cast<std::vector<std::string>*>(cookie)->emplace_back(text, size);
            return static_cast<ssize_t>(size);
        },
        nullptr, nullptr};
    FILE* const gathered = fopencookie(&writes, "w", gather);
    setvbuf(gathered, nullptr, _IONBF, 0);
    FILE* const standard = std::exchange(stdout, gathered);
    VEXA_LOG("%s enter. 201909191715.%d.%d.\r\n", "main", 0, 0);
    stdout = standard;
    fclose(gathered);
    ASSERT_EQ(writes.size(), 3);
    EXPECT_THAT(writes[0], MatchesRegex("[0-9-]{10} [0-9:]{8} "));
    EXPECT_THAT(writes[1], MatchesRegex("TestBody\\([0-9]+\\):"));
    EXPECT_EQ(writes[2], "main enter. 201909191715.0.0.\r\n");
}

TEST_F(LogTest, OnlyExactlyOneChoosesTheDiagnosticChannel) {
    for (const int sink : {0, 2, -1, 11})
        EXPECT_THAT(logged_with(sink), HasSubstr("main enter.")) << sink;
    EXPECT_EQ(logged_with(1), "");
}

TEST_F(LogTest, DiagnosticMessageStartsWithTheFunctionName) {
    const std::size_t before = diag_text().size();
    logged_with(1);
    EXPECT_THAT(diag_text().substr(before),
                MatchesRegex("log_test.cpp:[0-9]+ logged_with\\(\\): main enter. "
                             "201909191715.0.0.\n"));
}

TEST_F(LogTest, DiagnosticMessageNamesItsPlaceSubsystemAndLevel) {
    const vexa_diag_message* site = nullptr;
    const int line = __LINE__ + 1;
    VEXA_DIAG("probe %d", SiteProbe{&site});
    ASSERT_NE(site, nullptr);
    EXPECT_EQ(site->line, line);
    EXPECT_EQ(site->subsystem, 65);
    EXPECT_EQ(site->level_mask, 2u);
    EXPECT_STREQ(site->format, "%s(): probe %d");
    EXPECT_THAT(std::string(site->file), EndsWith("log_test.cpp"));
}

TEST_F(LogTest, StandardOutputKeepsItsOwnBuffering) {
    testing::internal::CaptureStdout();
    if (__flbf(stdout) != 0) {
        testing::internal::GetCapturedStdout();
        GTEST_SKIP() << "standard output is a terminal";
    }
    VEXA_LOG("%d,%d,%d.\r\n", 1, 2, 3);
    const off_t written = lseek(STDOUT_FILENO, 0, SEEK_END);
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_EQ(written, 0) << "it was flushed";
    EXPECT_THAT(text, EndsWith("1,2,3.\r\n"));
}

TEST_F(LogTest, DiagnosticChannelCarriesAtMostThreeArguments) {
    const std::size_t before = diag_text().size();
    store_shared(g_qxdm_log, 1);
    VEXA_LOG("%d %s %d|%s", 1, "two", 3, "four");
    EXPECT_THAT(diag_text().substr(before), MatchesRegex(".*\\(\\): 1 two 3\\|\n"));
}

TEST_F(LogTest, DiagnosticFormatIsCutAtTheFirstConversionWithoutArgument) {
    constexpr auto kWhole = diag_format("%s(): 100%% %d %d %d.");
    EXPECT_STREQ(kWhole.data(), "%s(): 100%% %d %d %d.");
    constexpr auto kCut = diag_format("%s(): %d %d %d %d.");
    EXPECT_STREQ(kCut.data(), "%s(): %d %d %d ");
}

TEST_F(LogTest, StampFollowsTheClock) {
    // Two messages in different seconds must not share the text kept for a second.
    const std::string first = logged_with(0).substr(0, 19);
    std::string later = first;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (later == first && std::chrono::steady_clock::now() < deadline) {
        usleep(20000);
        later = logged_with(0).substr(0, 19);
    }
    EXPECT_GT(later, first);
}

TEST(StartTrace, LineNamesThreadFunctionAndKind) {
    char* text = nullptr;
    std::size_t size = 0;
    log_file = open_memstream(&text, &size);
    ASSERT_NE(log_file, nullptr);
    port_bridge_log_enabled = true;
    START_TRACE_ERROR("Unsupported target: %s\n", "x");
    START_TRACE_INFO("SMD transport supported!!");
    const std::string written(text, size);
    pb_get_log_enabled();
    START_TRACE_INFO("not written");
    EXPECT_EQ(written.size(), size);
    fclose(log_file);
    log_file = nullptr;
    free(text);
    EXPECT_THAT(written,
                MatchesRegex("\\[thread 0x[0-9a-f]+\\] +TestBody, *[0-9]+ \\(ERROR\\):   "
                             "Unsupported target: x\n\\[thread 0x[0-9a-f]+\\] +TestBody, *[0-9]+ "
                             "\\(INFO\\):    SMD transport supported!!"));
    EXPECT_EQ(written.find("TestBody"), written.find(']') + 2 + 30 - 8);
}

// The command that turns the diagnostic channel on is answered by the platform itself.
TEST_F(LogTest, APlatformAnswerGoesToTheDiagnosticChannel) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    std::string pack(kPackHeadsSize + 6, '\0');
    build_pack(pack, CMD_AT_CMD, "\r\nOK\r\n");
    pack += pack;
    ASSERT_EQ(write(ends[1], pack.data(), pack.size()), static_cast<ssize_t>(pack.size()));
    store_shared(g_qxdm_log, 1);
    std::string answer(kTextAreaSize, '\0');
    vexa_ext_info info{};
    EXPECT_EQ(client_recv_data_from_platform(ends[0], answer.data(), kDeviceReadSize, MSG_DONTWAIT,
                                             &info),
              12);
    EXPECT_NE(diag_text().find("mulit_pack_offset:50, offset:0, each_payload_buf:("),
              std::string::npos);
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
