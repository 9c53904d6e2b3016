// vexa-module-keeper SOCKET: makes the namespaces of one simulated module and is init in them. It
// does what the bench asks over the socket, reports every child's end, and everything inside ends
// with it; it ends when the bench does.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "device_state.h"
#include "namespaces.h"
#include "requests.h"

namespace bench {
namespace {

bool lay_device_state() {
    const UniqueFd file(open(kStatePath, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!file.is_open() || ftruncate(file.get(), sizeof(ModuleState)) != 0) {
        return false;
    }
    for (std::size_t index = 0; index < kDevicePaths.size(); ++index) {
        const std::string path = kWakePrefix + std::to_string(index);
        if (mkfifo(path.c_str(), 0600) != 0) {
            return false;
        }
    }
    return true;
}

UniqueFd watch_children() {
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child, nullptr);
    return UniqueFd(signalfd(-1, &child, SFD_CLOEXEC | SFD_NONBLOCK));
}

void report_exits(int socket, const UniqueFd& signals) {
    signalfd_siginfo info;
    while (read(signals.get(), &info, sizeof info) > 0) {
    }
    int status = 0;
    for (pid_t ended = waitpid(-1, &status, WNOHANG); ended > 0;
         ended = waitpid(-1, &status, WNOHANG)) {
        send_message(socket, {"exit", std::to_string(ended), std::to_string(status)}, {});
    }
}

bool serve_request(int socket) {
    const Message request = receive_message(socket);
    if (request.fields.empty()) {
        return false;
    }
    const Answer answer = carry_out(request);
    std::vector<int> passed;
    for (const UniqueFd& descriptor : answer.descriptors) {
        passed.push_back(descriptor.get());
    }
    return send_message(socket, answer.fields, passed);
}

std::string own_number() {
    char text[32] = {};
    return readlink("/proc/self", static_cast<char*>(text), sizeof text - 1) > 0
               ? static_cast<char*>(text)
               : "-1";
}

[[noreturn]] void keep(int socket) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const UniqueFd signals = watch_children();
    send_message(socket, {"ok", own_number()}, {});
    for (;;) {
        pollfd set[2] = {{socket, POLLIN, 0}, {signals.get(), POLLIN, 0}};
        if (poll(static_cast<pollfd*>(set), 2, -1) < 0 && errno != EINTR) {
            _exit(1);
        }
        if (set[1].revents != 0) {
            report_exits(socket, signals);
        }
        if (set[0].revents != 0 && !serve_request(socket)) {
            _exit(0);
        }
    }
}

int run(int socket) {
    fcntl(socket, F_SETFD, FD_CLOEXEC);
    setsid();  // Ctrl-C on the bench's terminal is the bench's to handle
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::string error = enter_namespaces();
    if (error.empty() && !lay_device_state()) {
        error = std::string("no device state: ") + strerror(errno);
    }
    if (!error.empty()) {
        send_message(socket, {"error", error}, {});
        return 1;
    }
    const pid_t init = fork();
    if (init == 0) {
        keep(socket);
    }
    if (init < 0) {
        send_message(socket, {"error", std::string("fork: ") + strerror(errno)}, {});
        return 1;
    }
    close(socket);
    int status = 0;
    while (waitpid(init, &status, 0) < 0 && errno == EINTR) {
    }
    return 0;
}

void print_usage(FILE* out) {
    fputs(
        "usage: vexa-module-keeper SOCKET\n"
        "Keeps the namespaces of one simulated module. The bench starts it and gives it the number "
        "of\nan open socket; it is of no use by hand (run vexa-bench instead).\n",
        out);
}

// -1: no number of an open socket.
int socket_of(const char* text) {
    char* end = nullptr;
    errno = 0;
    const long number = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || number < 0 || number > INT_MAX) {
        return -1;
    }
    int type = 0;
    socklen_t size = sizeof type;
    const auto socket = static_cast<int>(number);
    return getsockopt(socket, SOL_SOCKET, SO_TYPE, &type, &size) == 0 ? socket : -1;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        bench::print_usage(stdout);
        return 0;
    }
    if (argc != 2) {
        bench::print_usage(stderr);
        return 2;
    }
    const int socket = bench::socket_of(argv[1]);
    if (socket < 0) {
        fprintf(stderr, "vexa-module-keeper: '%s' is not the number of an open socket\n", argv[1]);
        bench::print_usage(stderr);
        return 2;
    }
    return bench::run(socket);
}
