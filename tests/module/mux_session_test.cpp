// The multiplexer on the UART of the daemon that ships.
#include <unistd.h>

#include <algorithm>
#include <random>

#include "module.h"
#include "mux_link.h"

namespace {

const std::string kRefusal = "\r\n!!!!!MUX data error!!!!!.\r\n";
constexpr const char* kPlatformSocket = "/dev/socket/qmux_webs/server_webs";
constexpr const char* kPlatformScenario = "/etc/data/platform.txt";
constexpr int kCommands = bench::kMuxCommandChannel;
constexpr int kDial = bench::kMuxDialChannel;
// A machine that stands still for long in the middle of a cut frame is no fault of the daemon's.
constexpr int kAttempts = 50;

// Starts a module whose platform answers AT+CGMR and is connected on all three ports.
void start_with_platform(Module& module) {
    module.start_program("vexa-platform", {kPlatformScenario});
    module.wait_until([&] { return access(module.outside(kPlatformSocket).c_str(), F_OK) == 0; },
                      "the platform to listen");
    module.start();
    module.wait_for_log("client conenct local OK.", 3);
}

ModuleOptions with_platform() {
    ModuleOptions options;
    options.start = false;
    options.files = {
        {kPlatformScenario,
         "on AT+CGMR\n    answer VEXA-1\n    answer OK\notherwise\n    answer ERROR\n"}};
    return options;
}

// Commands to both destinations and a dial command with its CONNECT, each answered on its channel.
bool play_session(Module& module, MuxLink& mux) {
    if (!mux.open())
        return false;
    if (!mux.send(kCommands, "AT+CFUN?\r"))
        return false;
    module.uart_channel().expect("AT+CFUN?\r");
    module.uart_channel().send("\r\n+CFUN: 1\r\n\r\nOK\r\n");
    if (!mux.expect(kCommands, "\r\n+CFUN: 1\r\n\r\nOK\r\n") || !mux.send(kCommands, "AT+CGMR\r") ||
        !mux.expect(kCommands, "VEXA-1") || !mux.expect(kCommands, "OK\r\n") ||
        !mux.send(kDial, "ATD*99#\r"))
        return false;
    module.modem_channel().expect("ATD*99#\r");
    module.modem_channel().send("\r\nCONNECT\r\n");
    if (!mux.expect(kDial, "\r\nCONNECT\r\n") || !mux.send(kCommands, "AT+X?\r"))
        return false;
    module.uart_channel().expect("AT+X?\r");
    module.uart_channel().send("\r\nOK\r\n");
    return mux.expect(kCommands, "\r\nOK\r\n");
}

class MuxCut : public testing::TestWithParam<std::size_t> {};

TEST_P(MuxCut, SessionWithPlatformAndModem) {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        Module module(with_platform());
        start_with_platform(module);
        MuxLink mux(module, GetParam());
        if (!play_session(module, mux))
            continue;
        EXPECT_THAT(mux.host().oddities(), testing::IsEmpty());
        EXPECT_EQ(mux.host().stray(), "");
        return;
    }
    FAIL() << "this machine never gave a frame's bytes in time";
}

INSTANTIATE_TEST_SUITE_P(Bytes, MuxCut, testing::Values(1, 2, 3, 7, 0), [](const auto& row) {
    return row.param == 0 ? "AsTheyCome" : std::to_string(row.param);
});

TEST(MuxModule, SetUpAndCommandsGluedInOneWrite) {
    Module module;
    module.uart_port().write("AT+CMUX=0\r");
    module.uart_port().expect("\r\nOK\r\n");
    std::string frames;
    for (const int dlci : {0, 1, 2, 4})
        frames += bench::encode_mux_frame({.dlci = dlci, .control = 0x3F, .information = {}});
    for (const char* text : {"AT+A?\r", "AT+B?\r"})
        frames += bench::encode_mux_frame({.dlci = 2, .information = text});
    module.uart_port().write(frames);
    module.uart_port().expect(
        "\xF9\x03\x73\x01\xD7\xF9\xF9\x07\x73\x01\x15\xF9"
        "\xF9\x0B\x73\x01\x92\xF9\xF9\x13\x3F\x01\x5D\xF9");
    module.uart_channel().expect("AT+A?\r");
    module.uart_channel().expect("AT+B?\r");
}

