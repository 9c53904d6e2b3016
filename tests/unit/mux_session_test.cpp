// The +CMUX command, the set-up order, and what a data frame yields.
#include "mux_session.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <string_view>
#include <type_traits>

#include "shared_int.h"

namespace {

using namespace std::string_view_literals;

constexpr auto kSabm0 = "\xF9\x03\x3F\x01\x1C\xF9"sv;
constexpr auto kSabm1 = "\xF9\x07\x3F\x01\xDE\xF9"sv;
constexpr auto kSabm2 = "\xF9\x0B\x3F\x01\x59\xF9"sv;
constexpr auto kSabm3 = "\xF9\x0F\x3F\x01\x9B\xF9"sv;
constexpr auto kSabm4 = "\xF9\x13\x3F\x01\x96\xF9"sv;
constexpr auto kUa0 = "\xF9\x03\x73\x01\xD7\xF9"sv;
constexpr auto kUa1 = "\xF9\x07\x73\x01\x15\xF9"sv;
constexpr auto kUa2 = "\xF9\x0B\x73\x01\x92\xF9"sv;
constexpr auto kAnswer4 = "\xF9\x13\x3F\x01\x5D\xF9"sv;

static_assert(CUR_STATE_MUX_IDLE == 0 && CUR_STATE_DLC0_ESTBLISH == 1 &&
              CUR_STATE_DLC1_ESTBLISH == 2 && CUR_STATE_DLC2_ESTBLISH == 3 &&
              CUR_STATE_DLC3_ESTBLISH == 4 && CUR_STATE_DATA_DONE == 5 &&
              CUR_STATE_MUX_DESTRYOY == 6 && CUR_STATE_ERROR == 7);
static_assert(sizeof(tMuxConfig::nMode) == 1 && sizeof(tMuxConfig::nSubSet) == 1 &&
              sizeof(tMuxConfig::nPortSpeed) == 1 && sizeof(tMuxConfig::nN1) == 4 &&
              sizeof(tMuxConfig::nT1) == 2 && sizeof(tMuxConfig::nN2) == 2 &&
              sizeof(tMuxConfig::nT2) == 2 && sizeof(tMuxConfig::nT3) == 2 &&
              sizeof(tMuxConfig::nK) == 2);
static_assert(std::is_same_v<decltype(bMuxActiveStatus), BOOL>);

// Before any test: they are constants until then.
const eParsePackCurState kStateAtStart = g_cur_mux_proc_state;
const int kStatusAtStart = g_uart_port_status;
const int kAddressesAtStart = g_mux_atcmd_dlc + g_mux_ppp_dlc;

struct Outcome {
    int result = 0;
    int length = -7;  // as the caller left it
    int direction = 5;
    std::string bytes;
};

class MuxSession : public testing::Test {
  protected:
    void SetUp() override {
        g_MuxCfg = {};
        g_cur_mux_proc_state = CUR_STATE_ERROR;
        store_shared(g_uart_port_status, 0);
        store_shared(g_mux_atcmd_dlc, 0);
        store_shared(g_mux_ppp_dlc, 0);
    }

    static Outcome give(std::string_view input) {
        std::array<char, kMuxAnswerArea> area;
        area.fill('x');
        Outcome outcome;
        outcome.result =
            proc_host_to_ue_cmux_atcmd(input.data(), static_cast<int>(input.size()), area.data(),
                                       &outcome.length, &outcome.direction);
        if (outcome.length > 0)
            outcome.bytes.assign(area.data(), static_cast<std::size_t>(outcome.length));
        return outcome;
    }

    static void expect_refused(std::string_view input, const char* why) {
        const eParsePackCurState before = g_cur_mux_proc_state;
        const Outcome outcome = give(input);
        EXPECT_EQ(outcome.result, -1) << why;
        EXPECT_EQ(outcome.length, -7) << why;
        EXPECT_EQ(g_cur_mux_proc_state, before) << why;
    }

    static void open_channels() {
        give("AT+CMUX=0\r");
        give(kSabm0);
        give(kSabm1);
        give(kSabm2);
        ASSERT_EQ(g_cur_mux_proc_state, CUR_STATE_DLC2_ESTBLISH);
    }
};

TEST(MuxSessionAtStart, RefusesFramesAndTakesCommands) {
    EXPECT_EQ(kStateAtStart, CUR_STATE_ERROR);
    EXPECT_EQ(kStatusAtStart, 0);
    EXPECT_EQ(kAddressesAtStart, 0);
}

TEST_F(MuxSession, TestFormAnswersExactlyItsFiftyNineBytes) {
    const Outcome outcome = give("AT+CMUX=?\r");
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.direction, 0);
    EXPECT_EQ(outcome.length, 59);
    EXPECT_EQ(outcome.bytes, "+CMUX: (0),(0),(1-6),(1-1509),(1-255),(0-5),(2-255),(1-255)");
    EXPECT_EQ(load_shared(g_uart_port_status), 0);
}

