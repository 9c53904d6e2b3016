// The console as script/run gives it: from a pipe to its exit status, and on a terminal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>

#include "module_space.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kDeadline = 60s;

struct Outcome {
    int status = -1;
    std::string output;  // standard output only
};

std::string bench_program() {
    return bench::program_folder() + "/vexa-bench";
}

// `input` is given to printf: no single quote, no lone percent sign.
Outcome run(const std::string& input, const std::string& options = "") {
    const std::string command =
        "printf '" + input + "' | " + bench_program() + " " + options + " 2>/dev/null";
    std::FILE* const pipe = popen(command.c_str(), "re");
    Outcome outcome;
    std::array<char, 4096> area;
    while (pipe != nullptr && std::fgets(area.data(), static_cast<int>(area.size()), pipe)) {
        outcome.output += area.data();
    }
    const int status = pipe == nullptr ? -1 : pclose(pipe);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

// A scenario of the test's own, gone with it.
class ScenarioFile {
  public:
    explicit ScenarioFile(const std::string& text) {
        const int fd = mkostemp(path_.data(), O_CLOEXEC);
        (void)!write(fd, text.data(), text.size());
        close(fd);
    }
    ~ScenarioFile() { unlink(path_.c_str()); }
    ScenarioFile(const ScenarioFile&) = delete;
    ScenarioFile& operator=(const ScenarioFile&) = delete;
    const std::string& path() const { return path_; }

  private:
    std::string path_ = "/tmp/vexa-scenario-XXXXXX";
};

TEST(Console, AnswersOfTheModemAreAllThatIsPrinted) {
    const Outcome outcome = run("AT+CFUN?\\nAT+COPS?\\n");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "+CFUN: 1\nOK\n+COPS: 0,0,\"VEXA NET\",7\nOK\n");
}

TEST(Console, BothDestinationsAnswer) {
    const Outcome outcome = run("AT+CSQ\\nATE0V1\\nAT+CFUN?\\n");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "+CSQ: 23,99\nOK\nOK\nOK\n+CFUN: 1\nOK\n");
}

TEST(Console, AnErrorIsAFinalResultToo) {
    const Outcome outcome = run("AT+NONSENSE");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "ERROR\n");
}

TEST(Console, AMessageAndADataCallFromAPipe) {
    const Outcome outcome =
        run("AT+CMGS=\"1\"\\nhello\\nATD*99#\\nping\\n+++\\nAT\\n", "--port modem --time-out 60");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(outcome.output.starts_with("+CMGS: 1\nOK\nCONNECT 150000000\nping\n"))
        << outcome.output;
    EXPECT_TRUE(outcome.output.ends_with("NO CARRIER\nOK\n")) << outcome.output;
}

TEST(Console, CommandWithoutAResultIsAFailureAndTheNextOneIsServed) {
    const ScenarioFile silent("on AT+SILENT\n  silent\notherwise\n  answer OK\n");
    const Outcome outcome = run("AT+SILENT\\n", "--time-out 0.2 --scenario " + silent.path());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "");
}

TEST(Console, NoInputIsNoFailure) {
    EXPECT_EQ(run("").status, 0);
    EXPECT_EQ(run("\\n\\n").status, 0);
}

TEST(Console, WithoutThePlatformItsCommandsGoToTheModem) {
    const ScenarioFile modem("on AT+CSQ\n  answer +CSQ: 1,1\n  answer OK\n");
    const Outcome outcome = run("AT+CSQ\\n", "--no-platform --scenario " + modem.path());
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "+CSQ: 1,1\nOK\n");
}

TEST(Console, MistakeInAScenarioIsTold) {
    const ScenarioFile wrong("on A\n  anser OK\n");
    EXPECT_EQ(run("AT\\n", "--scenario " + wrong.path()).status, 1);
}

class Ports : public testing::TestWithParam<const char*> {};

TEST_P(Ports, ModemAndPlatformAreReached) {
    const Outcome outcome =
        run("AT+CFUN?\\nAT+CSQ\\n", std::string("--time-out 60 --port ") + GetParam());
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "+CFUN: 1\nOK\n+CSQ: 23,99\nOK\n");
}