TEST(MuxModule, FramesMayShareTheirFlags) {
    Module module;
    MuxLink mux(module);
    ASSERT_TRUE(mux.open());
    const std::string one = bench::encode_mux_frame({.dlci = 2, .information = "AT+A?\r"});
    const std::string two = bench::encode_mux_frame({.dlci = 2, .information = "AT+B?\r"});
    ASSERT_TRUE(mux.send_raw("\xF9\xF9" + one + two.substr(1) + "\xF9\xF9"));
    module.uart_channel().expect("AT+A?\r");
    module.uart_channel().expect("AT+B?\r");
    ASSERT_TRUE(mux.send(kCommands, "AT+C?\r"));
    module.uart_channel().expect("AT+C?\r");
    EXPECT_EQ(mux.host().stray(), "");
}

TEST(MuxModule, CommandsDoNotWaitForEachOther) {
    Module module;
    MuxLink mux(module);
    ASSERT_TRUE(mux.open());
    for (const char* text : {"AT+A?\r", "AT+B?\r", "AT+C?\r"})
        ASSERT_TRUE(mux.send(kCommands, text));
    for (const char* text : {"AT+A?\r", "AT+B?\r", "AT+C?\r"}) module.uart_channel().expect(text);
}

TEST(MuxModule, DataGoesOnOnTheDialChannelBesideCommands) {
    Module module;
    MuxLink mux(module);
    ASSERT_TRUE(mux.open());
    ASSERT_TRUE(mux.send(kDial, "ATD*99#\r"));
    module.modem_channel().expect("ATD*99#\r");
    module.modem_channel().send("\r\nCONNECT\r\n");
    ASSERT_TRUE(mux.expect(kDial, "\r\nCONNECT\r\n"));
    for (int i = 0; i < 20; ++i) {
        const std::string number = std::to_string(i);
        ASSERT_TRUE(mux.send(kDial, "up " + number));
        ASSERT_TRUE(mux.send(kCommands, "AT+N=" + number + "\r"));
        module.modem_channel().expect("up " + number);
        module.uart_channel().expect("AT+N=" + number + "\r");
        module.modem_channel().send("down " + number);
        module.uart_channel().send("\r\n+N: " + number + "\r\n\r\nOK\r\n");
        ASSERT_TRUE(mux.expect(kDial, "down " + number));
        ASSERT_TRUE(mux.expect(kCommands, "\r\n+N: " + number + "\r\n\r\nOK\r\n"));
    }
    EXPECT_EQ(mux.host().heard(kDial), "");
    EXPECT_EQ(mux.host().heard(kCommands), "");
    EXPECT_THAT(mux.host().oddities(), testing::IsEmpty());
}

