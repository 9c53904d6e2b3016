// script/run --record and script/replay: a session kept whole, and played again.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "console_run.h"

namespace {

using Json = nlohmann::json;
using namespace std::chrono_literals;

constexpr auto kDeadline = 60s;

std::vector<Json> lines_of(const std::string& path) {
    std::ifstream file(path);
    std::vector<Json> found;
    for (std::string line; std::getline(file, line);) {
        Json json = Json::parse(line, nullptr, false);
        if (json.is_discarded()) {
            ADD_FAILURE() << "no JSON: " << line;
            continue;
        }
        found.push_back(std::move(json));
    }
    return found;
}

class Recorded : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(mkdtemp(folder_.data()), nullptr);
        path_ = folder_ + "/session.jsonl";
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    void record(const std::string& script, const std::string& options = "") {
        const Outcome outcome =
            run_console(script, "--time-out 60 --record " + path_ + " " + options);
        ASSERT_EQ(outcome.status, 0) << outcome.output;
        lines_ = lines_of(path_);
    }
    static Outcome replay(const std::string& path, const std::string& options = "") {
        return run_console("", "--replay " + path + " --fast " + options);
    }
    // The path of a file with this scenario.
    std::string scenario(const char* text) const {
        const std::string path = folder_ + "/scenario.txt";
        std::ofstream(path) << text;
        return path;
    }
    // All bytes of a place in one direction, in order of time.
    std::string bytes(const std::string& place, const std::string& direction) {
        std::vector<Json> sorted = lines_;
        std::stable_sort(sorted.begin(), sorted.end(), [](const Json& one, const Json& other) {
            return one["t"].get<long>() < other["t"].get<long>();
        });
        std::string all;
        for (const Json& line : sorted) {
            if (line["at"] == place && line.value("dir", "") == direction) {
                all += line["data"].get<std::string>();
            }
        }
        return all;
    }
    bool has(const std::string& place, const std::string& what, const std::string& field = "",
             const std::string& value = "") {
        return std::any_of(lines_.begin(), lines_.end(), [&](const Json& line) {
            return line["at"] == place && line.value("what", "") == what &&
                   (field.empty() || line.value(field, "") == value);
        });
    }

    std::string folder_ = "/tmp/vexa-recorded-XXXXXX";
    std::string path_;
    std::vector<Json> lines_;
};

TEST_F(Recorded, CommandOfTheModemPassesFourBoundaries) {
    record("AT+CFUN?", "--port modem");
    ASSERT_FALSE(lines_.empty());
    EXPECT_EQ(lines_.front()["what"], "start");
    EXPECT_EQ(lines_.back()["what"], "end");
    EXPECT_EQ(bytes("modem", "typed"), "AT+CFUN?\r");
    EXPECT_EQ(bytes("modem", "in"), "AT+CFUN?\r");
    EXPECT_EQ(bytes("cp-modem", "out"), "AT+CFUN?\r");
    EXPECT_EQ(bytes("cp-modem", "in"), "\r\n+CFUN: 1\r\n\r\nOK\r\n");
    EXPECT_EQ(bytes("modem", "out"), "\r\n+CFUN: 1\r\n\r\nOK\r\n");
    EXPECT_TRUE(has("cp-modem", "intent"));
    EXPECT_NE(bytes("log", "out").find("common_input_atcmd_proc"), std::string::npos);
}

TEST_F(Recorded, CausesStandBeforeEffectsInTheOrderOfTime) {
    record("AT+CFUN?", "--port at");
    const auto time_of = [this](const char* place, const char* direction) {
        for (const Json& line : lines_) {
            if (line["at"] == place && line.value("dir", "") == direction) {
                return line["t"].get<long>();
            }
        }
        ADD_FAILURE() << "nothing " << direction << " at " << place;
        return 0L;
    };
    EXPECT_LE(time_of("at", "typed"), time_of("at", "in"));
    EXPECT_LE(time_of("at", "in"), time_of("cp-at", "out"));
    EXPECT_LE(time_of("cp-at", "out"), time_of("cp-at", "in"));
    EXPECT_LE(time_of("cp-at", "in"), time_of("at", "out"));
}

TEST_F(Recorded, CommandOfThePlatformPassesItsConnection) {
    record("AT+CGMR");
    EXPECT_TRUE(has("platform", "connect"));
    EXPECT_NE(bytes("platform", "out").find("AT+CGMR\r"), std::string::npos);
    EXPECT_NE(bytes("platform", "in").find("OK"), std::string::npos);
    EXPECT_EQ(bytes("cp-at", "out"), "");
}

