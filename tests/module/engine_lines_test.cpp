// Command lines as a host types them, on each of the three ports of the running daemon.
#include "typing.h"

namespace {

class EngineLines : public PortTest {};
INSTANTIATE_TEST_SUITE_P(Ports, EngineLines, testing::Values(0, 1, 2), port_test_name);

TEST_P(EngineLines, ALineTypedByHandIsEchoedAndSentWhole) {
    type_by_hand("AT+CFUN?\r");
    channel().expect("AT+CFUN?\r");
    host().expect(echoed("AT+CFUN?\r"));
    answer("\r\n+CFUN: 1\r\n\r\nOK\r\n");
}

TEST_P(EngineLines, BackspaceTakesTheLastCharacterBack) {
    type_by_hand("\b\bAT+CFUN=9\b1\r");
    channel().expect("AT+CFUN=1\r");
    host().expect(echoed("\b\bAT+CFUN=9\b1\r"));
    answer("\r\nOK\r\n");
}

TEST_P(EngineLines, TheLastLineIsRepeated) {
    command("AT+CFUN?\r", "AT+CFUN?\r");
    command("A/", "AT+CFUN?\r");
    command("a/\r\n", "AT+CFUN?\r");
}

TEST_P(EngineLines, SpacesOutsideQuotesGo) {
    command("AT+CPBW = 1, \"+1 2\", 145\r", "AT+CPBW=1,\"+1 2\",145\r");
}

TEST_P(EngineLines, IllegalLinesAreDroppedInSilence) {
    for (const char* junk : {"XYZ\r", "A/\r", "\r\n", " A", "TX\r", "\"\"\r", "+++"}) type(junk);
    command("AT+CFUN?\r", "AT+CFUN?\r");
}

// Without a platform its commands are CP's; those that CP sees anyhow reach it twice.
TEST_P(EngineLines, CombinedCommandsAreSentOneByOne) {
    host().write("ATE0V1Q0\r");
    for (const char* part : {"ATE0\r\n", "ATV1\r\n", "ATQ0\r\n"}) {
        channel().expect(part);
        channel().expect(part);
        answer("\r\nOK\r\n");
    }
    host().write("A");
    command("T\r", "AT\r");
}

// The end of the long line and what is typed behind it may be read as one chunk, which is then
// dropped whole: the command is typed until it is served.
TEST_P(EngineLines, AnOverlongLineIsDroppedAndTheNextOneServed) {
    host().write("AT+X=" + std::string(20000, 'y') + "\r");
    while (channel().received().empty()) {
        host().write("AT+CFUN?\r");
        module.serve(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(channel().expect_message().find("AT+CFUN?\r"), 0U);
    EXPECT_EQ(module.log_count("atcmd is too long, drop it."), 1);
    EXPECT_EQ(host().received(), "");
}

TEST_P(EngineLines, BinaryInCommandModeDisturbsNobody) {
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes.push_back(static_cast<char>(i));
    type(bytes);
    // A blank in the line has it cut at its first CR.
    command("AT" + bytes.substr(1) + "\r", "AT" + bytes.substr(1, 12) + "\r");
    command("AT+CFUN?\r", "AT+CFUN?\r");
}

class EngineAllPorts : public testing::Test {
  protected:
    Module module;
};

TEST_F(EngineAllPorts, BytesOfOnePortNeverMixIntoAnothersLine) {
    const std::string lines[] = {"AT+CFUN=1\r", "AT+CFUN=2\r", "AT+CFUN=3\r"};
    for (std::size_t at = 0; at + 1 < lines[0].size(); ++at)
        for (int port = 0; port < 3; ++port)
            type_on(module, port, lines[static_cast<std::size_t>(port)].substr(at, 1));
    for (int port = 0; port < 3; ++port) module.host_port(port).write("\r");
    for (int port = 0; port < 3; ++port) {
        module.channel(port).expect(lines[static_cast<std::size_t>(port)]);
        module.channel(port).send("\r\nOK\r\n");
        const std::string& line = lines[static_cast<std::size_t>(port)];
        module.host_port(port).expect((port == 2 ? "" : line) + "\r\nOK\r\n");
    }
}

// About five seconds of tries, then the text on the ports that have one.
TEST_F(EngineAllPorts, APlatformThatIsDownIsAnsweredForOnTheUsbPorts) {
    for (int port = 0; port < 3; ++port) module.host_port(port).write("AT+GTUSBMODE?\r");
    module.modem_port().expect("app-plat is not running, plz wait....\r\n");
    module.at_port().expect("app-plat is not running, plz wait....\r\n");
    module.wait_for_log("!!!!!send_data_to_app_platform(USB_PORT_ATCMD_MODE) faile!!!!!", 3);
    module.uart_port().write("AT+CFUN?\r");
    module.uart_channel().expect("AT+CFUN?\r");
    module.uart_channel().send("\r\nOK\r\n");
    module.uart_port().expect("\r\nOK\r\n");
    EXPECT_TRUE(module.modem_channel().received().empty());
    EXPECT_TRUE(module.at_channel().received().empty());
}

TEST_F(EngineAllPorts, AfterTenSecondsWithoutAnAnswerTheNextLineIsServed) {
    const auto start = std::chrono::steady_clock::now();
    module.at_port().write("AT+CFUN=1\r");
    module.at_channel().expect("AT+CFUN=1\r");
    module.at_port().write("AT+CFUN=2\r");
    module.at_channel().expect("AT+CFUN=2\r");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(9));
    module.at_channel().send("\r\nOK\r\n");
    module.at_port().expect("\r\nOK\r\n");
}

}  // namespace
