// The text format of scenarios.
#include "scenario.h"

#include <gtest/gtest.h>

#include <array>

#include "modem_peer.h"

namespace {

using bench::Milliseconds;
using bench::Trigger;

bench::Scenario parsed(std::string_view text) {
    bench::ParsedScenario result = bench::parse_scenario(text, bench::modem_verbs());
    EXPECT_EQ(result.error, "");
    return result.scenario;
}

TEST(Scenario, RuleHoldsItsStepsInOrder) {
    const bench::Scenario scenario =
        parsed("on AT+CFUN?\n    answer +CFUN: 1\n    wait 200ms\n    answer OK\n");
    ASSERT_EQ(scenario.rules.size(), 1U);
    const bench::Rule& rule = scenario.rules[0];
    EXPECT_EQ(rule.patterns, std::vector<std::string>{"AT+CFUN?"});
    EXPECT_EQ(rule.line, 1);
    ASSERT_EQ(rule.steps.size(), 3U);
    EXPECT_EQ(rule.steps[0].text, "+CFUN: 1");
    EXPECT_EQ(rule.steps[1].time, Milliseconds(200));
    EXPECT_EQ(rule.steps[2].verb, "answer");
}

TEST(Scenario, SeveralOnLinesInARowAreOneRule) {
    const bench::Scenario scenario = parsed("on A\non B\n  answer OK\non C\n  silent\n");
    ASSERT_EQ(scenario.rules.size(), 2U);
    EXPECT_EQ(scenario.rules[0].patterns, (std::vector<std::string>{"A", "B"}));
    EXPECT_EQ(scenario.rules[1].patterns, std::vector<std::string>{"C"});
}

TEST(Scenario, PropertiesBelongToTheirRule) {
    const bench::Scenario scenario = parsed(
        "on A\n  only uart\n  times 2\n  answer OK\nevery 3s\n  only at\n  answer RING\n"
        "after 50ms\n  send \\x00\\r\\n\n");
    ASSERT_EQ(scenario.rules.size(), 3U);
    EXPECT_EQ(scenario.rules[0].only, "uart");
    EXPECT_EQ(scenario.rules[0].times, 2);
    EXPECT_EQ(scenario.rules[1].trigger, Trigger::every);
    EXPECT_EQ(scenario.rules[1].time, Milliseconds(3000));
    EXPECT_EQ(scenario.rules[2].trigger, Trigger::after);
    EXPECT_EQ(scenario.rules[2].steps[0].text, std::string("\0\r\n", 3));
}

TEST(Scenario, LineEndsOfBothKindsCommentsAndBlankLinesAreFine) {
    const bench::Scenario scenario = parsed("# first\r\n\r\non A\r\n\t# second\r\n\tanswer OK");
    ASSERT_EQ(scenario.rules.size(), 1U);
    EXPECT_EQ(scenario.rules[0].steps[0].text, "OK");
}

TEST(Scenario, MistakesAreNamedWithTheirLine) {
    struct Row {
        const char* text;
        const char* error;
    };
    constexpr std::array kRows{
        Row{"answer OK",
            "line 1: \"answer\" stands before the first on, otherwise, after or every"},
        Row{"on A\n  anser OK", "line 2: unknown word \"anser\""},
        Row{"on", "line 1: \"on\" needs a command"},
        Row{"on A\n  wait 5", "line 2: \"wait\" needs a time such as 200ms or 2s"},
        Row{"on A\n  wait -5s", "line 2: \"wait\" needs a time such as 200ms or 2s"},
        Row{"on A\n  chunks x", "line 2: \"chunks\" needs a number"},
        Row{"on A\n  silent now", "line 2: nothing may follow \"silent\""},
        Row{"on A\n  times 0", "line 2: \"times\" needs a number above zero"},
        Row{"on A\n  only", "line 2: \"only\" needs the name of a port"},
        Row{"every 0s\n answer A", "line 1: \"every\" needs a time above zero"},
        Row{"after soon\n answer A", "line 1: \"after\" needs a time such as 200ms or 2s"},
    };
    for (const Row& row : kRows) {
        EXPECT_EQ(bench::parse_scenario(row.text, bench::modem_verbs()).error, row.error)
            << row.text;
    }
}

TEST(Scenario, UnreadableFileIsAMistakeToo) {
    EXPECT_EQ(bench::load_scenario("/nowhere/at all", bench::modem_verbs()).error,
              "/nowhere/at all: cannot be read");
}

TEST(ScenarioPattern, StarsAndCase) {
    struct Row {
        const char* pattern;
        const char* line;
        bool matches;
    };
    constexpr std::array kRows{
        Row{"AT+CFUN?", "at+cfun?", true},   // case does not count
        Row{"AT+CFUN?", "AT+CFUN", false},   // a question mark is itself
        Row{"AT+CFUN=*", "AT+CFUN=", true},  // a star stands for nothing, too
        Row{"AT+CFUN=*", "AT+CFUN=1,0", true},
        Row{"ATD*;", "ATD123;", true},
        Row{"ATD*;", "ATD123", false},
        Row{"ATD\\*99#", "ATD*99#", true},  // a star of the command itself
        Row{"ATD\\*99#", "ATD199#", false},
        Row{"*", "", true},
        Row{"", "A", false},
    };
    for (const Row& row : kRows) {
        EXPECT_EQ(bench::matches_pattern(row.pattern, row.line), row.matches)
            << row.pattern << " and " << row.line;
    }
}

TEST(ScenarioRules, FirstFitWinsAndOtherwiseIsLast) {
    const bench::Scenario scenario = parsed(
        "otherwise\n  answer ERROR\non A*\n  times 1\n  answer 1\non A*\n  only at\n"
        "  answer 2\n");
    std::vector<int> used;
    const auto line_of = [&](const char* port, const char* text) {
        const bench::Rule* rule = bench::find_rule(scenario, port, text, used);
        return rule == nullptr ? 0 : rule->line;
    };
    EXPECT_EQ(line_of("at", "AB"), 3);
    EXPECT_EQ(line_of("at", "AB"), 6);     // the first is used up
    EXPECT_EQ(line_of("modem", "AB"), 1);  // the second is another port's
    EXPECT_EQ(line_of("modem", "B"), 1);
}

TEST(ScenarioText, EscapesThereAndBack) {
    EXPECT_EQ(bench::decode_escapes("a\\r\\n\\t\\e\\\\\\x1A\\x7"), "a\r\n\t\x1b\\\x1a\\x7");
    EXPECT_EQ(bench::decode_escapes("\\q\\"), "\\q\\");
    EXPECT_EQ(bench::visible(std::string("a\r\n\\\0\x80", 6)), "a\\r\\n\\\\\\x00\\x80");
}

TEST(ScenarioFiles, TheOnesThatShipAreFreeOfMistakes) {
    for (const char* name : {"modem-default.txt", "modem-both-answer.txt"}) {
        EXPECT_EQ(
            bench::load_scenario(std::string(VEXA_SCENARIO_FOLDER "/") + name, bench::modem_verbs())
                .error,
            "");
    }
}

}  // namespace
