// Sends AT lines through the QMI AT service and prints their answers, or prints indications.
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "arguments.h"
#include "qmi_at_client.h"

namespace {

void print_text(const std::string& text) {
    fwrite(text.data(), 1, text.size(), stdout);
    fflush(stdout);
}

// False when the service said no or went away.
bool ask(bench::QmiAtClient& client, const std::string& line) {
    const bench::QmiAnswer answer = client.ask(line + "\r");
    print_text(answer.text);
    if (!answer.arrived)
        fprintf(stderr, "vexa-qmi-client: %s: the service went away\n", line.c_str());
    else if (answer.result != 0)
        fprintf(stderr, "vexa-qmi-client: %s: result %d, error %d\n", line.c_str(), answer.result,
                answer.error);
    return answer.arrived && answer.result == 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Sends AT lines through the QMI AT service and prints their answers.");
    std::vector<std::string> lines;
    bool indications = false;
    double wait_seconds = 10;
    app.add_option("line", lines, "AT command lines, without their line ends");
    app.add_flag("--indications", indications,
                 "then print unsolicited text until told to stop (SIGINT or SIGTERM); the service "
                 "sends it to the client it answered last");
    app.add_option("--wait", wait_seconds, "seconds to wait for the service")
        ->check(CLI::Range(0.0, 3600.0));
    if (const auto status = bench::parse_arguments(app, argc, argv))
        return *status;
    // Before any thread begins, so that the signals wait for sigwait.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    if (indications)
        pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    bench::QmiAtClient client([&](const std::string& text) {
        if (indications)
            print_text(text);
    });
    if (!client.connect(std::chrono::milliseconds(static_cast<long>(wait_seconds * 1000)))) {
        fprintf(stderr, "vexa-qmi-client: there is no QMI AT service\n");
        return 1;
    }
    for (const std::string& line : lines)
        if (!ask(client, line))
            return 1;
    int signal_number = 0;
    if (indications)
        sigwait(&stop, &signal_number);
    return 0;
}