TEST_F(Recorded, DatagramsNameTheirClient) {
    record("AT+CFUN?", "--port udp");
    EXPECT_EQ(bytes("udp", "in"), "AT+CFUN?\r");
    EXPECT_EQ(bytes("udp", "typed"), "AT+CFUN?\r");
    EXPECT_NE(bytes("udp", "out").find("+CFUN: 1"), std::string::npos);
    std::vector<std::string> peers;
    for (const Json& line : lines_) {
        if (line["at"] == "udp") {
            peers.push_back(line["peer"]);
        }
    }
    ASSERT_FALSE(peers.empty());
    for (const std::string& peer : peers) {
        EXPECT_EQ(peer, peers.front());
    }
}

TEST_F(Recorded, QmiRequestsAndAnswers) {
    record("AT+CFUN?", "--port qmi");
    EXPECT_EQ(bytes("qmi", "in"), "AT+CFUN?\r");
    EXPECT_NE(bytes("qmi", "out").find("+CFUN: 1"), std::string::npos);
}

TEST_F(Recorded, ModesLinesUeventsAndWhatWasDone) {
    record(
        "ATD*99#\nping\n+++\n/signal dtr on\nAT\n/unplug uart\n/plug uart\n/mhi disconnect 32\n"
        "/platform stop\n/platform start\nAT",
        "--port modem --pcie");
    EXPECT_TRUE(has("modem", "mode", "mode", "ppp"));
    EXPECT_TRUE(has("modem", "mode", "mode", "command"));
    EXPECT_TRUE(has("bench", "lines", "lines", "DTR"));
    EXPECT_TRUE(has("cp-modem", "lines-set", "lines", "DTR"));
    EXPECT_TRUE(has("bench", "unplug", "port", "uart"));
    EXPECT_TRUE(has("bench", "plug", "port", "uart"));
    EXPECT_TRUE(has("uart", "hangup"));
    EXPECT_TRUE(has("bench", "mhi", "change", "disconnect"));
    EXPECT_NE(bytes("uevent", "in").find("MHI_CHANNEL_STATE_32=DISCONNECTED"), std::string::npos);
    EXPECT_TRUE(has("bench", "platform-stop"));
    EXPECT_TRUE(has("bench", "platform-start"));
}

TEST_F(Recorded, StartOfTheLinkIsNoStepOfTheReplay) {
    record("AT", "--port pcie");
    EXPECT_FALSE(has("bench", "mhi"));
    EXPECT_NE(bytes("uevent", "in").find("MHI_CHANNEL_STATE_32=CONNECTED"), std::string::npos);
}

TEST_F(Recorded, StaysWholeWhenTheBenchIsKilled) {
    const std::string program = bench::program_folder() + "/vexa-bench";
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Its input never ends.
        const std::string command = "sleep 600 | " + program + " --record " + path_;
        setpgid(0, 0);
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    const auto has_opened = [this] {
        std::ifstream file(path_);
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        return text.find("\"at\":\"cp-uart\",\"what\":\"open\"") != std::string::npos;
    };
    while (!has_opened() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(2ms);
    }
    kill(-child, SIGKILL);
    waitpid(child, nullptr, 0);
    lines_ = lines_of(path_);  // fails for a line that is not whole
    ASSERT_FALSE(lines_.empty());
    EXPECT_EQ(lines_.front()["what"], "start");
    EXPECT_TRUE(has("cp-uart", "open"));
    EXPECT_FALSE(has("bench", "end"));
}

TEST_F(Recorded, FileThatCannotBeWrittenIsTold) {
    const Outcome outcome = run_console("AT", "--record /nonexistent/file");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("/nonexistent/file: No such file"), std::string::npos)
        << outcome.output;
}

TEST_F(Recorded, FileThatTakesNothingIsTold) {
    const Outcome outcome = run_console("AT", "--record /dev/full");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("not whole: /dev/full: No space left on device"),
              std::string::npos)
        << outcome.output;
}

TEST_F(Recorded, SessionInWhichNothingWasDoneIsNoTest) {
    std::ofstream(path_) << R"({"t":1,"at":"bench","what":"start","version":1})"
                         << "\n";
    const Outcome outcome = replay(path_);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("nothing to play again"), std::string::npos) << outcome.output;
}