TEST_F(MuxSession, ReadFormBeforeAnySetShowsZeros) {
    EXPECT_EQ(give("at+cmux?\r").bytes, "+CMUX: 0,0,0,0,0,0,0,0");
}

TEST_F(MuxSession, ReadFormAfterSetShowsTheFixedSet) {
    give("AT+CMUX=0\r");
    store_shared(g_uart_port_status, 0);  // the road to the command handler
    const Outcome outcome = give("AT+CMUX?\r");
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.direction, 0);
    EXPECT_EQ(outcome.bytes, "+CMUX: 0,0,5,31,10,3,30,10");
}

TEST_F(MuxSession, SetFormStoresModeOneAndIgnoresTheRest) {
    const Outcome outcome = give("AT+CMUX=1,0,5,127\r");
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.direction, 0);
    EXPECT_EQ(outcome.bytes, "\r\nOK\r\n");
    EXPECT_EQ(g_MuxCfg.nMode, 1);
    EXPECT_EQ(g_MuxCfg.nN1, 31U);
    EXPECT_EQ(g_MuxCfg.nK, 2);
    EXPECT_EQ(g_cur_mux_proc_state, CUR_STATE_MUX_IDLE);
    EXPECT_EQ(load_shared(g_uart_port_status), 1);
}

TEST_F(MuxSession, FormsAreToldApartInTheirOrder) {
    const std::string test = "+CMUX: (0),(0),(1-6),(1-1509),(1-255),(0-5),(2-255),(1-255)";
    const std::string zeros = "+CMUX: 0,0,0,0,0,0,0,0";
    const struct {
        std::string_view line;
        std::string answer;
        int mode;  // what a set form stores
        const char* why;
    } rows[] = {
        {"AT+CMUX?;+CMUX=?\r", test, 7, "test before read"},
        {"AT+CMUX=0;+CMUX=?\r", test, 7, "test before set"},
        {"AT+CMUX=0;+CMUX?\r", zeros, 7, "read before set"},
        {"AT+CMUX=1;+CMUX=0\r", "\r\nOK\r\n", 0, "0 before 1"},
        {"AT+CMUX=0,0,5\r", "\r\nOK\r\n", 0, "mode 0"},
        {"at+cmux=1\r", "\r\nOK\r\n", 1, "mode 1"},
    };
    for (const auto& row : rows) {
        SetUp();
        const bool is_set = row.mode != 7;
        const Outcome outcome = give(row.line);
        EXPECT_EQ(outcome.result, 0) << row.why;
        EXPECT_EQ(outcome.bytes, row.answer) << row.why;
        EXPECT_EQ(load_shared(g_uart_port_status), is_set ? 1 : 0) << row.why;
        EXPECT_EQ(g_MuxCfg.nMode, is_set ? row.mode : 0) << row.why;
    }
}

TEST_F(MuxSession, RefusedCommandIsLogged) {
    testing::internal::CaptureStdout();
    give("AT+CMUX\r");
    EXPECT_NE(testing::internal::GetCapturedStdout().find("proc,error don't surport.\r\n"),
              std::string::npos);
}

TEST_F(MuxSession, PayloadStandsInAClearedArea) {
    open_channels();
    std::array<char, 4096> area;
    area.fill('x');
    int length = 0;
    int direction = 0;
    const std::string_view frame = "\xF9\x0B\xEF\x07\x41\x54\x0D\x54\xF9"sv;
    EXPECT_EQ(SA_DefaultMuxDataHandler_CMUX(frame.data(), static_cast<int>(frame.size()),
                                            area.data(), &length, &direction),
              0);
    EXPECT_EQ(std::string(area.data(), area.size()), "AT\r" + std::string(4093, '\0'));
}

TEST_F(MuxSession, AnswersEndWithANul) {
    std::array<char, kMuxAnswerArea> area;
    area.fill('x');
    int length = 0;
    int direction = 0;
    const std::string_view line = "AT+CMUX=0\r";
    SA_DefaultCmdHandler_CMUX(line.data(), static_cast<int>(line.size()), area.data(), &length,
                              &direction);
    EXPECT_STREQ(area.data(), "\r\nOK\r\n") << "callers write it by its string length";
}

