// A command typed on each host port, carried to the modem processor and answered.
#include "module.h"

namespace {

class Roads : public testing::TestWithParam<int> {};

TEST_P(Roads, ACommandTypedOnAPortIsAnsweredByItsChannel) {
    Module module;
    module.host_port(GetParam()).write("AT+CFUN?\r");
    module.channel(GetParam()).expect("AT+CFUN?\r");
    module.channel(GetParam()).send("\r\n+CFUN: 1\r\n\r\nOK\r\n");
    module.host_port(GetParam()).expect("\r\n+CFUN: 1\r\n\r\nOK\r\n");
}

INSTANTIATE_TEST_SUITE_P(ModemAtUart, Roads, testing::Values(0, 1, 2));

}  // namespace
