// Recordings as the replay reads them: what the host did, what was answered before.
#include "recorded_session.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <initializer_list>
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace {

using bench::load_session;
using bench::RecordedSession;
using Kind = bench::RecordedStep::Kind;

constexpr const char* kStart =
    R"({"t":100,"at":"bench","what":"start","version":1,"daemon":"d","target":29,"pcie":true,)"
    R"("platform":false,"platform_after":1.5,"scenario":{"name":"m","text":"on AT\n"},)"
    R"("platform_scenario":{"name":"p","text":"otherwise\n"}})"
    "\n";

// The first line and these behind it.
std::string with_start(std::initializer_list<const char*> lines) {
    std::string text = kStart;
    for (const char* line : lines) {
        text.append(line).append("\n");
    }
    return text;
}

RecordedSession session_of(const std::string& text) {
    std::string path = "/tmp/vexa-session-XXXXXX";
    const int file = mkostemp(path.data(), 0);
    EXPECT_EQ(write(file, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(file);
    RecordedSession session = load_session(path);
    unlink(path.c_str());
    return session;
}

TEST(RecordedSession, StartTellsHowToRunItAgain) {
    const RecordedSession session = session_of(kStart);
    EXPECT_EQ(session.error, "");
    EXPECT_EQ(session.target, 29);
    EXPECT_TRUE(session.pcie);
    EXPECT_FALSE(session.platform);
    EXPECT_EQ(session.platform_after, 1.5);
    EXPECT_EQ(session.scenario, "on AT\n");
    EXPECT_EQ(session.platform_scenario, "otherwise\n");
}

TEST(RecordedSession, StepsKnowWhatWasAnsweredBefore) {
    const RecordedSession session = session_of(with_start(
        {R"({"t":200,"at":"at","dir":"typed","n":3,"data":"AT\r"})",
         R"({"t":300,"at":"at","dir":"out","n":2,"data":"O\u00ff"})",
         R"({"t":310,"at":"cp-at","dir":"out","n":3,"data":"AT\r"})",
         R"({"t":400,"at":"bench","what":"unplug","port":"modem"})",
         R"({"t":350,"at":"at","dir":"out","n":1,"data":"K"})"}));  // another writer's, late
    ASSERT_EQ(session.error, "");
    ASSERT_EQ(session.steps.size(), 2u);
    EXPECT_EQ(session.steps[0].kind, Kind::typed);
    EXPECT_EQ(session.steps[0].text, "AT\r");
    EXPECT_EQ(session.steps[0].time, 100);
    EXPECT_TRUE(session.steps[0].answered.empty());
    EXPECT_EQ(session.steps[1].kind, Kind::unplug);
    EXPECT_EQ(session.steps[1].place, "modem");
    EXPECT_EQ(session.steps[1].answered.at("at"), 3u);
    ASSERT_EQ(session.streams.size(), 1u);  // a modem channel is no way of answers
    const bench::RecordedStream& stream = session.streams.at("at");
    EXPECT_EQ(stream.bytes, "O\xffK");
    EXPECT_EQ(stream.line_of(0), 3u);
    EXPECT_EQ(stream.line_of(1), 3u);
    EXPECT_EQ(stream.line_of(2), 6u);
}

TEST(RecordedSession, StepTellsOnlyTheWaysThatSaidMoreSinceTheStepBefore) {
    const RecordedSession session =
        session_of(with_start({R"({"t":200,"at":"at","dir":"out","n":2,"data":"OK"})",
                               R"({"t":300,"at":"modem","dir":"typed","n":1,"data":"A"})",
                               R"({"t":400,"at":"modem","dir":"out","n":1,"data":"B"})",
                               R"({"t":500,"at":"modem","dir":"typed","n":1,"data":"C"})",
                               R"({"t":600,"at":"modem","dir":"typed","n":1,"data":"D"})"}));
    using Answered = std::map<bench::StreamName, std::size_t>;
    ASSERT_EQ(session.steps.size(), 3u);
    EXPECT_EQ(session.steps[0].answered, (Answered{{"at", 2}}));
    EXPECT_EQ(session.steps[1].answered, (Answered{{"modem", 1}}));
    EXPECT_EQ(session.steps[2].answered, Answered{});
}

TEST(RecordedSession, LinesThatAreNoneArePassedOverAndKnown) {
    const char* const good = R"({"t":200,"at":"at","dir":"typed","n":1,"data":"A"})";
    const std::vector<std::string> broken{
        "",                                                               // empty
        "5",                                                              // no object
        R"({"at":"at","dir":"typed","data":"x"})",                        // no time
        R"({"t":"x","at":"at","dir":"typed","data":"x"})",                // a time of another type
        R"({"t":1.5,"at":"at","dir":"typed","data":"x"})",                // a time with a fraction
        R"({"t":-1,"at":"at","dir":"typed","data":"x"})",                 // before all time
        R"({"t":18446744073709551615,"at":"at","data":"x"})",             // more than a time can be
        R"({"t":300,"at":"at","dir":"typed","data":")"                    // cut off
            + std::string(100'000, 'x'),                                  // in a huge line
        "{\"t\":300,\"at\":\"at\",\"dir\":\"typed\",\"data\":\"\xff\"}",  // no UTF-8
        R"({"t":1,"at":)" + std::string(50'000, '[')};                    // nested without end
    for (const std::string& line : broken) {
        const RecordedSession session = session_of(with_start({line.c_str(), good}));
        EXPECT_EQ(session.error, "") << line.substr(0, 60);
        EXPECT_EQ(session.passed_over, std::vector<std::size_t>{2}) << line.substr(0, 60);
        ASSERT_EQ(session.steps.size(), 1u) << line.substr(0, 60);
        EXPECT_EQ(session.steps[0].text, "A");
    }
}

TEST(RecordedSession, FieldsOfAnotherTypeAreTakenAsAbsent) {
    const RecordedSession session =
        session_of(R"({"t":100,"at":"bench","what":"start","version":1,"target":"x","pcie":7,)"
                   R"("platform":[],"platform_after":"y","scenario":"z","platform_scenario":null})"
                   "\n"
                   R"({"t":200,"at":"bench","what":"mhi","change":5,"channel":"x"})"
                   "\n"
                   R"({"t":300,"at":["at"],"dir":{},"what":1,"data":{}})"
                   "\n");
    EXPECT_EQ(session.error, "");
    EXPECT_EQ(session.target, 35);
    EXPECT_FALSE(session.pcie);
    EXPECT_TRUE(session.platform);
    EXPECT_EQ(session.platform_after, 0);
    EXPECT_EQ(session.scenario, "");
    ASSERT_EQ(session.steps.size(), 1u);
    EXPECT_EQ(session.steps[0].text, "");
    EXPECT_EQ(session.steps[0].channel, 0);
}

TEST(RecordedSession, AnswersToUdpClientsThatTheBenchDidNotPlayAreNotExpected) {
    const RecordedSession session = session_of(
        with_start({R"({"t":200,"at":"udp","peer":"127.0.0.1:1","dir":"typed","n":1,"data":"A"})",
                    R"({"t":210,"at":"udp","peer":"127.0.0.1:1","dir":"out","n":1,"data":"B"})",
                    R"({"t":220,"at":"udp","peer":"127.0.0.1:2","dir":"out","n":1,"data":"C"})"}));
    ASSERT_EQ(session.streams.size(), 1u);
    EXPECT_EQ(session.streams.at("udp 127.0.0.1:1").bytes, "B");
}

struct BrokenRow {
    const char* text;
    const char* error;  // the end of it; empty: none
};

// The text itself, not where it lies.
void PrintTo(const BrokenRow& row, std::ostream* out) {
    *out << row.text;
}

class BrokenSession : public testing::TestWithParam<BrokenRow> {};

TEST_P(BrokenSession, IsToldOrPassedOver) {
    const std::string error = session_of(GetParam().text).error;
    const std::string wanted = GetParam().error;
    if (wanted.empty()) {
        EXPECT_EQ(error, "");
    } else {
        EXPECT_NE(error.find(wanted), std::string::npos) << error;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, BrokenSession,
    testing::Values(
        BrokenRow{"", "empty"},                                      // nothing was recorded
        BrokenRow{"AT+CFUN?\n", "line 1: no start of a recording"},  // some other file
        BrokenRow{"[1]\n", "line 1: no start of a recording"},       // JSON, but no object
        BrokenRow{"{\"t\":1,\"at\":\"bench\",\"what\":\"end\"}\n",   // its head was cut off
                  "line 1: no start of a recording"},
        BrokenRow{"{\"t\":1,\"at\":\"bench\",\"what\":\"start\",\"version\":2}\n",
                  "line 1: version 2; this knows 1"},  // of a later tool
        BrokenRow{"{\"t\":1,\"at\":\"bench\",\"what\":\"start\",\"version\":1}\n{\"t\":2,\"at",
                  ""},  // the bench was killed
        BrokenRow{"{\"t\":1,\"at\":\"bench\",\"what\":\"start\",\"version\":1}\n"
                  "{\"t\":2,\"at\":\"at\",\"dir\":\"typed\",\"data\":\"\\u0100\"}\n",
                  "line 2: data that are no bytes"}));  // not written by us

}  // namespace
