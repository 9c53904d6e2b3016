// vexa-bench: the daemon on a simulated module, with a console. What it starts ends with it.
#include <signal.h>
#include <unistd.h>

#include <cstdio>

#include "bench_module.h"
#include "console.h"
#include "options.h"

namespace {

int run(const bench::BenchOptions& options) {
    bench::Loop loop;
    bench::BenchModule module(options, loop);
    auto road = bench::make_road(options.port, module);
    if (road == nullptr) {
        fprintf(stderr, "vexa-bench: no road to port %s\n", options.port.c_str());
        return 1;
    }
    const bool interactive = isatty(STDIN_FILENO) != 0;
    bench::Console console(module, std::move(road), interactive);
    int status = -1;
    const auto end = [&](int with) {
        status = with;
        loop.stop();
    };
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        loop.on_signal(number, [&end, number] { end(128 + number); });
    }
    if (!module.start()) {
        fprintf(stderr, "vexa-bench: %s\n", module.error().c_str());
        return 1;
    }
    module.when_daemon_ends([&](int daemon_status) {
        fprintf(stderr,
                "%s\nvexa-bench: the daemon ended with status %d; its last words are above\n",
                module.log_tail().c_str(), daemon_status);
        end(1);
    });
    module.when_ready([&] {
        if (!console.open([&loop] { loop.stop(); })) {
            fprintf(stderr, "vexa-bench: %s\n", console.error().c_str());
            end(1);
        }
    });
    loop.run();
    if (status < 0) {
        console.run();
    }
    status = status >= 0 ? status : console.status();
    module.record().end(status);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    int status = 0;
    const auto options = bench::parse_options(argc, argv, status);
    return options ? run(*options) : status;
}