TEST_F(MuxSession, CommandWithoutAFormIsRefusedWithoutAnAnswer) {
    for (const std::string_view line : {"AT+CMUX\r"sv, "AT+CMUX=2\r"sv, "AT+CMUX=\r"sv}) {
        const Outcome outcome = give(line);
        EXPECT_EQ(outcome.result, -1) << line;
        EXPECT_EQ(outcome.length, -7) << line;
        EXPECT_EQ(outcome.direction, 0) << line;
        EXPECT_EQ(load_shared(g_uart_port_status), 0) << line;
    }
}

TEST_F(MuxSession, MissingLineIsAnErrorText) {
    std::array<char, 16> area{};
    int length = 0;
    int direction = 5;
    EXPECT_EQ(SA_DefaultCmdHandler_CMUX(nullptr, 3, area.data(), &length, &direction), -1);
    EXPECT_STREQ(area.data(), "\r\nERROR\r\n");
    EXPECT_EQ(length, 9);
    EXPECT_EQ(direction, 5);
    EXPECT_EQ(SA_DefaultCmdHandler_CMUX("AT+CMUX=0", 9, nullptr, &length, &direction), -1);
    const char sabm[] = "\xF9\x03\x3F\x01\x1C\xF9";
    EXPECT_EQ(SA_DefaultMuxDataHandler_CMUX(nullptr, 6, area.data(), &length, &direction), -1);
    EXPECT_EQ(SA_DefaultMuxDataHandler_CMUX(sabm, 6, nullptr, &length, &direction), -1);
    area = {};
    EXPECT_EQ(proc_host_to_ue_cmux_atcmd(nullptr, 3, area.data(), &length, &direction), -1);
    EXPECT_STREQ(area.data(), "") << "the one road says nothing";
    EXPECT_EQ(proc_host_to_ue_cmux_atcmd("AT+CMUX=0", 9, nullptr, &length, &direction), -1);
    EXPECT_EQ(load_shared(g_uart_port_status), 0);
}

TEST_F(MuxSession, FramesBeforeAnySetAreRefused) {
    store_shared(g_uart_port_status, 1);
    expect_refused(kSabm0, "the state is CUR_STATE_ERROR");
}

TEST_F(MuxSession, StatesThatAreNeverEnteredRefuse) {
    store_shared(g_uart_port_status, 1);
    g_cur_mux_proc_state = CUR_STATE_DATA_DONE;
    expect_refused(kSabm0, "CUR_STATE_DATA_DONE");
    g_cur_mux_proc_state = CUR_STATE_MUX_DESTRYOY;
    expect_refused(kSabm0, "CUR_STATE_MUX_DESTRYOY");
}

TEST_F(MuxSession, ChannelsComeUpInTheirOrderOnly) {
    give("AT+CMUX=0\r");
    const struct {
        std::string_view frame;
        std::string_view answer;  // empty: refused
        eParsePackCurState after;
        const char* why;
    } rows[] = {
        {kSabm1, "", CUR_STATE_MUX_IDLE, "DLCI 0 comes first"},
        {kSabm0, kUa0, CUR_STATE_DLC0_ESTBLISH, "DLCI 0"},
        {kSabm0, "", CUR_STATE_DLC0_ESTBLISH, "not twice"},
        {kSabm2, "", CUR_STATE_DLC0_ESTBLISH, "DLCI 1 before DLCI 2"},
        {kSabm1, kUa1, CUR_STATE_DLC1_ESTBLISH, "DLCI 1"},
        {kSabm3, "", CUR_STATE_DLC1_ESTBLISH, "DLCI 3 is never set up"},
        {kSabm2, kUa2, CUR_STATE_DLC2_ESTBLISH, "DLCI 2"},
        {kSabm3, "", CUR_STATE_DLC2_ESTBLISH, "DLCI 3 is never set up"},
        {kSabm4, kAnswer4, CUR_STATE_DLC3_ESTBLISH, "DLCI 4 is the fourth"},
        {kSabm4, kAnswer4, CUR_STATE_DLC3_ESTBLISH, "and again"},
    };
    for (const auto& row : rows) {
        const Outcome outcome = give(row.frame);
        EXPECT_EQ(outcome.result, row.answer.empty() ? -1 : 0) << row.why;
        EXPECT_EQ(outcome.bytes, row.answer) << row.why;
        EXPECT_EQ(outcome.direction, 5) << "a set-up leaves the direction alone: " << row.why;
        EXPECT_EQ(g_cur_mux_proc_state, row.after) << row.why;
    }
}

