// The console as script/run gives it: from a pipe to its exit status, and on a terminal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>

#include "module_space.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kDeadline = 60s;

struct Outcome {
    int status = -1;
    std::string output;  // standard output, and error where a test asks for it
};

std::string bench_program() {
    return bench::program_folder() + "/vexa-bench";
}

// `input` is given to printf: no single quote, no lone percent sign.
Outcome run(const std::string& input, const std::string& options = "",
            const std::string& errors = "2>/dev/null") {
    const std::string command =
        "printf '" + input + "' | " + bench_program() + " " + options + " " + errors;
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

TEST(Console, WrongUsageIsTold) {
    EXPECT_EQ(run("AT\\n", "--nonsense").status, 2);
    EXPECT_EQ(run("AT\\n", "--port nowhere").status, 2);
    EXPECT_EQ(run("AT\\n", "--time-out 0").status, 2);
    EXPECT_EQ(run("AT\\n", "--time-out soon").status, 2);
    EXPECT_EQ(run("AT\\n", "--platform-after -1").status, 2);
    EXPECT_EQ(run("AT\\n", "--help").status, 0);
}

TEST(Console, MistakeInAScenarioIsTold) {
    const ScenarioFile wrong("on A\n  anser OK\n");
    for (const char* option : {"--scenario ", "--platform-scenario "}) {
        const Outcome outcome = run("AT\\n", option + wrong.path(), "2>&1");
        EXPECT_EQ(outcome.status, 1) << option;
        EXPECT_NE(outcome.output.find(wrong.path() + ": line 2: "), std::string::npos)
            << option << outcome.output;
    }
}

struct OwnCommand {
    const char* input;
    const char* output;  // stands in what is printed
    int status;
};

void PrintTo(const OwnCommand& row, std::ostream* out) {
    *out << row.input;
}

class OwnCommands : public testing::TestWithParam<OwnCommand> {};

TEST_P(OwnCommands, DoAndTell) {
    const auto& [input, output, status] = GetParam();
    const Outcome outcome = run(input, "--port modem --time-out 60");
    EXPECT_EQ(outcome.status, status) << outcome.output;
    EXPECT_NE(outcome.output.find(output), std::string::npos) << outcome.output;
}

INSTANTIATE_TEST_SUITE_P(
    Console, OwnCommands,
    testing::Values(
        OwnCommand{"/help\\n", "/unplug PORT", 0},
        OwnCommand{"/ports\\n", "modem command | at command | uart command | platform runs", 0},
        OwnCommand{"AT\\n/stats\\n", "modem: 3 bytes in 1 chunks to the daemon, 6 in 1 from it", 0},
        OwnCommand{"AT\\n/stats\\n", "commands: 1 sent here, 1 final results", 0},
        OwnCommand{"/unplug at\\n/ports\\n", "at unplugged", 0},
        OwnCommand{"/unplug modem\\n/plug modem\\n/ports\\n", "modem command", 0},
        OwnCommand{"/unplug\\n", "no such port here: ''", 1},
        OwnCommand{"/plug at\\n", "plugged already", 1},
        OwnCommand{"/unplug at\\n/unplug at\\n", "is not plugged", 1},
        OwnCommand{"/unplug pcie\\n", "no such port here: 'pcie'", 1},  // only with --pcie
        OwnCommand{"/platform stop\\nAT+CSQ\\n", "ERROR", 0},  // the modem does not know it
        OwnCommand{"/platform stop\\n/ports\\n", "no platform", 0},
        OwnCommand{"/platform stop\\n/platform start\\n/ports\\n", "platform runs", 0},
        OwnCommand{"/platform start\\n", "runs already", 1},
        OwnCommand{"/platform\\n", "/platform stop, or /platform start", 1},
        OwnCommand{"/signal dtr\\n", "modem lines: DTR", 0},
        OwnCommand{"/signal dtr\\n/signal rts on at\\n/signal dtr\\n", "modem lines: none", 0},
        OwnCommand{"/signal cd on cp-at\\n", "cp-at lines: CD", 0},
        OwnCommand{"/signal xyz\\n", "no such line: 'XYZ'", 1},
        OwnCommand{"/signal dtr on nowhere\\n", "no such place: 'nowhere'", 1},
        OwnCommand{"/signal\\n", "/signal NAME", 1},
        OwnCommand{"/scenario /nonexistent\\n", "/nonexistent: cannot be read", 1},
        OwnCommand{"/scenario /etc/passwd\\n", "line 1", 1},
        OwnCommand{"/nonsense\\n", "no such command: /nonsense", 1}));

TEST(Console, HelpFitsASmallTerminal) {
    const Outcome outcome = run("/help\\n");
    std::istringstream lines(outcome.output);
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        EXPECT_LT(line.size(), 80u) << line;
    }
    EXPECT_GT(count, 10);
    EXPECT_LT(count, 23);  // of 24 rows, one shows the prompt and one the modes
}

TEST(Console, AnotherScenarioFromNowOn) {
    const ScenarioFile other("on AT+CFUN?\n  answer +CFUN: 4\n  answer OK\n");
    const Outcome outcome =
        run("AT+CFUN?\\n/scenario " + other.path() + "\\nAT+CFUN?\\n", "--port modem");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "+CFUN: 1\nOK\n+CFUN: 4\nOK\n");
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
        ASSERT_NE(mkdtemp(state_.data()), nullptr);
        start();
    }
    void start() {
        const winsize size{.ws_row = 24, .ws_col = 80, .ws_xpixel = 0, .ws_ypixel = 0};
        pid_ = forkpty(&master_, nullptr, nullptr, &size);
        ASSERT_GE(pid_, 0);
        if (pid_ == 0) {
            setenv("TERM", "xterm", 1);
            setenv("XDG_STATE_HOME", state_.c_str(), 1);
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
        std::filesystem::remove_all(state_);
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
    // In either order.
    void expect_both(const std::string& one, const std::string& other) {
        expect(one);
        seen_ = before_.find(other) == std::string::npos ? seen_ : other + seen_;
        expect(other);
    }
    int status() {
        while (read_some()) {
        }
        int status = -1;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    std::string state_ = "/tmp/vexa-state-XXXXXX";  // where the history is kept
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

TEST_F(Terminal, LineOfAnEarlierSessionIsCalledBack) {
    expect("AT> ");
    type("AT+CFUN?\r");
    expect("+CFUN: 1");
    expect("AT> ");
    type("\x04");
    EXPECT_EQ(status(), 0);
    close(master_);
    start();
    expect("AT> ");
    type("\x10\r");  // Ctrl-P: the line before
    expect("+CFUN: 1");
}

TEST_F(Terminal, BottomRowTellsTheModes) {
    expect("\x1b[1;23r");  // the rows above scroll
    expect("\x1b[24;1H");  // the bottom one is written
    expect("modem command | at command | uart command | platform runs");
    expect("AT> ");
    type("AT+CMGS=\"1\"\r");
    expect_both("at sms", "text> ");
    type("hello\r");
    expect("at command");
    type("/unplug uart\r");
    expect("uart unplugged");
    type("/platform stop\r");
    expect("no platform");
    type("/quit\r");
    expect("\x1b[r");  // given back
    EXPECT_EQ(status(), 0);
}

TEST_F(Terminal, AnotherSizeMovesTheBottomRow) {
    expect("AT> ");
    const winsize size{.ws_row = 30, .ws_col = 60, .ws_xpixel = 0, .ws_ypixel = 0};
    ASSERT_EQ(ioctl(master_, TIOCSWINSZ, &size), 0);
    expect("\x1b[1;29r");
    expect("\x1b[30;1H");
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
