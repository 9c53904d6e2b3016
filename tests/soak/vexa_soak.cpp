// Every road into the daemon at full speed while the app platform comes and goes; script/soak runs
// it. Prints a table; the status is 1 when an answer was lost, went astray, or something grew.
#include <csignal>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <string>

#include "command_line.h"
#include "daemon_figures.h"
#include "more_roads.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr auto kStep = 5ms;
constexpr long kWarmUp = 100;  // answers on every road before a phase's figures are taken
constexpr std::size_t kLogKept = 4'000'000;

volatile std::sig_atomic_t g_interrupted = 0;

struct Settings {
    double minutes = 1;
    double restart_seconds = 5;
    long growth_kib = 64;
};

struct Growth {
    long kib = 0;
    int descriptors = 0;
};

class Soak {
  public:
    explicit Soak(const Settings& settings) : settings_(settings) {}
    bool run();

  private:
    Growth figures();
    void begin_multiplexing();
    void run_phase(const char* name);
    void run_for(Seconds time);
    void restart_platform();
    void drop_log();
    bool report() const;

    Settings settings_;
    ModuleWithPlatform both_;
    Module& module_ = both_.module;
    FakePlatform& platform_ = both_.platform;
    NumberedTraffic traffic_{module_, platform_};
    QmiRoad qmi_{module_};
    MuxLink mux_{module_};
    Growth growth_;
    int restarts_ = 0;
    Clock::time_point started_ = Clock::now();
    bool sanitizer_spoke_ = false;
};

// Taken while nothing is on its way.
Growth Soak::figures() {
    traffic_.settle();
    platform_.wait_until_connected();
    const auto quiet = Clock::now() + 300ms;  // the last command's pauses end
    while (Clock::now() < quiet) {
        module_.serve(kStep);
    }
    return {private_dirty_kib(module_.daemon_pid()), module_.count_descriptors()};
}

// What it takes is answered before it goes, so that no answer is lost by its own doing.
void Soak::restart_platform() {
    platform_.end();
    platform_.listen();
    ++restarts_;
}

void Soak::drop_log() {
    if (module_.log_size() < kLogKept) {
        return;
    }
    const std::string log = module_.log();
    sanitizer_spoke_ = sanitizer_spoke_ || log.find("Sanitizer:") != log.npos ||
                       log.find("runtime error:") != log.npos;
    module_.drop_log();
}

void Soak::run_for(Seconds time) {
    const auto end = Clock::now() + time;
    const Seconds between(settings_.restart_seconds);
    auto next_restart = Clock::now() + between;
    while (Clock::now() < end && g_interrupted == 0 && module_.daemon_runs()) {
        traffic_.step(kStep);
        drop_log();
        if (Clock::now() >= next_restart) {
            restart_platform();
            next_restart = Clock::now() + between;
        }
    }
}

void Soak::run_phase(const char* name) {
    fprintf(stderr, "vexa-soak: %s\n", name);
    traffic_.run(kWarmUp);
    restart_platform();
    traffic_.run(kWarmUp);
    const Growth before = figures();
    run_for(Seconds(settings_.minutes * 60 / 2));
    const Growth after = figures();
    growth_.kib += after.kib - before.kib;
    growth_.descriptors += after.descriptors - before.descriptors;
}

// For good.
void Soak::begin_multiplexing() {
    traffic_.pause("uart");
    traffic_.pause("modem");
    open_both_channels(module_, mux_);
    traffic_.add(mux_road(mux_));
    traffic_.add(modem_beside_mux_road(module_, mux_));
}

bool Soak::run() {
    for (int index = 0; index < 3; ++index) {
        traffic_.add_host_port(index);
    }
    traffic_.add(udp_road(module_));
    traffic_.add(qmi_.road());
    run_phase("three host ports, UDP, QMI");
    if (g_interrupted == 0) {
        begin_multiplexing();
        run_phase("two host ports, the multiplexer, UDP, QMI");
    }
    return report();
}

void print_row(const char* name, const TrafficCounts& counts) {
    printf("%-8s %10ld %10ld %10ld %10ld %8ld %8ld %12ld\n", name, counts.commands, counts.answers,
           counts.from_modem, counts.from_platform, counts.misroutes, counts.losses,
           counts.late_waits);
}

bool Soak::report() const {
    const TrafficCounts total = traffic_.total();
    const double seconds = Seconds(Clock::now() - started_).count();
    printf("%-8s %10s %10s %10s %10s %8s %8s %12s\n", "road", "commands", "answers", "modem's",
           "platform's", "astray", "lost", "ran out");
    for (const auto& [name, counts] : traffic_.by_road()) {
        print_row(name.c_str(), counts);
    }
    print_row("all", total);
    printf("%.0f s, %.0f commands a second, %d platform restarts\n", seconds,
           static_cast<double>(total.commands) / seconds, restarts_);
    printf("growth: %d descriptors, %ld KiB of private memory\n", growth_.descriptors, growth_.kib);
    printf(
        "ran out: commands that waited for an earlier wait's deadline although its answer had "
        "come\n%s",
        traffic_.complaints().c_str());
    if (sanitizer_spoke_) {
        printf("a sanitizer reported something\n");
    }
    return total.misroutes == 0 && total.losses == 0 && total.answers == total.commands &&
           total.answers > 0 && growth_.descriptors <= 0 && growth_.kib <= settings_.growth_kib &&
           !sanitizer_spoke_;
}

int parse(int argc, char** argv, Settings& settings) {
    CLI::App app(
        "Runs every road into the daemon at full speed on a simulated module while the "
        "app platform comes and goes, half of the time with the UART as a multiplexer. "
        "Counts what is lost, goes astray and grows.");
    app.add_option("--minutes", settings.minutes, "How long, fractions too")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--restart-every", settings.restart_seconds, "Seconds between platform restarts")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--growth-kib", settings.growth_kib, "Most growth of private memory, KiB")
        ->capture_default_str()
        ->check(CLI::NonNegativeNumber);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return bench::report_parse_error(app, error);
    }
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    if (const int status = parse(argc, argv, settings); status >= 0) {
        return status;
    }
    for (const int number : {SIGINT, SIGTERM}) {
        signal(number, [](int by) { g_interrupted = by; });
    }
    try {
        if (!Soak(settings).run()) {
            return 1;
        }
        // What was cut short has not passed.
        return g_interrupted == 0 ? 0 : 128 + g_interrupted;
    } catch (const std::exception& error) {
        fprintf(stderr, "vexa-soak: %s\n", error.what());
        return 1;
    }
}
