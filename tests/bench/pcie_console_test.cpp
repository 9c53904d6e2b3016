// The console on the PCIe pipe, and the host's channels driven from it.
#include <gtest/gtest.h>

#include "console_run.h"

namespace {

// A disconnect is left to the tests that can see when the daemon has taken it in: an answer that is
// under way then goes to the USB port.
TEST(PcieConsole, CommandsAreAnsweredOnThePipe) {
    const Outcome outcome =
        run_console("AT+CFUN?\n/mhi connect\nAT+COPS?", "--port pcie --time-out 60");
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    std::size_t at = 0;
    for (const char* text : {"PCIe pipe /dev/mhi_pipe_32", "+CFUN: 1", "OK", "+COPS:", "OK"}) {
        at = outcome.output.find(text, at);
        ASSERT_NE(at, std::string::npos) << text << " is missing or out of order in\n"
                                         << outcome.output;
    }
}

TEST(PcieConsole, AnUnknownChannelIsAFailure) {
    for (const char* channel : {"34", "0", "both"}) {
        const Outcome outcome = run_console(std::string("/mhi connect ") + channel, "--port pcie");
        EXPECT_EQ(outcome.status, 1) << channel;
        EXPECT_NE(outcome.output.find("no such channel; 32, 33"), std::string::npos)
            << outcome.output;
    }
}

TEST(PcieConsole, OverUsbThereAreNoChannelsToChange) {
    const Outcome outcome = run_console("/mhi connect", "");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("start with --pcie"), std::string::npos) << outcome.output;
}

TEST(PcieConsole, AnUnknownChangeOfTheChannelsIsAFailure) {
    const Outcome outcome = run_console("/mhi shut", "--port pcie");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find("no such change: 'shut'"), std::string::npos) << outcome.output;
}

}  // namespace
