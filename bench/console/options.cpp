#include "options.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <system_error>

#include "command_line.h"
#include "module_space.h"
#include "road.h"

namespace bench {
namespace {

constexpr double kMostSeconds = 1e6;
constexpr double kLeastTimeOut = 1e-3;  // seconds

// What a user typed: the stand-ins lie beside the program where it is installed.
const char* program_name() {
    return std::filesystem::exists(program_folder() + "/standins") ? "vexa-bench" : "script/run";
}

CLI::Validator seconds_from(double least, const char* name) {
    return {[least](const std::string& text) {
                double value = 0;
                const bool is_fine = CLI::detail::lexical_cast(text, value) && value >= least &&
                                     value <= kMostSeconds;
                return is_fine ? std::string() : "a number of seconds is wanted, not " + text;
            },
            name};
}

// Opened for writing, a recording loses what it holds.
void check_record(const BenchOptions& options) {
    for (const std::string& read :
         {options.replay, options.scenario, options.platform_scenario, options.daemon}) {
        std::error_code not_there;
        if (std::filesystem::equivalent(options.record, read, not_there)) {
            throw CLI::ValidationError(
                "--record", "would overwrite " + read + ", which this run reads; name another");
        }
    }
}

}  // namespace

std::optional<BenchOptions> parse_options(int argc, char** argv, int& status) {
    BenchOptions options;
    options.scenario = program_folder() + "/scenarios/modem-default.txt";
    options.platform_scenario = program_folder() + "/scenarios/platform-default.txt";
    options.daemon = program_folder() + "/vexa_at_client";

    CLI::App app(
        "Starts the daemon on a simulated module and gives an AT console.\n"
        "On a terminal: line editing, /help, Ctrl-D ends. Else: one command a line; the\n"
        "exit status is 0 when every command got a final result. With --replay it is 0 when\n"
        "every answer is the recorded one.",
        program_name());
    app.add_option("--port", options.port, "The console's port")
        ->check(CLI::IsMember(road_ports()))
        ->capture_default_str();
    auto* const scenario =
        app.add_option("--scenario", options.scenario, "What the modem answers (docs/scenarios.md)")
            ->check(CLI::ExistingFile);
    auto* const platform_scenario = app.add_option("--platform-scenario", options.platform_scenario,
                                                   "What the app platform answers");
    platform_scenario->check(CLI::ExistingFile);
    app.add_flag("!--no-platform", options.platform, "Leave the app platform out");
    app.add_option("--platform-after", options.platform_after,
                   "Start the app platform so many seconds late")
        ->check(seconds_from(0, "NONNEGATIVE"));
    app.add_option("--record", options.record,
                   "Record what passes every boundary (docs/recording.md)");
    auto* const replay = app.add_option("--replay", options.replay,
                                        "Play the host's side of a recording again and tell the "
                                        "first difference in the answers, instead of a console");
    replay->check(CLI::ExistingFile);
    app.add_flag("--fast", options.fast, "Replay without the recorded pauses")->needs(replay);
    app.add_flag("--pcie", options.pcie, "Attach the module over PCIe (--port pcie does, too)");
    app.add_option("--target", options.target, "Target number of the module")
        ->capture_default_str();
    app.add_option("--daemon", options.daemon, "The daemon's program")->check(CLI::ExistingFile);
    app.add_option("--log", options.log, "File for what the daemon writes");
    app.add_option("--time-out", options.time_out, "Seconds to wait for a final result")
        ->check(seconds_from(kLeastTimeOut, "POSITIVE"))
        ->capture_default_str();
    try {
        app.parse(argc, argv);
        check_record(options);
    } catch (const CLI::ParseError& error) {
        status = report_parse_error(app, error);
        return std::nullopt;
    }
    options.pcie = options.pcie || options.port == "pcie";
    options.has_own_scenario = scenario->count() > 0;
    options.has_own_platform_scenario = platform_scenario->count() > 0;
    return options;
}

}  // namespace bench
