// The console on a multiplexed UART: a script from a pipe, the daemon, the modem and the platform.
#include <gtest/gtest.h>

#include "console_run.h"

namespace {

Outcome run(const std::string& script, const std::string& options) {
    return run_console(script, "--port mux " + options);
}

TEST(MuxConsole, CommandsAnswersAndADialChannelBesideThem) {
    const Outcome outcome =
        run("mux open\nAT+CFUN?\nAT+CGMR\nATD*99#\nhello\nmux send 2 AT+COPS?\\r\nmux expect 2 OK\n"
            "mux expect 4 hello\n+++\nAT+CSQ",
            "--time-out 60");
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    std::size_t at = 0;
    for (const char* text :
         {"+CFUN: 1", "OK", "VEXA", "OK", "CONNECT", "NO CARRIER", "+CSQ:", "OK"}) {
        at = outcome.output.find(text, at);
        ASSERT_NE(at, std::string::npos) << text << " is missing or out of order in\n"
                                         << outcome.output;
    }
    EXPECT_NE(outcome.output.find("channel 2: +COPS:"), std::string::npos) << outcome.output;
}

TEST(MuxConsole, ExpectationInVainIsAFailure) {
    const Outcome outcome = run("mux expect 2 NEVER", "--time-out 0.05");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("waited in vain for mux expect 2 NEVER"), std::string::npos)
        << outcome.output;
}

TEST(MuxConsole, UnknownScriptLineIsAFailure) {
    const Outcome outcome = run("mux shut", "");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("no such command here: mux shut"), std::string::npos)
        << outcome.output;
}

}  // namespace
