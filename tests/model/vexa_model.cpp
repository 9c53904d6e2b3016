// Random conversations with the daemon that ships, compared byte by byte with the plain model;
// script/model runs it. A difference is made short, printed and kept as a file.
#include <csignal>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "command_line.h"
#include "finding.h"
#include "random_conversation.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr auto kReportEvery = std::chrono::seconds(10);

volatile std::sig_atomic_t g_interrupted = 0;

struct Settings {
    double minutes = 1;
    long conversations = 0;  // 0: as many as fit
    std::uint64_t seed = 1;
    std::size_t steps = 80;
    std::vector<std::string> replays;
    std::string folder = "build/model";
    std::string broken = "none";
    bool prints = false;
};

void print_counts(const model::PlayCounts& counts, Seconds time) {
    printf(
        "%ld conversations, %ld steps (%ld of them at the same time as another), %ld bytes "
        "compared, "
        "%ld torn by the system, %.0f s\n",
        counts.conversations, counts.steps, counts.together, counts.bytes, counts.torn,
        time.count());
    fflush(stdout);
}

void print_difference(const model::PlayResult& result, const model::Conversation& conversation) {
    if (result.step < conversation.steps.size()) {
        printf("at step %zu: %s", result.step + 1,
               model::to_text(conversation.steps[result.step]).c_str());
    } else {
        printf("after the last step\n");
    }
    printf("%s\n", result.what.c_str());
    fflush(stdout);
}

class Runs {
  public:
    explicit Runs(const Settings& settings) : settings_(settings) {
        options_.broken = *model::broken_rule(settings.broken);
    }

    bool replay(const std::string& path);
    bool search();

  private:
    bool find_in(std::uint64_t seed);
    void report_now_and_then();

    Settings settings_;
    model::PlayOptions options_;
    model::PlayCounts counts_;
    Clock::time_point started_ = Clock::now();
    Clock::time_point reported_ = started_;
};

bool Runs::replay(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    if (!file) {
        fprintf(stderr, "vexa-model: cannot read %s\n", path.c_str());
        return false;
    }
    const auto parsed = model::parse_conversation(text.str());
    if (!parsed.error.empty()) {
        fprintf(stderr, "vexa-model: %s: %s\n", path.c_str(), parsed.error.c_str());
        return false;
    }
    const auto result = model::play_untorn(parsed.conversation, options_);
    printf("%s: %s, %ld steps with those of the end, %ld bytes compared\n", path.c_str(),
           result.torn      ? "torn by the system again and again"
           : result.differs ? "differs"
                            : "agrees",
           result.counts.steps, result.counts.bytes);
    if (result.differs) {
        print_difference(result, parsed.conversation);
    }
    return !result.differs && !result.torn;
}

void Runs::report_now_and_then() {
    if (Clock::now() - reported_ >= kReportEvery) {
        reported_ = Clock::now();
        print_counts(counts_, Clock::now() - started_);
    }
}

// True: model and daemon agree.
bool Runs::find_in(std::uint64_t seed) {
    const auto conversation = model::random_conversation(seed, settings_.steps);
    if (settings_.prints) {
        printf("# seed %llu\n%s", static_cast<unsigned long long>(seed),
               model::to_text(conversation).c_str());
    }
    const auto result = model::play_untorn(conversation, options_);
    counts_.add(result.counts);
    report_now_and_then();
    // Ctrl-C reaches the daemon, too.
    if (!result.differs || g_interrupted != 0) {
        return true;
    }
    printf("seed %llu differs ", static_cast<unsigned long long>(seed));
    print_difference(result, conversation);
    printf("making it short ");
    const auto finding = model::pursue(conversation, result, options_, [] {
        printf(".");
        fflush(stdout);
        return g_interrupted == 0;
    });
    const std::string origin = "seed " + std::to_string(seed);
    printf("\n%s", model::kept_text(finding, origin).c_str());
    const std::string path = model::keep(finding, settings_.folder, origin);
    printf("kept as %s; play it again: script/model --replay %s\n", path.c_str(), path.c_str());
    return false;
}

bool Runs::search() {
    printf("seeds from %llu on, %zu steps each\n", static_cast<unsigned long long>(settings_.seed),
           settings_.steps);
    const auto end =
        started_ + std::chrono::duration_cast<Clock::duration>(Seconds(settings_.minutes * 60));
    long differences = 0;
    for (long done = 0; g_interrupted == 0; ++done) {
        if (settings_.conversations > 0 ? done >= settings_.conversations : Clock::now() >= end) {
            break;
        }
        differences += find_in(settings_.seed + static_cast<std::uint64_t>(done)) ? 0 : 1;
    }
    print_counts(counts_, Clock::now() - started_);
    printf("%ld conversations differ\n", differences);
    return differences == 0;
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    CLI::App app{"Random conversations with the daemon, compared with the plain model of it."};
    app.add_option("--minutes", settings.minutes, "how long, fractions too")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--conversations", settings.conversations, "so many instead of a time")
        ->check(CLI::PositiveNumber);
    app.add_option("--seed", settings.seed, "of the first conversation; the next ones count on")
        ->capture_default_str();
    app.add_option("--steps", settings.steps, "of each conversation")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--replay", settings.replays, "play these files instead");
    app.add_option("--keep", settings.folder, "folder for what differs")
        ->take_last()
        ->capture_default_str();
    app.add_option("--break", settings.broken,
                   "break a rule of the model on purpose: " + model::broken_rule_names())
        ->check([](const std::string& name) {
            return model::broken_rule(name)
                       ? std::string()
                       : "no rule " + name + ", one of: " + model::broken_rule_names();
        });
    app.add_flag("--print", settings.prints, "print every conversation");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return bench::report_parse_error(app, error);
    }
    for (const int number : {SIGINT, SIGTERM}) {
        std::signal(number, [](int by) { g_interrupted = by; });
    }
    Runs runs(settings);
    bool agrees = true;
    for (const std::string& path : settings.replays) {
        agrees = runs.replay(path) && agrees;
    }
    if (settings.replays.empty()) {
        agrees = runs.search();
    }
    if (!agrees) {
        return 1;
    }
    // What was cut short has not passed.
    return g_interrupted == 0 ? 0 : 128 + g_interrupted;
}