TEST_F(MuxSession, SetUpFrameForms) {
    const struct {
        std::string_view frame;
        int result;
        const char* why;
    } rows[] = {
        {"\xF9\x03\x2F\x01\xCD\xF9"sv, 0, "without the P bit"},
        {"\xF9\x03\x3F\x01\x00\xF9"sv, 0, "the incoming check sequence is not checked"},
        {"\xF9\x03\x3F\x00\x1C\xF9"sv, 0, "length byte 0"},
        {"\xF9\x03\x3F\x02\x1C\xF9"sv, 0, "length byte 2"},
        {"\xF9\x03\x3F\x03\x1C\xF9"sv, -1, "length byte 3"},
        {"\xF9\x01\x3F\x01\x1C\xF9"sv, -1, "address without C/R"},
        {"\xF9\x03\x53\x01\xFD\xF9"sv, -1, "DISC"},
        {"\xF9\x03\xEF\x01\x1C\xF9"sv, -1, "UIH"},
        {"\xF9\x03\x3F\x01\xF9"sv, -1, "no check sequence"},
        {"\xF9\x03\x3F\xF9"sv, -1, "no length"},
        {"\xF9"sv, -1, "a flag alone"},
        {""sv, -1, "nothing"},
        {"\x03\x3F\x01\x1C\xF9\xF9"sv, -1, "no opening flag"},
    };
    for (const auto& row : rows) {
        SetUp();
        give("AT+CMUX=0\r");
        EXPECT_EQ(give(row.frame).result, row.result) << row.why;
    }
}

TEST_F(MuxSession, BufferWithSeveralFramesCountsAsItsFirst) {
    give("AT+CMUX=0\r");
    EXPECT_EQ(give(std::string(kSabm0) + std::string(kSabm1)).bytes, kUa0);
    EXPECT_EQ(g_cur_mux_proc_state, CUR_STATE_DLC0_ESTBLISH);
}

TEST_F(MuxSession, PayloadOnDlci2IsACommandAnsweredOnItsAddressWithoutCommandBit) {
    open_channels();
    const Outcome outcome = give("\xF9\x0B\xEF\x07\x41\x54\x0D\x54\xF9"sv);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.direction, 1);
    EXPECT_EQ(outcome.length, 3);
    EXPECT_EQ(outcome.bytes, "AT\r");
    EXPECT_EQ(load_shared(g_mux_atcmd_dlc), 0x0B);
    EXPECT_EQ(load_shared(g_mux_ppp_dlc), 0);

    std::array<char, kMuxAnswerArea> area{};
    int length = 0;
    EXPECT_EQ(
        proc_ue_to_host_cmux_response(load_shared(g_mux_atcmd_dlc), "OK", 2, area.data(), &length),
        -1)
        << "judged by the length";
    EXPECT_EQ(std::string_view(area.data(), static_cast<std::size_t>(length)),
              "\xF9\x09\xEF\x05OK\xD6\xF9"sv);
}

TEST_F(MuxSession, DialCommandSetsTheDialAddressOnly) {
    for (const std::string_view payload : {"ATD*99#\r"sv, "atd*99#\r"sv, "x ATD"sv}) {
        SetUp();
        open_channels();
        const std::string frame = "\xF9\x13\xEF" +
                                  std::string(1, static_cast<char>(payload.size() * 2 + 1)) +
                                  std::string(payload) + "?\xF9";
        EXPECT_EQ(give(frame).bytes, payload);
        EXPECT_EQ(load_shared(g_mux_ppp_dlc), 0x13) << payload;
        EXPECT_EQ(load_shared(g_mux_atcmd_dlc), 0) << payload;
    }
}

TEST_F(MuxSession, DialCommandOfMixedCaseIsACommand) {
    open_channels();
    give("\xF9\x0B\xEF\x0D\x41td*9#?\xF9"sv);
    EXPECT_EQ(load_shared(g_mux_ppp_dlc), 0);
    EXPECT_EQ(load_shared(g_mux_atcmd_dlc), 0x0B);
}