TEST(MuxModule, LongAnswersComeInValidFramesThatDoNotMix) {
    Module module;
    MuxLink mux(module);
    ASSERT_TRUE(mux.open());
    ASSERT_TRUE(mux.send(kDial, "ATD*99#\r"));
    ASSERT_TRUE(mux.send(kCommands, "AT+LIST\r"));
    module.modem_channel().expect("ATD*99#\r");
    module.uart_channel().expect("AT+LIST\r");
    const std::string down(10'000, 'd');
    const std::string list(10'000, 'c');
    for (int i = 0; i < 3; ++i) {
        module.modem_channel().send(down);
        module.uart_channel().send(list);
    }
    ASSERT_TRUE(mux.expect(kDial, down + down + down));
    ASSERT_TRUE(mux.expect(kCommands, list + list + list));
    EXPECT_THAT(mux.host().oddities(), testing::IsEmpty());
    EXPECT_EQ(mux.host().stray(), "");
}

TEST(MuxModule, AnswersWithoutAChannelAreNotWritten) {
    Module module;
    MuxLink mux(module);
    ASSERT_TRUE(mux.open());
    module.uart_channel().send("\r\n+NOBODY: 1\r\n");
    module.modem_channel().send("\r\n+NOBODY: 2\r\n");
    module.wait_for_log("no channel for", 2);
    ASSERT_TRUE(mux.send(kCommands, "AT\r"));
    module.uart_channel().expect("AT\r");
    module.uart_channel().send("\r\nOK\r\n");
    ASSERT_TRUE(mux.expect(kCommands, "\r\nOK\r\n"));
    ASSERT_TRUE(mux.send(kDial, "ATD1\r"));
    module.modem_channel().expect("ATD1\r");
    module.modem_channel().send("\r\nCONNECT\r\n");
    ASSERT_TRUE(mux.expect(kDial, "\r\nCONNECT\r\n"));
    for (int dlci = 0; dlci <= 4; ++dlci) EXPECT_EQ(mux.host().heard(dlci), "") << dlci;
    EXPECT_EQ(mux.host().stray(), "");
}

TEST(MuxModule, CommandFormsBeforeTheSession) {
    Module module;
    HostPort& uart = module.uart_port();
    uart.write("AT+CMUX=?\r");
    uart.expect("+CMUX: (0),(0),(1-6),(1-1509),(1-255),(0-5),(2-255),(1-255)");
    uart.write("AT+CMUX?\r");
    uart.expect("+CMUX: 0,0,0,0,0,0,0,0");
    uart.write("AT+CMUX\r");
    uart.expect("app-plat is not running, plz wait....\r\n");
    // Each form ends its line: the next one is read as itself.
    uart.write("AT+CFUN?\r");
    module.uart_channel().expect("AT+CFUN?\r");
    module.uart_channel().send("\r\nOK\r\n");
    uart.expect("\r\nOK\r\n");
}

TEST(MuxModule, OtherPortsSendTheCommandToTheirModemChannel) {
    Module module;
    for (const int port : {0, 1}) {
        module.host_port(port).write("AT+CMUX=0\r");
        module.channel(port).expect("AT+CMUX=0\r");
        module.channel(port).send("\r\nERROR\r\n");
        module.host_port(port).expect("\r\nERROR\r\n");
    }
    module.uart_port().write("AT\r");
    module.uart_channel().expect("AT\r");
    module.uart_channel().send("\r\nOK\r\n");
    module.uart_port().expect("\r\nOK\r\n");
}

TEST(MuxModule, RefusedFramesLeaveTheSetUpWhereItWas) {
    Module module;
    HostPort& uart = module.uart_port();
    const auto set_up = [](int dlci) {
        return bench::encode_mux_frame({.dlci = dlci, .control = 0x3F, .information = {}});
    };
    uart.write("AT+CMUX=1,0,5,127\r");
    uart.expect("\r\nOK\r\n");
    uart.write(set_up(1));
    uart.expect(kRefusal);
    uart.write(set_up(0));
    uart.expect("\xF9\x03\x73\x01\xD7\xF9");
    uart.write(set_up(3));
    uart.expect(kRefusal);
    uart.write("not a frame");
    uart.expect(kRefusal);
    uart.write(set_up(1));
    uart.expect("\xF9\x07\x73\x01\x15\xF9");
}

TEST(MuxModule, OtherPortsGoOnDuringASession) {
    Module module;
    MuxLink mux(module);
    ASSERT_TRUE(mux.open());
    for (int i = 0; i < 10; ++i) {
        const std::string line = "AT+N=" + std::to_string(i) + "\r";
        const std::string answer = "\r\n+AT: " + std::to_string(i) + "\r\n\r\nOK\r\n";
        module.at_port().write(line);
        ASSERT_TRUE(mux.send(kCommands, "AT+MUX\r"));
        module.at_channel().expect(line);
        module.uart_channel().expect("AT+MUX\r");
        module.at_channel().send(answer);
        module.uart_channel().send("\r\nOK\r\n");
        module.at_port().expect(answer);
        ASSERT_TRUE(mux.expect(kCommands, "\r\nOK\r\n"));
    }
    EXPECT_EQ(module.at_port().received(), "");
}

TEST(MuxModule, ReopenedUartStartsAFrameAnew) {
    Module module;
    MuxLink mux(module);
    ASSERT_TRUE(mux.open());
    const std::string frame = bench::encode_mux_frame({.dlci = 2, .information = "AT+LOST\r"});
    const int polls = module.device("/dev/ttyMSM1").polls();
    ASSERT_TRUE(mux.send_raw(frame.substr(0, 6)));
    module.wait_until([&] { return module.device("/dev/ttyMSM1").polls() > polls; },
                      "half a frame to be read");
    const int opens = module.device("/dev/ttyMSM1").opens();
    module.uart_port().replug();
    module.wait_until([&] { return module.device("/dev/ttyMSM1").opens() > opens; },
                      "the UART to be opened anew");
    module.wait_for_log("tcsetattr for /dev/ttyMSM1 success.", 2);
    ASSERT_TRUE(mux.send(kCommands, "AT+KEPT\r"));
    module.uart_channel().expect("AT+KEPT\r");
    EXPECT_EQ(mux.host().stray(), "");
}

// Hostile input of several kinds; afterwards the session and the AT port work.
struct Hostile {
    const char* name;
    std::string bytes;
};

void PrintTo(const Hostile& hostile, std::ostream* out) {
    *out << hostile.bytes.size() << " bytes";
}

Hostile random_bytes() {
    std::minstd_rand random(4711);
    std::string bytes;
    for (int i = 0; i < 16 * 1024; ++i) bytes.push_back(static_cast<char>(random()));
    return {"Random", bytes};
}

class MuxHostile : public testing::TestWithParam<Hostile> {};

TEST_P(MuxHostile, NeitherTheSessionNorAnotherPortMinds) {
    Module module;
    MuxLink mux(module);
    ASSERT_TRUE(mux.open());
    module.at_port().write("AT+HALF");
    for (std::string_view rest = GetParam().bytes; !rest.empty();
         rest.remove_prefix(std::min<std::size_t>(1000, rest.size()))) {
        ASSERT_TRUE(mux.send_raw(rest.substr(0, 1000)));
        mux.host();  // takes what came
    }
    // More flags than the longest frame has bytes end whatever was begun.
    ASSERT_TRUE(mux.send_raw(std::string(1600, '\xF9')));
    ASSERT_TRUE(mux.send(kCommands, "AT+LAST\r"));
    const auto& lines = module.uart_channel().received();
    module.wait_until([&] { return std::count(lines.begin(), lines.end(), "AT+LAST\r") > 0; },
                      "AT+LAST");
    module.uart_channel().send("\r\n+LAST: 1\r\n\r\nOK\r\n");
    ASSERT_TRUE(mux.expect(kCommands, "\r\n+LAST: 1\r\n\r\nOK\r\n"));
    module.at_port().write("?\r");
    module.at_channel().expect("AT+HALF?\r");
    module.at_channel().send("\r\nOK\r\n");
    module.at_port().expect_up_to("\r\nOK\r\n");
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, MuxHostile,
    testing::Values(random_bytes(), Hostile{"Flags", std::string(16 * 1024, '\xF9')},
                    Hostile{"Zeros", std::string(16 * 1024, '\0')},
                    Hostile{"Letters", std::string(16 * 1024, 'A')},
                    Hostile{"Truncated", std::string("\xF9\x0B\xEF\xFF") + "truncated"},
                    Hostile{"TooLong",
                            std::string("\xF9\x0B\xEF\xFE\xFF") + std::string(500, 'x')}),
    [](const auto& row) { return row.param.name; });

}  // namespace
