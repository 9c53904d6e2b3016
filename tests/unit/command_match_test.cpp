#include "command_match.h"

#include <cctype>
#include <cstring>
#include <set>

#include "command_tables.h"
#include "line_settings.h"
#include "shared_int.h"
#include "vexa_common_def.h"

namespace {

class CommandMatch : public ::testing::Test {
  protected:
    void TearDown() override {
        g_ats3_carriage_return_char = 13;
        g_ats4_line_feed_char = 10;
        g_ats5_cmd_line_edit_char = 8;
        store_shared(g_qxdm_log, 0);
    }
    static int hijack(const std::string& line) {
        return hijack_atcmd_to_app_platform(line.c_str(), static_cast<int>(line.size()));
    }
    static int forward(const std::string& line) {
        return forward_exc_atcmd_to_cp_too(line.c_str(), static_cast<int>(line.size()));
    }
};

std::string lower(std::string text) {
    for (char& c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string upper(std::string text) {
    for (char& c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return text;
}

TEST_F(CommandMatch, EveryPlatformCommandInBothCases) {
    for (std::size_t i = 1; i + 1 < hijack_atcmd_talbe.size(); ++i) {
        const std::string name = hijack_atcmd_talbe[i];
        EXPECT_EQ(hijack(name + "\r"), 1) << name;
        EXPECT_EQ(hijack(upper(name) + "=?\r"), 1) << name;
        EXPECT_EQ(hijack(lower(name) + "?\r"), 1) << name;
        EXPECT_EQ(hijack(name + "x\r"), 0) << "a longer name is another command: " << name;
    }
}

TEST_F(CommandMatch, OnlyNineGoToCpToo) {
    std::set<std::string> both;
    for (std::size_t i = 1; i + 1 < hijack_atcmd_talbe.size(); ++i)
        if (forward(std::string(hijack_atcmd_talbe[i]) + "\r") == 1)
            both.insert(hijack_atcmd_talbe[i]);
    EXPECT_EQ(both, (std::set<std::string>{"ate", "atq", "atv", "ats0", "ats3", "ats4", "ats5",
                                           "ats24", "at+cmee"}));
}

TEST_F(CommandMatch, TheLastMarkerIsComparedTheFirstIsNot) {
    EXPECT_EQ(hijack("vexa_end_at\r"), 1);
    EXPECT_EQ(hijack("vexa_first_at\r"), 0);
    EXPECT_EQ(forward("exc_fwd_first_end\r"), 1);
    EXPECT_EQ(forward("exc_fwd_first_at\r"), 0);
    EXPECT_EQ(is_input_hex_atcmd("hexmode_first_end\r", 18), 1);
    EXPECT_EQ(is_input_hex_atcmd("hexmode_first_end;\r", 19), 0);
    EXPECT_EQ(is_input_cmux_cmd("cmuxmode_first_end\r", 19), 1);
}

TEST_F(CommandMatch, NullAndNegativeLengthsMatchNothing) {
    EXPECT_EQ(hijack_atcmd_to_app_platform(nullptr, 3), 0);
    EXPECT_EQ(hijack_atcmd_to_app_platform("at+csq\r", -1), 0);
    EXPECT_EQ(forward_exc_atcmd_to_cp_too(nullptr, 3), 0);
    EXPECT_EQ(forward_exc_atcmd_to_cp_too("ate0\r", -1), 0);
    // The line's length is looked at for its sign alone: the text ends at its NUL.
    EXPECT_EQ(hijack_atcmd_to_app_platform("at+csq\r", 0), 1);
    EXPECT_EQ(forward_exc_atcmd_to_cp_too("ate0\r", 0), 1);
    EXPECT_EQ(get_input_at_prefix_len(nullptr), -1);
    EXPECT_EQ(vexa_strmatch(nullptr, "ate"), 0);
    EXPECT_EQ(vexa_strmatch("ate", nullptr), 0);
}

TEST_F(CommandMatch, NameLengths) {
    struct {
        const char* line;
        int length;
        const char* why;
    } const rows[] = {
        {"", 0, "no name in an empty line"},
        {"ATE0\r", 3, "a digit ends an ordinary name"},
        {"ATE9\r", 3, "the last digit, too"},
        {"ATI9\r", 4, "ATI keeps its digit"},
        {"ATS3=13\r", 4, "an S-register keeps its digit"},
        {"ats24=1\r", 5, "and both of them"},
        {"AT+WS46=12\r", 7, "so does +WS46"},
        {"at+cvmod2=1\r", 9, "and everything in +CV"},
        {"AT+MAI2SY=1\r", 9, "and +MAI2SY"},
        {"at+csq=?\r", 6, "= ends a name"},
        {"at+csq?\r", 6, "? ends a name"},
        {"at*x\r", 2, "* ends a name"},
        {"at+csq\n", 6, "LF ends a name"},
        {"at+csq;+cops?\r", 12, "; belongs to the name"},
        {"at+csq", 6, "the end of the text ends a name"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(get_input_at_prefix_len(row.line), row.length) << row.line << ": " << row.why;
}

TEST_F(CommandMatch, AChangedS3OrS4EndsANameAndBelongsToIt) {
    g_ats3_carriage_return_char = '#';
    EXPECT_EQ(get_input_at_prefix_len("at+csq#"), 7);
    EXPECT_EQ(hijack("at+csq#"), 0);
    g_ats4_line_feed_char = '!';
    EXPECT_EQ(get_input_at_prefix_len("at+csq!"), 7);
}

TEST_F(CommandMatch, S3MovesInTheMiddleOfTheWalk) {
    // The first comparison sets S3 to "T"; from the second on the name is "AT".
    EXPECT_EQ(hijack("ATS3=84\r"), 0);
    EXPECT_EQ(s3_char(), 'T');
    // S4 does the same.
    g_ats3_carriage_return_char = 13;
    EXPECT_EQ(hijack("ATS4=84\r"), 0);
    EXPECT_EQ(s4_char(), 'T');
    g_ats4_line_feed_char = 10;
    // A value that no name holds leaves the walk alone.
    g_ats3_carriage_return_char = 13;
    EXPECT_EQ(hijack("ATS3=35\r"), 1);
    EXPECT_EQ(s3_char(), '#');
}

std::size_t count_of(const std::string& log, const std::string& text) {
    std::size_t count = 0;
    for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
    return count;
}

// A name's digits are asked about one by one, each with the same words in the log.
TEST_F(CommandMatch, EveryDigitOfARegisterLineIsAskedAbout) {
    const std::string digits(40, '7');
    testing::internal::CaptureStdout();
    EXPECT_EQ(get_input_at_prefix_len(("ATS" + digits).c_str()), 43);
    const std::string asked = "we ats illegal ... 0,0,0.\n";
    EXPECT_EQ(count_of(testing::internal::GetCapturedStdout(), asked), digits.size());
    testing::internal::CaptureStdout();
    EXPECT_EQ(hijack("ATS" + digits), 0);
    EXPECT_EQ(count_of(testing::internal::GetCapturedStdout(), asked), digits.size())
        << "also those past the tables' longest name";
    EXPECT_EQ(hijack("ATS3" + digits + "=35\r"), 0);
    EXPECT_EQ(s3_char(), 35) << "far behind the longest name of a table";
}

TEST_F(CommandMatch, ANameLongerThanTheTablesNamesIsComparedWhole) {
    const std::string name(300, 'n');
    EXPECT_EQ(vexa_strmatch(("AT+" + name + "=1\r").c_str(), ("at+" + name).c_str()), 1);
    EXPECT_EQ(vexa_strmatch(("AT+" + name + "n=1\r").c_str(), ("at+" + name).c_str()), 0);
    EXPECT_EQ(vexa_strmatch(("AT+" + name + "=1\r").c_str(), ("at+n" + name).c_str()), 0);
    EXPECT_EQ(get_input_at_prefix_len(("AT+" + name + "=1\r").c_str()), 303);
    EXPECT_EQ(hijack("vexa_end_at" + name + "\r"), 0);
}

TEST_F(CommandMatch, AnS3ValueOfFourDigitsEndsTheNameBeforeTheRegister) {
    EXPECT_EQ(get_input_at_prefix_len("ATS3=1234\r"), 3);
    EXPECT_EQ(hijack("ATS3=1234\r"), 0);
    EXPECT_EQ(hijack("ATS3=200\r"), 1);
    EXPECT_EQ(s3_char(), 13);
}

TEST_F(CommandMatch, CsqMatchesInAllFormsButNotInACombination) {
    EXPECT_EQ(hijack("at+csq=?"), 1);
    EXPECT_EQ(hijack("AT+CSQ\r"), 1);
    EXPECT_EQ(hijack("at+csq;+cops?"), 0);
}

TEST_F(CommandMatch, BasicCommandsWithDigits) {
    EXPECT_EQ(vexa_strmatch("ATS3=13\r", "ats3"), 1);
    EXPECT_EQ(vexa_strmatch("ATE1", "ate"), 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(vexa_strmatch("ATI9", "ati9"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "vexa_strmatch equal.\r\n");
    EXPECT_EQ(hijack("ATI\r"), 0);
}

TEST_F(CommandMatch, QxdmLogSwitchesAtOnce) {
    struct {
        const char* line;
        int before;
        int after;
    } const rows[] = {
        {"AT+GTQXDMLOG=1\r", 0, 1}, {"at+gtqxdmlog=0\r", 1, 0}, {"AT+GTQXDMLOG=2\r", 1, 1},
        {"AT+GTQXDMLOG=2\r", 0, 0}, {"AT+GTQXDMLOG?\r", 1, 1},  {"AT+GTQXDMLOG\r", 0, 0},
    };
    for (const auto& row : rows) {
        store_shared(g_qxdm_log, row.before);
        EXPECT_EQ(hijack(row.line), 1) << row.line;
        EXPECT_EQ(load_shared(g_qxdm_log), row.after) << row.line;
    }
}

TEST_F(CommandMatch, SmsCommandNeverChangesTheMode) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(is_input_sms_atcmd("AT+CMGS=12\r", 11), 0);
    EXPECT_NE(
        testing::internal::GetCapturedStdout().find("sms atcmd, wait for the prompt.0,0,0.\r\n"),
        std::string::npos);
    EXPECT_EQ(is_input_sms_atcmd("AT+CMGW\r", 8), 0);
    EXPECT_EQ(is_input_sms_atcmd("AT\r", 3), 0);
    EXPECT_EQ(is_input_sms_atcmd(nullptr, 3), 0);
}

TEST_F(CommandMatch, CmuxHexAndDialStandAlone) {
    EXPECT_EQ(is_input_cmux_cmd("AT+CMUX=0\r", 10), 1);
    EXPECT_EQ(is_input_cmux_cmd("at+cmux?\r", 9), 1);
    EXPECT_EQ(is_input_cmux_cmd("AT+CMUX=0;+CSQ\r", 15), 0);
    EXPECT_EQ(is_input_cmux_cmd("AT+CMUXX\r", 9), 0);
    EXPECT_EQ(is_input_hex_atcmd("AT+HEX\r", 7), 0);
    EXPECT_EQ(is_input_ppp_atcmd("ATD*99#\r", 8), 1);
    EXPECT_EQ(is_input_ppp_atcmd("ATD1;\r", 6), 0);
    EXPECT_EQ(is_input_ppp_atcmd("ATDT*99#\r", 9), 0);
}

TEST_F(CommandMatch, FinishedLines) {
    struct {
        std::string line;
        uint8_t s3;
        int result;
        const char* why;
    } const rows[] = {
        {"AT\r", 13, 1, "CR ends a line"},
        {"AT\r", '#', 1, "CR ends a line whatever S3 is"},
        {"AT#", '#', 1, "S3 ends a line"},
        {"AT#\n", '#', 1, "S3 and LF"},
        {"AT\r\n", 13, 1, "CR and LF"},
        {"#\n", '#', 0, "S3 and LF want three bytes"},
        {"A#\n", '#', 1, "and are content with three"},
        {"AT\n", 13, 0, "LF alone does not"},
        {"A/", 13, 1, "repeat needs no end"},
        {"a/", 13, 1, "in either case"},
        {"B/", 13, 0, "but only of A"},
        {"AT+X\x1A", 13, 1, "Ctrl-Z ends a line"},
        {"AT", 13, 0, "not yet"},
        {"", 13, 0, "nothing"},
    };
    for (const auto& row : rows) {
        g_ats3_carriage_return_char = row.s3;
        EXPECT_EQ(is_input_at_finished(row.line.c_str(), static_cast<int>(row.line.size())),
                  row.result)
            << row.line << ": " << row.why;
    }
    EXPECT_EQ(is_input_at_finished(nullptr, 3), 0);
    const char* const before = "\rAT";
    EXPECT_EQ(is_input_at_finished(before + 1, 0), 0) << "the byte before the line is not its end";
}

TEST_F(CommandMatch, LegalLines) {
    struct {
        const char* line;
        int length;
        int result;
    } const rows[] = {
        {"A", 1, 1},  {"a", 1, 1},   {"T", 1, 0},     {"AT", 2, 1}, {"aT\r", 3, 1}, {"At", 2, 1},
        {"A/", 2, 0}, {"XAT", 3, 0}, {" AT\r", 4, 0}, {"\r", 1, 0}, {"AT", 0, 0},   {"AT", -1, 0},
    };
    for (const auto& row : rows)
        EXPECT_EQ(is_input_at_legal(row.line, row.length), row.result) << row.line;
    EXPECT_EQ(is_input_at_legal(nullptr, 2), 0);
}

TEST_F(CommandMatch, CombinedBasicCommands) {
    struct {
        const char* line;
        int result;
        const char* why;
    } const rows[] = {
        {"ATE0V\r", 0, "six characters"},
        {"ATE0V1\r", 2, "seven"},
        {"ATE0V1\r\n", 2, "eight"},
        {"atv1q0e0\r", 2, "nine"},
        {"ATQ0E0V1\r\n", 2, "ten"},
        {"ATE0V1Q0X\r\n", 0, "eleven"},
        {"ATE0+X1\r", 0, "an extended command in it"},
        {"ATX0S01\r", 0, "neither E nor V nor Q behind AT"},
        {"AtE0V1\r", 0, "mixed case is not looked for"},
        {"ateX0X1\r", 2, "each of the six words alone is enough"},
        {"ATEX0X1\r", 2, "each of the six words alone is enough"},
        {"atvX0X1\r", 2, "each of the six words alone is enough"},
        {"ATVX0X1\r", 2, "each of the six words alone is enough"},
        {"atqX0X1\r", 2, "each of the six words alone is enough"},
        {"ATQX0X1\r", 2, "each of the six words alone is enough"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(is_input_combine_atcmd(row.line, static_cast<int>(strlen(row.line))), row.result)
            << row.line << ": " << row.why;
    EXPECT_EQ(is_input_combine_atcmd(nullptr, 8), 0);
}

TEST_F(CommandMatch, EndsOfRawInput) {
    EXPECT_EQ(is_input_sms_finished("x\x1A", 2), 1);
    EXPECT_EQ(is_input_sms_finished("x\x1B", 2), 1);
    EXPECT_EQ(is_input_sms_finished("\x1Ax", 2), 0);
    EXPECT_EQ(is_input_sms_finished(nullptr, 2), 0);
    const char* const before = "\x1Ax";
    EXPECT_EQ(is_input_sms_finished(before + 1, 0), 0) << "the byte before the text is not its end";
    EXPECT_EQ(is_input_hex_finished(before + 1, 0), 0);
    EXPECT_EQ(is_input_hex_finished("x\x1A", 2), 1);
    EXPECT_EQ(is_input_hex_finished("x+++", 4), 1);
    EXPECT_EQ(is_input_hex_finished("+++", 3), 0);
    EXPECT_EQ(is_input_hex_finished("+++x", 4), 0);
}

TEST_F(CommandMatch, WhatCpSays) {
    struct {
        int (*predicate)(const char*, int);
        const char* text;
        int length;
        int result;
    } const rows[] = {
        {is_enter_sms_mode, "\r\n> ", 4, 1},
        {is_enter_sms_mode, "\r\n>", 3, 0},
        {is_enter_sms_mode, "\r\n> x", 5, 0},
        {is_enter_sms_mode, "OK\r\n", 4, 0},
        {is_exit_sms_mode, "\r\n+CMGS: 1\r\n", 12, 1},
        {is_exit_sms_mode, "+CMS ERROR: 500", 15, 1},
        {is_exit_sms_mode, "OK", 2, 1},
        {is_exit_sms_mode, "ERROR", 5, 0},
        {is_exit_ppp_mode, "\r\nNO CARRIER\r\n", 14, 1},
        {is_exit_ppp_mode, "no carrier", 10, 0},
        {is_enter_hex_mode, "", 0, 1},
        {is_enter_data_mode, "", 0, 1},
        {is_enter_hex_mode_baseon_para, "", 0, 0},
        {is_enter_sms_mode_base_on_para, "", 0, 0},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.predicate(row.text, row.length), row.result) << row.text;
}

TEST_F(CommandMatch, PppBeginsAfterADialCommandOnly) {
    struct {
        const char* answer;
        const char* last;
        int result;
    } const rows[] = {
        {"\r\nCONNECT\r\n", "ATD*99#\r", 1},
        {"CONNECT 115200", "atdt1\r", 1},
        {"CONNECT", "ATD1;\r", 0},
        {"CONNECT", "AT+CSQ\r", 0},
        {"OK", "ATD*99#\r", 0},
        {"CONNECT", "", 0},
    };
    for (const auto& row : rows)
        EXPECT_EQ(is_enter_ppp_mode(row.answer, 0, row.last), row.result)
            << row.answer << " after " << row.last;
    EXPECT_EQ(is_enter_ppp_mode("CONNECT", 7, nullptr), 0);
}

TEST_F(CommandMatch, EveryCommandWorthWaitingFor) {
    for (const char* name : ght_at_table)
        EXPECT_EQ(is_ght_atcmd((std::string(name) + "\r").c_str()), 1) << name;
    EXPECT_EQ(is_ght_atcmd("AT+CSQ\r"), 0);
    EXPECT_EQ(is_ght_atcmd(nullptr), 0);
}

}  // namespace
