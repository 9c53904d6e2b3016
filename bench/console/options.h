// The command line of vexa-bench.
#pragma once

#include <optional>
#include <string>

namespace bench {

struct BenchOptions {
    std::string port = "at";
    std::string scenario;           // the modem's
    std::string platform_scenario;  // the app platform's
    bool platform = true;
    double platform_after = 0;      // seconds
    std::string record;             // file for everything that passes (docs/recording.md)
    std::string replay;             // recording to play again
    bool fast = false;              // replay without the recorded pauses
    bool has_own_scenario = false;  // named on the command line
    bool has_own_platform_scenario = false;
    bool pcie = false;
    std::string daemon;    // program
    std::string log;       // file for the daemon's output
    int target = 35;       // what the stand-in for ds_get_target answers
    double time_out = 30;  // seconds to wait for a final result when input is no terminal
};

// Nothing when the command line is wrong or asks for help; `status` is then what to exit with.
std::optional<BenchOptions> parse_options(int argc, char** argv, int& status);

}  // namespace bench
