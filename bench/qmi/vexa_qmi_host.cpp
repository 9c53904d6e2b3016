// Hosts the QMI AT service in a process of its own, beside the daemon.
#include <cstdio>

#include "arguments.h"
#include "vexa_mbim_at_service.h"
#include "vexa_mbim_at_test_client.h"

int main(int argc, char** argv) {
    CLI::App app("Hosts the QMI AT service beside the daemon, until told to stop.");
    bool self_test = false;
    app.add_flag("--self-test", self_test,
                 "run the service's self-test client instead: it sends a command whenever /tmp/1 "
                 "or /tmp/2 appears");
    if (const auto status = bench::parse_arguments(app, argc, argv))
        return *status;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (self_test)
        vexa_mbim_at_thread_entry(nullptr);
    else
        vexa_mbim_at_data_handler(nullptr);
    return 1;  // both serve for ever when they can serve at all
}
