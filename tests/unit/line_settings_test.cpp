#include "line_settings.h"

#include <optional>

#include "input_source.h"
#include "port_state.h"
#include "shared_int.h"

namespace {

// In a process of its own, as each test is run, these are what the daemon starts with.
TEST(SettingsAtStart, AreTheStandardOnes) {
    EXPECT_EQ(g_ats3_carriage_return_char, 13);
    EXPECT_EQ(g_ats4_line_feed_char, 10);
    EXPECT_EQ(g_ats5_cmd_line_edit_char, 8);
    EXPECT_EQ(load_shared(g_client_ate_status), -99) << "echo on";
    EXPECT_EQ(load_shared(g_client_atv_status), 1);
    EXPECT_EQ(load_shared(g_is_cp_timeout_times), 0);
    EXPECT_EQ(load_shared(g_is_single_char_input), 0);
    for (const PortRecord& port : g_ports) {
        EXPECT_EQ(load_shared(port.mode), 0) << port.log_name;
        EXPECT_EQ(load_shared(port.send_done), 0) << port.log_name;
        EXPECT_LT(load_shared(port.platform_socket), 0) << port.log_name;
    }
}

class LineSettings : public ::testing::Test {
  protected:
    void SetUp() override { reset(); }
    void TearDown() override { reset(); }
    static void reset() {
        g_ats3_carriage_return_char = 13;
        g_ats4_line_feed_char = 10;
        g_ats5_cmd_line_edit_char = 8;
        store_shared(g_client_ate_status, kEchoOn);
        store_shared(g_client_atv_status, 1);
        current_line().clear();
    }
};

TEST_F(LineSettings, SpecialStrings) {
    struct {
        const char* line;
        int result;
    } const rows[] = {
        {"ATI9\r", 0},       {"ati\r", 0},     {"AT+WS46\r", 0},
        {"at+ws46=12\r", 0}, {"AT+CVHU\r", 0}, {"AT+MAI2SY\r", 0},
        {"ATE0\r", -1},      {"AT+CSQ\r", -1}, {"", -1},
    };
    for (const auto& row : rows)
        EXPECT_EQ(vexa_check_specialstring(row.line), row.result) << row.line;
}

TEST_F(LineSettings, SRegisters) {
    struct {
        const char* line;
        int result;
        int s3, s4, s5;
        const char* why;
    } const rows[] = {
        {"ATS3=35\r", 0, 35, 10, 8, "S3"},
        {"ats4=33\r", 0, 13, 33, 8, "S4"},
        {"ATS5=127\r", 0, 13, 10, 127, "the largest character"},
        {"ATS5=128\r", 0, 13, 10, 8, "not a character"},
        {"ATS3=200\r", 0, 13, 10, 8, "not a character, but a name"},
        {"ATS3=-1\r", 0, 13, 10, 8, "a negative value is a large unsigned one"},
        {"ATS3=1234\r", -1, 13, 10, 8, "four digits"},
        {"ATS3=013\r", 0, 13, 10, 8, "three digits"},
        {"ATS0=1\r", 0, 13, 10, 8, "another register"},
        {"ATS24=1\r", 0, 13, 10, 8, "another register"},
        {"ATS3?\r", 0, 13, 10, 8, "no ="},
        {"ATS3=35", 0, 13, 10, 8, "no terminator"},
        {"ATS4=0\r", 0, 13, 0, 8, "zero is a character"},
    };
    for (const auto& row : rows) {
        reset();
        EXPECT_EQ(vexa_check_specialstring(row.line), row.result) << row.line << ": " << row.why;
        EXPECT_EQ(g_ats3_carriage_return_char, row.s3) << row.line << ": " << row.why;
        EXPECT_EQ(g_ats4_line_feed_char, row.s4) << row.line << ": " << row.why;
        EXPECT_EQ(g_ats5_cmd_line_edit_char, row.s5) << row.line << ": " << row.why;
    }
}

TEST_F(LineSettings, S3AtZeroCanBeRestored) {
    vexa_check_specialstring("ATS3=0\r");
    EXPECT_EQ(s3_char(), 0);
    vexa_check_specialstring("ATS3=13");
    EXPECT_EQ(s3_char(), 13);
}

// Each line from every state of the two settings: what it does not set stays.
TEST_F(LineSettings, EchoAndVerbose) {
    constexpr int kOn = -99;
    constexpr int kOff = 99;
    constexpr std::optional<int> kKept;
    struct {
        const char* line;
        std::optional<int> echo, verbose;
        const char* why;
    } const rows[] = {
        {"ATE0\r", kOff, kKept, "echo off"},
        {"ate0\r", kOff, kKept, "in small letters"},
        {"ATE1\r", kOn, kKept, "echo on"},
        {"ate1\r", kOn, kKept, "in small letters"},
        {"ATE2\r", kKept, kKept, "no such value"},
        {"ate2\r", kKept, kKept, "no such value"},
        {"ATE\r", kKept, kKept, "no value"},
        {"ATV0\r", kKept, 0, "terse"},
        {"atv0\r", kKept, 0, "in small letters"},
        {"ATV1\r", kKept, 1, "verbose"},
        {"atv1\r", kKept, 1, "in small letters"},
        {"ATV7\r", kKept, kKept, "no such value"},
        {"atv7\r", kKept, kKept, "no such value"},
        {"ATE0V0\r", kOff, kKept, "only the echo"},
        {"ATE1V1\r", kOn, kKept, "only the echo"},
        {"ATV0E0\r", kOff, kKept, "only the echo, in any order"},
        {"ATE2V0\r", kKept, 0, "no such echo, so the other counts"},
        {"ATE1E0\r", kOff, kKept, "off is looked for first"},
        {"ate1E0\r", kOn, kKept, "small letters are looked for first"},
        {"ATV1V0\r", kKept, 0, "terse is looked for first"},
        {"atv1V0\r", kKept, 1, "small letters are looked for first"},
        {"ATQ0\r", kKept, kKept, "neither"},
    };
    for (const auto& row : rows)
        for (const int echo : {kOn, kOff})
            for (const int verbose : {1, 0}) {
                store_shared(g_client_ate_status, echo);
                store_shared(g_client_atv_status, verbose);
                current_line().assign(row.line);
                set_atevq_status_flag();
                EXPECT_EQ(load_shared(g_client_ate_status), row.echo.value_or(echo))
                    << row.line << ": " << row.why;
                EXPECT_EQ(load_shared(g_client_atv_status), row.verbose.value_or(verbose))
                    << row.line << ": " << row.why;
            }
}

TEST_F(LineSettings, WhatBecameOfALineIsLogged) {
    constexpr char kEchoOffText[] = "ate0 got, we disable echo-display....0,0,0.\n";
    constexpr char kNoEchoValue[] = "ate error value.\r\n.";
    constexpr char kNoVerboseValue[] = "atv error value.\r\n.";
    struct {
        const char* line;
        std::vector<const char*> said;
        std::vector<const char*> not_said;
    } const rows[] = {
        {"ATE0\r", {kEchoOffText}, {kNoEchoValue, kNoVerboseValue}},
        {"ATE1\r", {}, {kEchoOffText, kNoEchoValue, kNoVerboseValue}},
        {"ATE2\r", {kNoEchoValue}, {kEchoOffText, kNoVerboseValue}},
        {"ATV0\r", {}, {kEchoOffText, kNoEchoValue, kNoVerboseValue}},
        {"ATV7\r", {kNoVerboseValue}, {kEchoOffText, kNoEchoValue}},
    };
    for (const auto& row : rows) {
        current_line().assign(row.line);
        testing::internal::CaptureStdout();
        set_atevq_status_flag();
        const std::string log = testing::internal::GetCapturedStdout();
        for (const char* text : row.said) EXPECT_THAT(log, testing::HasSubstr(text)) << row.line;
        for (const char* text : row.not_said)
            EXPECT_THAT(log, testing::Not(testing::HasSubstr(text))) << row.line;
    }
}

TEST_F(LineSettings, AnSRegisterThatIsNotTakenIsLogged) {
    struct {
        const char* line;
        const char* text;
    } const rows[] = {
        {"ATS3?\r", "we ats illegal ... 0,0,0.\n"},
        {"ATS3=35", "we ats illegal ... 0,0,0.\n"},
        {"ATS3=1234\r", "we ats illegal len ... temp_end-temp_equal:5,0,0.\n"},
    };
    for (const auto& row : rows) {
        testing::internal::CaptureStdout();
        vexa_check_specialstring(row.line);
        EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::HasSubstr(row.text));
    }
    testing::internal::CaptureStdout();
    vexa_check_specialstring("ATS3=127\r");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(LineSettings, SpaceRemover) {
    struct {
        std::string line;
        uint8_t s3;
        std::string result;
        const char* why;
    } const rows[] = {
        {"AT + CSQ\r", 13, "AT+CSQ\r", "spaces go"},
        {"AT+CMGS=\"a b\" , 1\r", 13, "AT+CMGS=\"a b\",1\r", "quoted spaces stay"},
        {"AT \"x \r", 13, "AT\"x \r", "an open quote lasts to the end"},
        {"\rAT", 13, "\r", "S3 at once"},
        {"AT \r\n", 13, "AT\r", "what follows S3 is not copied"},
        {"A T\r", '#', "AT\r#", "no S3 in the line: bounded by its length"},
        {"AT \"#\" 1\r", '#', "AT\"#", "S3 stops inside quotes, too"},
        {"A T", 13, "AT\r", "S3 is appended always"},
        {"AT\x1A", 13, "AT\x1A\r", "and then stands behind the line's own length"},
    };
    for (const auto& row : rows) {
        g_ats3_carriage_return_char = row.s3;
        std::string out(row.line.size() + 3, '~');  // the line, S3, a NUL and what is not its own
        int length = 0;
        EXPECT_EQ(input_atcmd_ignore_spaceback(row.line.c_str(), static_cast<int>(row.line.size()),
                                               out.data(), &length),
                  0);
        EXPECT_EQ(std::string(out.c_str()), row.result) << row.why;
        EXPECT_EQ(length, static_cast<int>(row.result.size())) << row.why;
        EXPECT_EQ(out.back(), '~') << row.why;
    }
}

TEST_F(LineSettings, SpaceRemoverRefusesNothing) {
    char out[8];
    int length = 7;
    EXPECT_EQ(input_atcmd_ignore_spaceback(nullptr, 3, out, &length), -1);
    EXPECT_EQ(input_atcmd_ignore_spaceback("AT\r", 0, out, &length), -1);
    EXPECT_EQ(input_atcmd_ignore_spaceback("AT\r", -1, out, &length), -1);
    EXPECT_EQ(input_atcmd_ignore_spaceback("AT\r", 3, nullptr, &length), -1);
    EXPECT_EQ(input_atcmd_ignore_spaceback("AT\r", 3, out, nullptr), -1);
    EXPECT_EQ(length, 7);
}

}  // namespace
