#include "at_engine.h"

#include <cstdio>
#include <functional>
#include <random>
#include <utility>

#include "engine_fixture.h"
#include "platform_pack.h"

namespace {

class Engine : public EveryPort {};
INSTANTIATE_TEST_SUITE_P(Ports, Engine, ::testing::Values(kModemPort, kAtPort, kUartPort),
                         port_name);

TEST_P(Engine, ALineInSeparateChunksIsOneLine) {
    EXPECT_EQ(own.feed("AT"), 0);
    EXPECT_EQ(own.feed("\r"), 1);
    EXPECT_EQ(own.cp.messages(), (Lines{"AT\r"}));
    EXPECT_EQ(own.line(), "");
}

TEST_P(Engine, AFirstChunkThatBeginsNoLineIsDropped) {
    EXPECT_EQ(own.feed("X"), 0);
    EXPECT_EQ(own.line(), "");
    EXPECT_EQ(own.feed("AT\r"), 1);
    EXPECT_EQ(own.cp.messages(), (Lines{"AT\r"}));
}

TEST_P(Engine, ACompleteLineThatIsIllegalIsDroppedWithoutAnAnswer) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(own.feed("XAT\r"), 0);
    EXPECT_NE(testing::internal::GetCapturedStdout().find(
                  "atcmd is illegal clean it. g_at_buf_cache:<XAT\r>,"),
              std::string::npos);
    EXPECT_EQ(own.line(), "");
    EXPECT_TRUE(own.cp.messages().empty());
    EXPECT_EQ(all_hosts(), "");
}

TEST_P(Engine, AnEmptyChunkIsDealtWith) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(own.feed(""), 1);
    char area[] = "AT\r";
    EXPECT_EQ(common_input_atcmd_proc(-1, area, -1, &own.record.mode, &own.record.response_mutex,
                                      &own.record.response_cond, &own.tinfo),
              1);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("!!!!!!common_input_atcmd_proc read data 0 !!!!0,"), std::string::npos);
    EXPECT_NE(log.find("!!!!!!common_input_atcmd_proc read data 0 !!!!-1,"), std::string::npos);
    EXPECT_EQ(own.line(), "");
}

TEST_P(Engine, RepeatsTheLastLine) {
    struct {
        const char* repeat;
        const char* last;
        const char* sent;
        const char* why;
    } const rows[] = {
        {"A/\r", "AT+CFUN?\r", "AT+CFUN?\r", "longer than the repeat"},
        {"a/\r", "AT+CFUN?\r", "AT+CFUN?\r", "in lower case"},
        {"A/\r\n", "AT\r", "AT\r\n", "the repeat's own end stays"},
        {"a/\r\n", "AT\r", "AT\r\n", "in lower case"},
        {"A/", "AT\r", "AT\r", "without an end"},
        {"a/", "AT\r", "AT\r", "in lower case"},
    };
    for (const auto& row : rows) {
        own.feed(row.last);
        own.cp.messages();
        EXPECT_EQ(own.feed(row.repeat), 1) << row.repeat;
        EXPECT_EQ(own.cp.messages(), (Lines{row.sent})) << row.repeat << ": " << row.why;
    }
}

TEST_P(Engine, ARepeatWithNothingToRepeatIsDropped) {
    EXPECT_EQ(own.feed("a/\r"), 0);
    EXPECT_EQ(own.line(), "");
    EXPECT_TRUE(own.cp.messages().empty());
}

TEST_P(Engine, ARepeatIsThePortsOwn) {
    TestPort& other = port(GetParam() == kAtPort ? kModemPort : kAtPort);
    own.feed("AT+CFUN=1\r");
    own.cp.messages();
    EXPECT_EQ(other.feed("A/\r"), 0);
    EXPECT_TRUE(other.cp.messages().empty());
}

TEST_P(Engine, BackspaceRemovesTheLastCharacter) {
    for (const char* key : {"A", "T", "X", "\b", "+", "\b", "\r"}) own.feed(key);
    EXPECT_EQ(own.cp.messages(), (Lines{"AT\r"}));
}

TEST_P(Engine, BackspaceOnAnEmptyLineLeavesItEmpty) {
    for (int i = 0; i < 50; ++i) EXPECT_EQ(own.feed("\b"), 0);
    EXPECT_EQ(own.line(), "");
    own.feed("AT\r");
    EXPECT_EQ(own.cp.messages(), (Lines{"AT\r"}));
}