TEST_F(MuxSession, DataFrameForms) {
    std::string longest = "\xF9\x0B\xEF\xFF" + std::string(127, 'p') + "?\xF9";
    const struct {
        std::string frame;
        int result;
        std::string bytes;
        const char* why;
    } rows[] = {
        {longest, 0, std::string(127, 'p'), "the longest"},
        {"\xF9\x0B\xEF\x01?\xF9", 0, "", "no information"},
        {"\xF9\x0B\xEF\x03"
         "a?\xF9",
         0, "a", "one byte"},
        {"\xF9\x0B\xEF\x03\xF9?\xF9", 0, "\xF9", "information may hold the flag"},
        {"\xF9\x0B\xEF\x03"
         "abc?\xF9",
         0, "a", "the length byte counts, not the buffer"},
        {"\xF9\x0B\xEF\x05"
         "a?\xF9",
         -1, "", "one byte more than the buffer holds"},
        {"\xF9\x0B\xEF\xFF?\xF9", -1, "", "far more than the buffer holds"},
        {"\xF9\x0B\xEF\x01\xF9", -1, "", "no check sequence"},
        {std::string("\xF9\x0B\xEF\x02\x00"
                     "a?\xF9",
                     8),
         -1, "", "two length bytes"},
        {std::string("\xF9\x0B\xEF\x00\x00?\xF9", 7), -1, "", "two length bytes, both 0"},
        {"\xF9\x0B\xFF\x03"
         "a?\xF9",
         -1, "", "UIH with the P bit"},
        {"\xF9\x0B\x03\x03"
         "a?\xF9",
         -1, "", "UI"},
        {"\xF9\x0B\x53\x01?\xF9", -1, "", "DISC"},
        {"\xF9\x0B\xEF\x03"
         "a?\x7E",
         -1, "", "another byte in place of the closing flag"},
    };
    for (const auto& row : rows) {
        SetUp();
        open_channels();
        const Outcome outcome = give(row.frame);
        EXPECT_EQ(outcome.result, row.result) << row.why;
        EXPECT_EQ(outcome.bytes, row.bytes) << row.why;
        EXPECT_EQ(outcome.direction, row.result == 0 ? 1 : 5) << row.why;
        EXPECT_EQ(load_shared(g_mux_atcmd_dlc), row.result == 0 ? 0x0B : 0) << row.why;
    }
}

TEST_F(MuxSession, RefusedFormatIsLogged) {
    open_channels();
    const struct {
        std::string_view frame;
        const char* why;
    } rows[] = {
        {"\xF9\x0B\xEF\x07\x41\x54\x0D\x54\x7E"sv, "no flag at its end"},
        {"\xF9\x0B\xEF\x09\x41\x54\x0D\x54\xF9"sv, "more information than bytes"},
        {"\xF9\x0B\xEF\x02\x00\x41\x54\xF9"sv, "two length bytes"},
    };
    for (const auto& row : rows) {
        testing::internal::CaptureStdout();
        give(row.frame);
        EXPECT_NE(testing::internal::GetCapturedStdout().find("MUX package format error.\r\n"),
                  std::string::npos)
            << row.why;
    }
}

TEST_F(MuxSession, RefusedStepsNameTheirStep) {
    give("AT+CMUX=0\r");
    for (const auto& [frame, word] : {std::pair{kSabm0, "SABM0"}, std::pair{kSabm1, "SABM1"},
                                      std::pair{kSabm2, "SABM2"}, std::pair{kSabm4, "SABM3"}}) {
        testing::internal::CaptureStdout();
        give("\xF9\x0B\x53\x01?\xF9"sv);
        EXPECT_NE(testing::internal::GetCapturedStdout().find(std::string(word) + " format error."),
                  std::string::npos);
        give(frame);
    }
}

TEST_F(MuxSession, ResponseIsDumped) {
    give("AT+CMUX=0\r");
    testing::internal::CaptureStdout();
    give(kSabm0);
    const std::string log = testing::internal::GetCapturedStdout();
    const std::string_view dump = " 0xf9  0x3  0x73  0x1  0xd7  0xf9 ";
    ASSERT_NE(log.find(dump), std::string::npos);
    EXPECT_NE(log.substr(log.find(dump) + dump.size(), 3), " 0x") << "no byte behind the frame";
}

TEST_F(MuxSession, AnswerWithoutAnAddressIsNoFrame) {
    std::array<char, kMuxAnswerArea> area{};
    for (const int dlc : {0, 1}) {
        int length = 0;
        EXPECT_EQ(proc_ue_to_host_cmux_response(dlc, "OK", 2, area.data(), &length), -1);
        EXPECT_EQ(length, 0) << dlc;
    }
}

TEST_F(MuxSession, ParameterCountIsAlwaysThree) {
    EXPECT_EQ(get_para_counts("AT+CMUX=1,2", 11), 3);
    EXPECT_EQ(get_para_counts(nullptr, 0), 3);
}

}  // namespace