class ReplayedPort : public Recorded, public testing::WithParamInterface<const char*> {};

TEST_P(ReplayedPort, GivesTheSameAnswers) {
    record("AT+CFUN?\nAT+CSQ\nAT+COPS?", std::string("--port ") + GetParam());
    const Outcome outcome = replay(path_);
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    EXPECT_NE(outcome.output.find("the same answers: "), std::string::npos) << outcome.output;
}

INSTANTIATE_TEST_SUITE_P(Record, ReplayedPort,
                         testing::Values("modem", "at", "uart", "mux", "udp", "qmi", "pcie"));

TEST_F(Recorded, SessionWithEverythingIsReplayed) {
    record(
        "AT+CMGS=\"1\"\nhello\nATD*99#\nping\n+++\n/signal dtr\n/unplug at\n/plug at\n"
        "/platform stop\n/platform start\nAT+CFUN?",
        "--port modem");
    const Outcome outcome = replay(path_);
    EXPECT_EQ(outcome.status, 0) << outcome.output;
}

TEST_F(Recorded, FirstDifferenceIsToldWithItsLine) {
    record("AT+CFUN?\nAT+COPS?", "--port at");
    std::ofstream changed(folder_ + "/changed.jsonl");
    std::size_t line_number = 0;
    std::size_t answer_line = 0;
    for (Json line : lines_) {
        ++line_number;
        const bool is_answer = line["at"] == "at" && line.value("dir", "") == "out";
        if (is_answer && line["data"] == "\r\n+CFUN: 1\r\n") {
            line["data"] = "\r\n+CFUN: 4\r\n";
            answer_line = line_number;
        }
        changed << line.dump() << "\n";
    }
    changed.close();
    ASSERT_NE(answer_line, 0u);
    const Outcome outcome = replay(folder_ + "/changed.jsonl");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("on at, after 9 bytes that agree"), std::string::npos)
        << outcome.output;
    EXPECT_NE(outcome.output.find("(at \"AT+CFUN?\\r\")"), std::string::npos) << outcome.output;
    EXPECT_NE(outcome.output.find("recorded: \"4"), std::string::npos) << outcome.output;
    EXPECT_NE(outcome.output.find("(line " + std::to_string(answer_line) + ")"), std::string::npos)
        << outcome.output;
    EXPECT_NE(outcome.output.find("now:      \"1"), std::string::npos) << outcome.output;
}

TEST_F(Recorded, AnswerThatDoesNotComeIsADifference) {
    record("AT+CFUN?", "--port at");
    const std::string silent = scenario("otherwise\n    silent\n");
    const Outcome outcome = replay(path_, "--time-out 0.5 --scenario " + silent);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("now:      nothing"), std::string::npos) << outcome.output;
}

TEST_F(Recorded, AnswerBeyondTheRecordedOnesIsADifference) {
    record("AT+CFUN?", "--port at");
    const std::string more =
        scenario("otherwise\n    send \\r\\n+CFUN: 1\\r\\n\\r\\nOK\\r\\nMORE\n");
    const Outcome outcome = replay(path_, "--scenario " + more);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("recorded: nothing more"), std::string::npos) << outcome.output;
}

TEST_F(Recorded, ReplayDoesNotOverwriteWhatItPlays) {
    record("AT+CFUN?", "--port at");
    const Outcome outcome = replay(path_, "--record " + folder_ + "/./session.jsonl");
    EXPECT_EQ(outcome.status, 2);
    EXPECT_NE(outcome.output.find("would overwrite"), std::string::npos) << outcome.output;
    EXPECT_EQ(lines_of(path_), lines_);
}

TEST_F(Recorded, BrokenLineIsToldAndPassedOver) {
    record("AT+CFUN?", "--port at");
    std::ofstream(path_, std::ios::app) << "{\"t\":1,\"at\":\"at\",\"dir";
    const Outcome outcome = replay(path_);
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    EXPECT_NE(outcome.output.find("line " + std::to_string(lines_.size() + 1) +
                                  " is broken or cut off; passed over"),
              std::string::npos)
        << outcome.output;
}

TEST_F(Recorded, NoRecordingIsNoReplay) {
    const Outcome outcome = replay("/etc/passwd");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("/etc/passwd: line 1: no start"), std::string::npos)
        << outcome.output;
}

}  // namespace