TEST_P(Engine, BackspaceEditsWhateverS5Is) {
    store_shared(g_ats5_cmd_line_edit_char, '#');
    for (const char* key : {"A", "T", "+", "\b", "#", "\r"}) own.feed(key);
    EXPECT_EQ(own.cp.messages(), (Lines{"AT#\r"}));
}

TEST_P(Engine, TypedCharactersAreEchoedAtOnceBackspaceToo) {
    for (const char* key : {"A", "T", "\b"}) own.feed(key);
    EXPECT_EQ(own_host.bytes(), is_uart ? "" : "AT\b");
    EXPECT_EQ(load_shared(g_is_single_char_input), 1);
    EXPECT_EQ(all_hosts(), "") << "no other port hears it";
}

TEST_P(Engine, LongerChunksAreNotEchoed) {
    own.feed("AT");
    EXPECT_EQ(all_hosts(), "");
    EXPECT_EQ(load_shared(g_is_single_char_input), 0);
}

TEST_P(Engine, NothingIsEchoedWhenEchoIsOff) {
    store_shared(g_client_ate_status, kEchoOff);
    for (const char* key : {"A", "T", "\b"}) own.feed(key);
    EXPECT_EQ(all_hosts(), "");
    EXPECT_EQ(load_shared(g_is_single_char_input), 0);
    EXPECT_EQ(own.line(), "A") << "backspace edits all the same";
}