INSTANTIATE_TEST_SUITE_P(Console, Ports,
                         testing::Values("modem", "at", "uart", "mux", "udp", "pcie"));

// A console on a terminal of the test's own.
class Terminal : public testing::Test {
  protected:
    void SetUp() override {
        pid_ = forkpty(&master_, nullptr, nullptr, nullptr);
        ASSERT_GE(pid_, 0);
        if (pid_ == 0) {
            setenv("TERM", "xterm", 1);
            const std::string program = bench_program();
            execl(program.c_str(), program.c_str(), nullptr);
            _exit(127);
        }
    }
    void TearDown() override {
        close(master_);
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    void type(std::string_view keys) { ASSERT_GT(write(master_, keys.data(), keys.size()), 0); }
    // Reads until the text has come; what came before it is dropped.
    void expect(const std::string& text) {
        const auto deadline = std::chrono::steady_clock::now() + kDeadline;
        while (seen_.find(text) == std::string::npos) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << text << " in " << seen_;
            if (!read_some()) {
                FAIL() << "it ended before " << text << "; it said " << seen_;
            }
        }
        before_ = seen_.substr(0, seen_.find(text));
        seen_.erase(0, seen_.find(text) + text.size());
    }
    int status() {
        while (read_some()) {
        }
        int status = -1;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    pid_t pid_ = -1;
    int master_ = -1;
    std::string seen_;
    std::string before_;  // what came before the text expected last

  private:
    // False when the terminal was closed, and at the deadline.
    bool read_some() {
        pollfd ready{master_, POLLIN, 0};
        if (poll(&ready, 1, 60000) <= 0) {
            return false;
        }
        std::array<char, 4096> area;
        const ssize_t got = read(master_, area.data(), area.size());
        if (got > 0) {
            seen_.append(area.data(), static_cast<std::size_t>(got));
        }
        return got > 0;
    }
};

TEST_F(Terminal, TellsWhatWasStartedAnswersAndEndsWithCtrlD) {
    expect("vexa_at_client on a simulated module");
    expect("picocom /dev/pts/");
    expect("AT> ");
    type("AT+CFUN?\r");
    expect("+CFUN: 1");
    expect("OK");
    type("\x04");
    EXPECT_EQ(status(), 0);
}

TEST_F(Terminal, LineCanBeEditedAndCalledBack) {
    expect("AT> ");
    type(
        "AT+CFUN\x08\x08\x08\x08"
        "CFUN?\r");
    expect("+CFUN: 1");
    type("\x10\r");  // Ctrl-P: the line before
    expect("+CFUN: 1");
}

TEST_F(Terminal, MessageIsAskedFor) {
    expect("AT> ");
    type("AT+CMGS=\"1\"\r");
    expect("text> ");
    type("hello\r");
    expect("+CMGS: 1");
}

TEST_F(Terminal, CtrlCEndsEverything) {
    expect("AT> ");
    type("\x03");
    EXPECT_EQ(status(), 128 + SIGINT);
}

// A terminal program on the pty that stands for a port outside the module.
TEST_F(Terminal, PtyOutsideReachesThePort) {
    expect("/dev/at_usb1: picocom ");
    expect("\r\n  UART port");
    const std::string path = before_;
    expect("AT> ");
    const int port = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(port, 0) << path;
    constexpr std::string_view kCommand = "AT+CFUN?\r";
    ASSERT_EQ(write(port, kCommand.data(), kCommand.size()), 9);
    std::string answer;
    while (answer.find("+CFUN: 1") == std::string::npos) {
        pollfd ready{port, POLLIN, 0};
        ASSERT_EQ(poll(&ready, 1, 60000), 1) << answer;
        std::array<char, 4096> area;
        const ssize_t got = read(port, area.data(), area.size());
        ASSERT_GT(got, 0) << answer;
        answer.append(area.data(), static_cast<std::size_t>(got));
    }
    close(port);
}

}  // namespace
