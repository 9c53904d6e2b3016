// Measures the daemon and what stands in its place on the same ptys, one JSON object a line; or
// gives the daemon work of one kind under another program, such as callgrind.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "figures.h"
#include "work.h"

namespace {

using namespace compare;

constexpr std::size_t kPacket = 1500;
constexpr std::size_t kWholeRead = 16384;

void tell(nlohmann::json figure, const Kind& kind, int round) {
    figure["by"] = kind.name;
    figure["round"] = round;
    printf("%s\n", figure.dump().c_str());
    fflush(stdout);
}

void measure_commands(Rig& rig, Contestant& contestant, const Kind& kind, const Amounts& amounts,
                      int round) {
    tell(measure_latency(rig, contestant, amounts), kind, round);
    for (const int ports : {1, kPorts}) {
        tell(measure_rate(rig, contestant, amounts, ports, kModemCommand), kind, round);
        if (contestant.is_daemon()) {
            tell(measure_rate(rig, contestant, amounts, ports, kPlatformCommand), kind, round);
        }
    }
}

void measure_streams(Rig& rig, Contestant& contestant, const Kind& kind, const Amounts& amounts,
                     int round) {
    dial(rig, contestant);
    for (const Direction direction : {Direction::to_modem, Direction::to_host}) {
        for (const std::size_t chunk : {kPacket, kWholeRead}) {
            tell(measure_stream(rig, contestant, amounts, direction, chunk), kind, round);
        }
    }
}

void compare_all(int rounds, const Amounts& amounts) {
    Rig rig;
    for (int round = 0; round < rounds; ++round) {
        tell(measure_rests(), kContestants.front(), round);
        for (std::size_t turn = 0; turn < kContestants.size(); ++turn) {
            // Each round begins with another one.
            const auto first = static_cast<std::size_t>(round);
            const Kind& kind = kContestants[(first + turn) % kContestants.size()];
            Contestant contestant(rig, kind);
            if (!contestant.is_for_streams()) {
                measure_commands(rig, contestant, kind, amounts, round);
            }
            measure_streams(rig, contestant, kind, amounts, round);
        }
    }
}

void work_under(const std::vector<std::string>& wrapper, const std::string& kind, int count) {
    Rig rig;
    Contestant daemon(rig, {Kind::How::daemon, "daemon", has_log_off(kind)}, wrapper);
    const double cpu_before = daemon.cpu_seconds();
    do_work(rig, daemon, kind, count);
    const double cpu_us = (daemon.cpu_seconds() - cpu_before) * 1e6;
    printf("%s\n", nlohmann::json{{"kind", kind}, {"cpu_us_each", cpu_us / count}}.dump().c_str());
    daemon.end();
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Measures the daemon beside what a user would pick instead.");
    app.require_subcommand(1);
    CLI::App* rounds_command = app.add_subcommand("rounds", "all contestants in turn");
    int rounds = 5;
    Amounts amounts{50, 2000, 1.0, 5.0, 1.0};
    rounds_command->add_option("--rounds", rounds, "how often each has its turn");
    rounds_command->add_option("--latency-commands", amounts.latency_commands, "commands a turn");
    rounds_command->add_option("--rate-seconds", amounts.rate_seconds, "of commands back to back");
    rounds_command->add_option("--to-modem-seconds", amounts.to_modem_seconds, "of data");
    rounds_command->add_option("--to-host-seconds", amounts.to_host_seconds, "of data");
    CLI::App* work_command = app.add_subcommand("work", "work for the daemon under a program");
    std::string kind;
    int count = 100;
    std::vector<std::string> wrapper;
    work_command->add_option("kind", kind, "of work")
        ->required()
        ->check(CLI::IsMember(work_kinds()));
    work_command->add_option("count", count, "how much of it")->required();
    work_command->add_option("wrapper", wrapper, "what the daemon's command is given to");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    try {
        if (*rounds_command) {
            compare_all(rounds, amounts);
        } else {
            work_under(wrapper, kind, count);
        }
    } catch (const std::exception& error) {
        fprintf(stderr, "vexa-compare: %s\n", error.what());
        return 1;
    }
    return 0;
}