TEST_P(Engine, CombinedCommandsAreSentOneByOne) {
    struct {
        const char* line;
        Lines cp, platform;
        const char* why;
    } const rows[] = {
        {"ATE0\r", {"ATE0\r"}, {"ATE0\r"}, "five characters: whole"},
        {"ATE0V1\r", {"ATE0\r\n", "ATV1\r\n"}, {"ATE0\r\n", "ATV1\r\n"}, "seven"},
        {"AT E0 V1\r", {"ATE0\r\n", "ATV1\r\n"}, {"ATE0\r\n", "ATV1\r\n"}, "seven without spaces"},
        {"ATE0V1Q0\r",
         {"ATE0\r\n", "ATV1\r\n", "ATQ0\r\n"},
         {"ATE0\r\n", "ATV1\r\n", "ATQ0\r\n"},
         "nine"},
        {"ATE0V1Q0X1S0\r", {"ATE0V1Q0X1S0\r"}, {"ATE0V1Q0X1S0\r"}, "thirteen: whole"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(own.feed(row.line), 1) << row.why;
        EXPECT_EQ(own.cp.messages(), row.cp) << row.line << ": " << row.why;
        EXPECT_EQ(own.to_platform(), row.platform) << row.line << ": " << row.why;
        EXPECT_EQ(own.line(), "") << row.line;
    }
}

TEST_P(Engine, SpacesOutsideQuotesAreRemoved) {
    own.feed("AT + CFUN = 1\r");
    own.feed("AT+CMGS=\"a b\" , 145\r\n");
    own.feed("AT+CFUN=\"a b\r");
    EXPECT_EQ(own.cp.messages(),
              (Lines{"AT+CFUN=1\r", "AT+CMGS=\"a b\",145\r", "AT+CFUN=\"a b\r"}));
}

TEST_P(Engine, AChunkThatEndsALineIsOneLine) {
    struct {
        const char* chunk;
        int result;
        Lines sent;
        const char* why;
    } const rows[] = {
        {" AT\r", 1, {"AT\r"}, "spaces are gone before the line is judged"},
        {"A /\r", 0, {}, "no repeat: that is looked for before spaces go"},
        {"AT\rAT+CFUN?\r", 1, {"AT\rAT+CFUN?\r"}, "an end within the chunk ends nothing"},
        {"AT\rAT+CFUN ?\r", 1, {"AT\r"}, "but the removal of spaces stops there"},
    };
    own.feed("AT+COPS?\r");  // what a repeat would bring
    own.cp.messages();
    for (const auto& row : rows) {
        EXPECT_EQ(own.feed(row.chunk), row.result) << row.why;
        EXPECT_EQ(own.cp.messages(), row.sent) << row.why;
        EXPECT_EQ(own.line(), "") << row.why;
    }
}

TEST_P(Engine, TextEndsAtANul) {
    own.feed(std::string("AT+CFUN\0=5\r", 11));
    own.feed("?\r");
    EXPECT_EQ(own.cp.messages(), (Lines{"AT+CFUN?\r"}));
}

TEST_P(Engine, ALineOfFullLengthIsSent) {
    const std::string line = "AT+X=" + std::string(kDeviceReadSize - 6, 'y') + "\r";
    own.feed(line.substr(0, 10000));
    EXPECT_EQ(own.feed(line.substr(10000)), 1);
    EXPECT_EQ(own.cp.messages(), (Lines{line}));
}

// Without an S3 character to stop at, the removal of spaces appends one behind the 16,384 bytes
// that it keeps, and a NUL. The line has no room for that S3: it is cut off again.
TEST_P(Engine, ALineOfFullLengthThatKeepsItsSpacesIsSentAsItIs) {
    const std::string start = "AT+X=\" ";
    const std::string line = start + std::string(kDeviceReadSize - start.size() - 1, 'y') + "\x1A";
    EXPECT_EQ(own.feed(line), 1);
    EXPECT_EQ(own.cp.messages(), (Lines{line}));
    EXPECT_EQ(own.line(), "");
}

TEST_P(Engine, AnOverlongLineIsDroppedToItsEnd) {
    store_shared(g_client_ate_status, kEchoOff);
    const std::string line = "AT+X=" + std::string(kDeviceReadSize - 5, 'y');
    for (const std::size_t size : {1U, 7U, 1000U, 16384U}) {
        testing::internal::CaptureStdout();
        own.feed(line);
        own.feed_cut("AT+CFUN=666A/" + std::string(3000, 'z'), size);
        EXPECT_EQ(own.feed("AT+REST\r"), 0) << "no line of its own before the line's end";
        const std::string log = testing::internal::GetCapturedStdout();
        const std::size_t first = log.find("atcmd is too long, drop it.");
        ASSERT_NE(first, std::string::npos);
        EXPECT_EQ(log.find("atcmd is too long, drop it.", first + 1), std::string::npos);
        EXPECT_TRUE(own.cp.messages().empty()) << size;
        own.feed("AT\r");
        EXPECT_EQ(own.cp.messages(), (Lines{"AT\r"})) << size;
    }
}

TEST_P(Engine, AnOverlongLineMayEndInTheChunkThatOverflows) {
    struct {
        char s3;
        const char* chunk;
        bool ends;
    } const rows[] = {
        {'\r', "\r", true},  {'\r', "\r\n", true}, {'\r', "\x1A", true}, {'\r', "xx\r\n", true},
        {'\r', "\n", false}, {'\r', "x\n", false}, {'\r', "\rx", false}, {'#', "\r", true},
        {'#', "#", true},    {'#', "x#\n", true},  {'#', "#x", false},   {'#', "\r\n", false},
    };
    for (const auto& row : rows) {
        own.feed("AT+X=" + std::string(kDeviceReadSize - 5, 'y'));
        store_shared(g_ats3_carriage_return_char, static_cast<uint8_t>(row.s3));
        EXPECT_EQ(own.feed(row.chunk), 0);
        store_shared(g_ats3_carriage_return_char, 13);
        own.feed("AT\r");
        EXPECT_EQ(own.cp.messages(), row.ends ? Lines{"AT\r"} : Lines{}) << row.s3 << row.chunk;
    }
}

TEST_P(Engine, InputMayBeCutAnywhere) {
    store_shared(g_client_ate_status, kEchoOff);
    const std::string text = "AT\rAT+CFUN?\rATD*99#;\rAT+CMGS=\"1 2\"\rA/";
    const Lines lines = {"AT\r", "AT+CFUN?\r", "ATD*99#;\r", "AT+CMGS=\"1 2\"\r",
                         "AT+CMGS=\"1 2\"\r"};
    own.feed_cut(text, 1);
    EXPECT_EQ(own.cp.messages(), lines);
}

TEST_P(Engine, ALineMayBeCutAnywhere) {
    store_shared(g_client_ate_status, kEchoOff);
    const std::string line = "AT+COPS = 1,2,\"Net one\" \r";
    for (const std::size_t size : {std::size_t{1}, std::size_t{2}, std::size_t{3}, line.size()}) {
        own.feed_cut(line, size);
        EXPECT_EQ(own.cp.messages(), (Lines{"AT+COPS=1,2,\"Net one\"\r"})) << size;
    }
}

TEST_P(Engine, SmsTextGoesThroughAndEndsTheMode) {
    struct {
        std::string chunk;
        int mode;
        const char* why;
    } const rows[] = {
        {"Hello \xFF", 2, "text"},         {std::string("a\0b", 3), 2, "a NUL is data"},
        {"\r", 2, "a line's end is none"}, {"\x1Ax", 2, "the end counts at the end only"},
        {"x\x1A", 0, "Ctrl-Z sends"},      {"\x1B", 0, "ESC cancels"},
    };
    for (const auto& row : rows) {
        own.set_mode(USB_PORT_SMS_MODE);
        EXPECT_EQ(own.feed(row.chunk), 1) << row.why;
        EXPECT_EQ(own.cp.messages(), (Lines{row.chunk})) << row.why;
        EXPECT_EQ(own.mode(), row.mode) << row.why;
    }
    EXPECT_EQ(all_hosts(), "") << "raw bytes are not echoed";
}

TEST_P(Engine, PppDataGoesThroughAndTheEscapesEndTheMode) {
    struct {
        std::string chunk;
        int mode;
        const char* why;
    } const rows[] = {
        {std::string("\x7E\0\xFF\x7E", 4), 3, "data"},
        {"+++", 0, "the escape"},
        {"++", 3, "too short"},
        {"++++", 3, "not the escape alone"},
        {"+++\r", 3, "not the escape alone"},
        {"ATH\r", 0, "hang up"},
        {"ath\r\n", 0, "in lower case, five bytes"},
        {"ATH", 3, "without its end"},
        {"ATH\r\n\n", 3, "six bytes are data"},
        {"ATH0\r", 3, "another command"},
        {std::string("ATH\0\r", 5), 3, "a NUL is no CR"},
    };
    for (const auto& row : rows) {
        own.set_mode(USB_PORT_PPP_MODE);
        EXPECT_EQ(own.feed(row.chunk), 1) << row.why;
        EXPECT_EQ(own.cp.messages(), (Lines{row.chunk})) << row.why;
        EXPECT_EQ(own.mode(), row.mode) << row.why;
    }
}

// While another holds CP's lock the mode has moved already and nothing is written.
TEST_P(Engine, TheEndOfRawInputMovesTheModeAndThenIsWrittenUnderCpsLock) {
    struct {
        int mode;
        const char* end;
    } const rows[] = {{USB_PORT_SMS_MODE, "text\x1A"}, {USB_PORT_PPP_MODE, "+++"}};
    for (const auto& row : rows) {
        own.set_mode(row.mode);
        pthread_mutex_lock(&own.cp_mutex);
        std::thread reader([&] { own.feed(row.end); });
        constexpr int kDeadlineMs = 60'000;
        for (int ms = 0; ms < kDeadlineMs && own.mode() != USB_PORT_ATCMD_MODE; ++ms) usleep(1000);
        EXPECT_EQ(own.mode(), USB_PORT_ATCMD_MODE);
        EXPECT_TRUE(own.cp.messages().empty());
        pthread_mutex_unlock(&own.cp_mutex);
        reader.join();
        EXPECT_EQ(own.cp.messages(), (Lines{row.end}));
    }
}

TEST_P(Engine, LeavingPppModeIsLogged) {
    own.set_mode(USB_PORT_PPP_MODE);
    testing::internal::CaptureStdout();
    own.feed("+++");
    EXPECT_NE(testing::internal::GetCapturedStdout().find("we got +++, exit ppp mode. "),
              std::string::npos);
}

TEST_P(Engine, DataGoesToThePlatform) {
    own.set_mode(USB_PORT_DATA_MODE);
    testing::internal::CaptureStdout();
    for (const std::string& data :
         {std::string("AT\r\0\xFF", 5), std::string("x"), std::string("\x1Ax")}) {
        EXPECT_EQ(own.feed(data), 1);
        EXPECT_EQ(own.to_platform(), (Lines{data}));
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout().find("ctrl+z"), std::string::npos);
    testing::internal::CaptureStdout();
    EXPECT_EQ(own.feed("\x1A"), 1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("we got ctrl+z, exit data mode. "),
              std::string::npos);
    EXPECT_EQ(own.to_platform(), (Lines{"\x1A"}));
    EXPECT_EQ(own.mode(), USB_PORT_DATA_MODE);
    EXPECT_TRUE(own.cp.messages().empty());
    EXPECT_EQ(all_hosts(), "");
}

// Does `work` at each write of the log, in place of standard output.
class WorkAtLogWrites {
  public:
    explicit WorkAtLogWrites(std::function<void()> work) : work_(std::move(work)) {
        const cookie_io_functions_t calls{nullptr,
                                          [](void* own, const char*, std::size_t size) {
                                              static_cast<WorkAtLogWrites*>(own)->work_();
                                              return static_cast<ssize_t>(size);
                                          },
                                          nullptr, nullptr};
        FILE* const stream = fopencookie(this, "w", calls);
        setvbuf(stream, nullptr, _IONBF, 0);
        standard_ = std::exchange(stdout, stream);
    }
    ~WorkAtLogWrites() { fclose(std::exchange(stdout, standard_)); }
    WorkAtLogWrites(const WorkAtLogWrites&) = delete;
    WorkAtLogWrites& operator=(const WorkAtLogWrites&) = delete;

  private:
    std::function<void()> work_;
    FILE* standard_ = nullptr;
};

// The platform may end data mode at any time; its answer is here while Ctrl-Z is being logged.
TEST_P(Engine, DataGoesOutAsDataWhenTheModeMovesMeanwhile) {
    own.set_mode(USB_PORT_DATA_MODE);
    {
        const WorkAtLogWrites platform([this] { own.set_mode(USB_PORT_ATCMD_MODE); });
        EXPECT_EQ(own.feed("\x1A"), 1);
    }
    ASSERT_EQ(own.mode(), USB_PORT_ATCMD_MODE);
    const std::string pack = own.platform.bytes();
    ASSERT_EQ(pack.size(), kPackHeadsSize + 1);
    EXPECT_EQ(disassemble_sockhead(pack).cmd_type, CMD_AT_DATA);
}

TEST_P(Engine, DataWithoutAPlatformIsAnsweredOnTheUsbPorts) {
    own.set_mode(USB_PORT_DATA_MODE);
    store_shared(own.record.platform_socket, -1);
    EXPECT_EQ(own.feed("data"), 1);
    EXPECT_EQ(own_host.bytes(), is_uart ? "" : kDownText);
    EXPECT_EQ(all_hosts(), "");
}

TEST_P(Engine, HexInputIsDropped) {
    own.set_mode(USB_PORT_HEX_MODE);
    testing::internal::CaptureStdout();
    EXPECT_EQ(own.feed("AT\r"), 1);
    EXPECT_NE(
        testing::internal::GetCapturedStdout().find("chunk dropped, port mode:1, length:3,0.\r\n"),
        std::string::npos);
    EXPECT_TRUE(own.cp.messages().empty());
    EXPECT_TRUE(own.to_platform().empty());
    EXPECT_EQ(all_hosts() + own.line(), "");
    EXPECT_EQ(own.mode(), USB_PORT_HEX_MODE);
}

TEST_P(Engine, TheLogOfAnOrdinaryLineComplainsOfNothing) {
    testing::internal::CaptureStdout();
    own.feed("AT+CFUN?\r");
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(log.find("input error"), std::string::npos) << log;
    EXPECT_EQ(log.find("combined registration"), std::string::npos) << log;
    EXPECT_EQ(log.find("POLL"), std::string::npos) << log;
}

TEST_P(Engine, AFailedRawWriteClosesTheChannel) {
    for (const int mode : {USB_PORT_SMS_MODE, USB_PORT_PPP_MODE}) {
        own.set_mode(mode);
        own.cp.daemon_fd = -1;
        testing::internal::CaptureStdout();
        EXPECT_EQ(own.feed("x\x1A"), 0);
        EXPECT_NE(testing::internal::GetCapturedStdout().find("close_fd_mutexed file_path close:"),
                  std::string::npos);
        EXPECT_EQ(own.cp.daemon_fd, -1);
        EXPECT_EQ(own.mode(), mode == USB_PORT_SMS_MODE ? 0 : 3);
    }
}

TEST_P(Engine, ALineThatCannotBeWrittenIsGone) {
    own.cp.daemon_fd = -1;
    EXPECT_EQ(own.feed("AT+CFUN?\r"), 1);
    EXPECT_EQ(own.line(), "");
}

TEST_P(Engine, MissingArgumentsAreLoggedAndNeverFollowed) {
    char area[] = "AT\r";
    const auto call = [this](char* buf, int* mode, pthread_mutex_t* mutex, pthread_cond_t* cond,
                             thread_info_t* tinfo) {
        bind_input_source(own.source);
        return common_input_atcmd_proc(-1, buf, 3, mode, mutex, cond, tinfo);
    };
    PortRecord const& record = own.record;
    pthread_mutex_t* mutex = &record.response_mutex;
    pthread_cond_t* cond = &record.response_cond;
    testing::internal::CaptureStdout();
    EXPECT_EQ(call(nullptr, &record.mode, mutex, cond, &own.tinfo), 0);
    EXPECT_EQ(call(area, nullptr, mutex, cond, &own.tinfo), 0);
    EXPECT_EQ(call(area, &record.mode, nullptr, cond, &own.tinfo), 1);
    EXPECT_EQ(call(area, &record.mode, mutex, nullptr, &own.tinfo), 1);
    EXPECT_EQ(call(area, &record.mode, mutex, cond, nullptr), 1);
    own.set_mode(USB_PORT_SMS_MODE);
    EXPECT_EQ(call(area, &record.mode, mutex, cond, nullptr), 0);
    own.set_mode(USB_PORT_ATCMD_MODE);
    EXPECT_EQ(common_input_atcmd_proc(-1, nullptr, 0, nullptr, nullptr, nullptr, nullptr), 1);
    const std::string log = testing::internal::GetCapturedStdout();
    int complaints = 0;
    for (auto at = log.find("common_input_atcmd_proc input error."); at != std::string::npos;
         at = log.find("common_input_atcmd_proc input error.", at + 1))
        ++complaints;
    EXPECT_EQ(complaints, 7) << "one for each call";
    EXPECT_NE(log.find("send_atcmd_to_plat_cp input error.\r"), std::string::npos);
    EXPECT_TRUE(own.cp.messages().empty());
}

TEST_P(Engine, AClosedConnectionDoesNotChangeThePort) {
    store_shared(own.record.platform_socket, -1);
    own.feed("A");
    EXPECT_EQ(own_host.bytes(), is_uart ? "" : "A");
    EXPECT_EQ(all_hosts(), "");
}

TEST_P(Engine, ASmsCommandDoesNotChangeTheMode) {
    own.feed("AT+CMGS=12\r");
    EXPECT_EQ(own.mode(), USB_PORT_ATCMD_MODE);
    EXPECT_EQ(own.cp.messages(), (Lines{"AT+CMGS=12\r"}));
}

TEST_P(Engine, AnyS3BelowTheLimitLeavesALineThatWorks) {
    for (int s3 = 0; s3 < 128; ++s3) {
        store_shared(g_ats3_carriage_return_char, static_cast<uint8_t>(s3));
        for (const char* line : {"AT+CFUN?\r", "AT \"x y\r", "\r\n", "A/", "ATS3=1\r"})
            own.feed(line);
        EXPECT_LE(own.line().size(), static_cast<std::size_t>(kDeviceReadSize));
        own.cp.messages();
        own.to_platform();
        store_shared(g_ats3_carriage_return_char, 13);
        own.feed("\r");
        own.cp.messages();
        EXPECT_EQ(own.feed("AT+CFUN=7\r"), 1) << s3;
        EXPECT_EQ(own.cp.messages(), (Lines{"AT+CFUN=7\r"})) << s3;
    }
}

TEST_P(Engine, LivesThroughJunk) {
    store_shared(g_client_ate_status, kEchoOff);
    std::minstd_rand random(7);  // the same junk in every run
    static constexpr char kAlphabet[] = "ATat+/=?\"; \b\r\n\x1A\x1B\0\xFFSs3E0";
    const std::string alphabet(kAlphabet, sizeof kAlphabet - 1);
    for (int i = 0; i < 2000; ++i) {
        std::string chunk;
        for (std::size_t left = random() % 12; left > 0; --left)
            chunk += alphabet[random() % alphabet.size()];
        own.feed(chunk);
        own.cp.messages();
        own.to_platform();
        all_hosts();
    }
    reset_engine_settings();
    own.set_mode(USB_PORT_ATCMD_MODE);
    own.feed("\r");
    own.cp.messages();
    own.feed("AT+CFUN=7\r");
    EXPECT_EQ(own.cp.messages(), (Lines{"AT+CFUN=7\r"}));
}

class EngineAcrossPorts : public EngineFixture {};

TEST_F(EngineAcrossPorts, CmuxBelongsToTheUart) {
    for (const PortIndex index : {kModemPort, kAtPort}) {
        const Answerer answerer(g_ports[index].response_cond);
        EXPECT_EQ(port(index).feed("AT+CMUX=0\r"), 1);
        EXPECT_EQ(port(index).cp.messages(), (Lines{"AT+CMUX=0\r"}));
        EXPECT_EQ(port(index).mode(), USB_PORT_ATCMD_MODE);
    }
    EXPECT_EQ(load_shared(g_uart_port_status), 0);
    EXPECT_EQ(uart_port.feed("AT+CMUX=0\r"), 0);
    EXPECT_EQ(uart.bytes(), "\r\nOK\r\n");
    EXPECT_EQ(uart_port.mode(), USB_PORT_CMUX_MODE);
    EXPECT_EQ(uart_port.line(), "");
    EXPECT_TRUE(uart_port.cp.messages().empty());
}

TEST_F(EngineAcrossPorts, AQuestionAboutCmuxLeavesCommandMode) {
    EXPECT_EQ(uart_port.feed("AT+CMUX=?\r"), 0);
    EXPECT_EQ(uart.bytes(), "+CMUX: (0),(0),(1-6),(1-1509),(1-255),(0-5),(2-255),(1-255)");
    EXPECT_EQ(uart_port.mode(), USB_PORT_ATCMD_MODE);
    EXPECT_EQ(uart_port.line(), "");
}

TEST_F(EngineAcrossPorts, ACmuxCommandThatIsRefusedLeavesTheAnswerAsItWas) {
    EXPECT_EQ(uart_port.feed("AT+CMUX\r"), 0);
    EXPECT_EQ(uart.bytes(), kDownText);
    EXPECT_EQ(uart_port.line(), "");
}

TEST_F(EngineAcrossPorts, BytesOfTwoSourcesNeverMix) {
    const Answerer modem_answerer(g_cond_mport);
    const Answerer at_answerer(g_cond_atport);
    const Answerer uart_answerer(g_cond_uartport);
    store_shared(g_client_ate_status, kEchoOff);
    const std::string lines[] = {"AT+CFUN=1\r", "AT+CFUN=2\r", "AT+CFUN=3\r"};
    for (std::size_t at = 0; at < lines[0].size(); ++at)
        for (int i = 0; i < kPortCount; ++i)
            port(static_cast<PortIndex>(i)).feed(lines[i].substr(at, 1));
    EXPECT_EQ(modem_port.cp.messages(), (Lines{lines[0]}));
    EXPECT_EQ(at_port.cp.messages(), (Lines{lines[1]}));
    EXPECT_EQ(uart_port.cp.messages(), (Lines{lines[2]}));
}

TEST_F(EngineAcrossPorts, TwoSourcesOfOnePortHaveLinesOfTheirOwn) {
    const Answerer answerer(g_cond_atport);
    at_port.feed("AT+CF");
    for (const InputSource source : {InputSource::udp_server, InputSource::pcie_pipe}) {
        at_port.source = source;
        at_port.feed("AT+COPS?\r");
    }
    at_port.source = InputSource::at_port;
    at_port.feed("UN?\r");
    EXPECT_EQ(at_port.cp.messages(), (Lines{"AT+COPS?\r", "AT+COPS?\r", "AT+CFUN?\r"}));
}

TEST_F(EngineAcrossPorts, AnOverlongLineOfOneSourceDisturbsNoOther) {
    const Answerer answerer(g_cond_mport);
    at_port.feed("AT+X=" + std::string(kDeviceReadSize - 5, 'y'));
    at_port.feed("y");
    modem_port.feed("AT\r");
    EXPECT_EQ(modem_port.cp.messages(), (Lines{"AT\r"}));
    at_port.feed("\r");
    EXPECT_TRUE(at_port.cp.messages().empty());
}

}  // namespace
