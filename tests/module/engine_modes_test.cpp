// The modes of a host port, entered and left as CP and the host say, on each of the three ports.
#include "typing.h"

namespace {

class EngineModes : public PortTest {
  protected:
    void enter_sms_mode() {
        host().write("AT+CMGS=12\r");
        channel().expect("AT+CMGS=12\r");
        answer("\r\n> ");
    }
    void enter_ppp_mode() {
        host().write("ATD*99#\r");
        channel().expect("ATD*99#\r");
        answer("\r\nCONNECT 150000000\r\n");
    }
    // In a raw mode the blanks would reach CP.
    void expect_command_mode() { command("AT + CFUN ?\r", "AT+CFUN?\r"); }
    void expect_raw(const std::string& chunk) {
        host().write(chunk);
        std::string seen;
        while (seen.size() < chunk.size()) seen += channel().expect_message();
        EXPECT_EQ(seen, chunk);
    }
};
INSTANTIATE_TEST_SUITE_P(Ports, EngineModes, testing::Values(0, 1, 2), port_test_name);

TEST_P(EngineModes, AMessageTextEndsWithCtrlZ) {
    enter_sms_mode();
    expect_raw("Hello\rAT+CSQ\r");
    expect_raw(std::string("\0\xFF.\x1A", 4));
    answer("\r\n+CMGS: 1\r\n\r\nOK\r\n");
    expect_command_mode();
}

TEST_P(EngineModes, AMessageTextIsCancelledWithEscape) {
    enter_sms_mode();
    expect_raw("Hello\x1B");
    expect_command_mode();
}

TEST_P(EngineModes, AMessageThatCpRefusesEndsTheMode) {
    enter_sms_mode();
    answer("\r\n+CMS ERROR: 500\r\n");
    expect_command_mode();
}

TEST_P(EngineModes, DataOfACallGoesThroughUntilTheEscape) {
    enter_ppp_mode();
    expect_raw(std::string("\x7E\0\xFF\x03\x11\x13\r\nAT\r\x7E", 12));
    expect_raw("+++");
    expect_command_mode();
}

TEST_P(EngineModes, DataOfACallGoesThroughUntilHangUp) {
    enter_ppp_mode();
    expect_raw("ath\r");
    answer("\r\nOK\r\n");
    expect_command_mode();
}

TEST_P(EngineModes, ACallThatCpEndsEndsTheMode) {
    enter_ppp_mode();
    answer("\r\nNO CARRIER\r\n");
    expect_command_mode();
}

TEST_P(EngineModes, APromptInADataStreamChangesNothing) {
    enter_ppp_mode();
    answer("\r\n> ");
    expect_raw("x\x1A");
    expect_raw("AT+CF");
    expect_raw("+++");
    expect_command_mode();
}

TEST_P(EngineModes, ConnectDuringAMessageTextChangesNothing) {
    command("ATDT1\r", "ATDT1\r");
    answer("\r\n> ");
    answer("CONNECT");
    expect_raw("text\x1A");
    expect_command_mode();
}

TEST_P(EngineModes, OneDataCallDisturbsNoOtherPort) {
    enter_ppp_mode();
    const int other = (GetParam() + 1) % 3;
    module.host_port(other).write("AT + CFUN ?\r");
    module.channel(other).expect("AT+CFUN?\r");
    module.channel(other).send("\r\nOK\r\n");
    module.host_port(other).expect("\r\nOK\r\n");
}

}  // namespace
