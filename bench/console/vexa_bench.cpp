// vexa-bench: the daemon on a simulated module, with a console or a replay. What it starts ends
// with it.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "bench_module.h"
#include "console.h"
#include "options.h"
#include "recorded_session.h"
#include "replay.h"
#include "road.h"

namespace {

// What a console and a replay have in common: a module that is started, served and ended.
class Session {
  public:
    explicit Session(const bench::BenchOptions& options) : module_(options, loop_) {
        for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
            loop_.on_signal(number, [this, number] { end(128 + number); });
        }
    }

    bench::Loop& loop() { return loop_; }
    bench::BenchModule& module() { return module_; }
    bool has_ended() const { return status_ >= 0; }

    void end(int status) {
        status_ = status;
        loop_.stop();
    }
    void fail(const std::string& why) {
        fprintf(stderr, "vexa-bench: %s\n", why.c_str());
        end(1);
    }

    // Until the loop is stopped. False: it could not start.
    bool run(const std::function<void()>& ready) {
        if (!module_.start()) {
            fail(module_.error());
            return false;
        }
        module_.when_daemon_ends([this](int status) {
            fail("the daemon ended with status " + std::to_string(status) + "; its last words:\n" +
                 module_.log_tail());
        });
        module_.when_ready(ready);
        loop_.run();
        return true;
    }

    // What to exit with; `otherwise` when nothing ended the session early.
    int close(int otherwise) {
        const int status = has_ended() ? status_ : otherwise;
        const std::string error = module_.end_record(status);
        if (error.empty()) {
            return status;
        }
        fprintf(stderr, "vexa-bench: the recording is not whole: %s\n", error.c_str());
        return status == 0 ? 1 : status;
    }

  private:
    bench::Loop loop_;
    bench::BenchModule module_;
    int status_ = -1;
};

int run_console(const bench::BenchOptions& options) {
    Session session(options);
    auto road = bench::make_road(options.port, session.module());
    if (road == nullptr) {
        session.fail("no road to port " + options.port);
        return 1;
    }
    bench::Console console(session.module(), std::move(road), isatty(STDIN_FILENO) != 0);
    const bool is_started = session.run([&] {
        if (!console.open([&session] { session.loop().stop(); })) {
            session.fail(console.error());
        }
    });
    if (is_started && !session.has_ended()) {
        console.run();
    }
    return session.close(console.status());
}

// A folder for the scenarios that a recording carries, gone with it.
class TemporaryFolder {
  public:
    TemporaryFolder()
        : path_((std::filesystem::temp_directory_path() / "vexa-replay-XXXXXX").string()) {
        is_there_ = mkdtemp(path_.data()) != nullptr;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        if (is_there_) {
            std::filesystem::remove_all(path_, ignored);
        }
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    bool is_there() const { return is_there_; }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
    bool is_there_ = false;
};

void tell_passed_over(const std::string& path, const std::vector<std::size_t>& lines) {
    if (lines.empty()) {
        return;
    }
    fprintf(stderr, "vexa-bench: %s: line %zu is broken or cut off", path.c_str(), lines.front());
    if (lines.size() > 1) {
        fprintf(stderr, ", and %zu more", lines.size() - 1);
    }
    fprintf(stderr, "; passed over\n");
}

int run_replay(const bench::BenchOptions& given) {
    const bench::RecordedSession recorded = bench::load_session(given.replay);
    tell_passed_over(given.replay, recorded.passed_over);
    const TemporaryFolder folder;
    if (!recorded.error.empty() || !folder.is_there()) {
        fprintf(stderr, "vexa-bench: %s\n",
                recorded.error.empty() ? "no folder for the recording's scenarios"
                                       : recorded.error.c_str());
        return 1;
    }
    if (recorded.steps.empty()) {
        fprintf(stderr, "vexa-bench: %s: no host did anything in it: nothing to play again\n",
                given.replay.c_str());
        return 1;
    }
    Session session(bench::options_for(recorded, given, folder.path()));
    bench::Replay replay(session.module(), recorded);
    const bool is_started =
        session.run([&] { replay.start([&session] { session.loop().stop(); }); });
    if (is_started && !session.has_ended()) {
        printf("%s\n", replay.report().c_str());
    }
    return session.close(replay.status());
}

}  // namespace

int main(int argc, char** argv) {
    int status = 0;
    const auto options = bench::parse_options(argc, argv, status);
    if (!options) {
        return status;
    }
    return options->replay.empty() ? run_console(*options) : run_replay(*options);
}
