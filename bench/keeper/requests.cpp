#include "requests.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace bench {
namespace {

using Fields = std::vector<std::string>;

Answer failed(const std::string& what) {
    Answer answer;
    answer.fields = {"error", what + ": " + strerror(errno)};
    return answer;
}

Answer done(Fields fields = {}) {
    Answer answer;
    answer.fields = {"ok"};
    answer.fields.insert(answer.fields.end(), fields.begin(), fields.end());
    return answer;
}

// A number without a name, for requests made by our own bench.
int number(const std::string& text) {
    return atoi(text.c_str());
}

void make_folders_for(const std::string& path) {
    for (auto slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        mkdir(path.substr(0, slash).c_str(), 0755);
    }
}

// Relative, so that the link also resolves from outside through /proc/PID/root.
bool show_as(const std::string& terminal, const std::string& path) {
    constexpr const char* kNew = "/dev/.bench/new_link";
    const std::string target = terminal.substr(strlen("/dev/"));
    unlink(kNew);
    return symlink(target.c_str(), kNew) == 0 && rename(kNew, path.c_str()) == 0;
}

Answer make_pty(const std::string& path) {
    UniqueFd master(open("/dev/ptmx", O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
    std::array<char, 64> name{};
    if (!master.is_open() || unlockpt(master.get()) != 0 ||
        ptsname_r(master.get(), name.data(), name.size()) != 0) {
        return failed("no pty");
    }
    UniqueFd slave(open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
    termios settings{};
    if (!slave.is_open() || tcgetattr(slave.get(), &settings) != 0) {
        return failed("no pty slave");
    }
    cfmakeraw(&settings);  // before anybody sees it: a fresh slave echoes
    if (tcsetattr(slave.get(), TCSANOW, &settings) != 0 || !show_as(name.data(), path)) {
        return failed(path + " cannot be shown");
    }
    Answer answer = done({name.data()});
    answer.descriptors.push_back(std::move(master));
    answer.descriptors.push_back(std::move(slave));
    return answer;
}

Answer listen_at(const std::string& path, int type) {
    unlink(path.c_str());
    make_folders_for(path);
    UniqueFd listener(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return failed(path);
    }
    memcpy(static_cast<char*>(address.sun_path), path.data(), path.size());
    if (bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener.get(), SOMAXCONN) != 0) {
        return failed(path);
    }
    Answer answer = done();
    answer.descriptors.push_back(std::move(listener));
    return answer;
}

Answer make_socket(int domain, int type, int protocol) {
    UniqueFd made(socket(domain, type | SOCK_CLOEXEC, protocol));
    if (!made.is_open()) {
        return failed("no socket");
    }
    Answer answer = done();
    answer.descriptors.push_back(std::move(made));
    return answer;
}

Answer write_file(const std::string& path, const std::string& text) {
    make_folders_for(path);
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!file.is_open() ||
        write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        return failed(path);
    }
    return done();
}

// Our number in the process namespace that /proc shows, which is the bench's own.
int outer_pid() {
    std::array<char, 32> text{};
    return readlink("/proc/self", text.data(), text.size() - 1) > 0 ? atoi(text.data()) : -1;
}

struct Report {
    int outer_pid;
    int error;  // errno of a failed exec, else 0
};

void use_as(int fd, int number_wanted) {
    dup2(fd, number_wanted);
}

[[noreturn]] void become(const Message& request, int report_to) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    Report report{outer_pid(), 0};
    (void)!write(report_to, &report, sizeof report);
    const UniqueFd nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
    const auto& given = request.descriptors;
    use_as(given.empty() ? nothing.get() : given[0].get(), STDOUT_FILENO);
    use_as(given.empty() ? nothing.get() : given[0].get(), STDERR_FILENO);
    use_as(given.size() < 2 ? nothing.get() : given[1].get(), STDIN_FILENO);
    std::string environment = request.fields[1];
    for (char* entry = strtok(environment.data(), "\n"); entry != nullptr;
         entry = strtok(nullptr, "\n")) {
        putenv(entry);
    }
    std::vector<char*> arguments;
    for (std::size_t at = 2; at < request.fields.size(); ++at) {
        arguments.push_back(const_cast<char*>(request.fields[at].c_str()));
    }
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    report.error = errno;
    (void)!write(report_to, &report, sizeof report);
    _exit(127);
}

Answer spawn(const Message& request) {
    std::array<int, 2> ends{};
    if (request.fields.size() < 3 || pipe2(ends.data(), O_CLOEXEC) != 0) {
        return failed("spawn");
    }
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    const pid_t child = fork();
    if (child < 0) {
        return failed("fork");
    }
    if (child == 0) {
        become(request, writer.get());
    }
    writer.reset();
    Report report{};
    Report refusal{};
    if (read(reader.get(), &report, sizeof report) != sizeof report) {
        return failed("no word from the child");
    }
    if (read(reader.get(), &refusal, sizeof refusal) == sizeof refusal) {
        errno = refusal.error;
        return failed(request.fields[2]);
    }
    return done({std::to_string(child), std::to_string(report.outer_pid)});
}

Answer send_signal(int process, int signal_number) {
    return kill(process, signal_number) == 0 ? done() : failed("kill");
}

// The kernel itself broadcasts what is sent to its port of this netlink family, to the uevent
// listeners of this network namespace. The strings' NULs are written as line ends in the request.
Answer send_uevent(std::string text) {
    for (char& letter : text) {
        letter = letter == '\n' ? '\0' : letter;
    }
    const UniqueFd kernel(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT));
    nlmsghdr header{};
    header.nlmsg_len = static_cast<std::uint32_t>(sizeof header + text.size());
    header.nlmsg_type = 0x10;
    header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    std::string packet(reinterpret_cast<const char*>(&header), sizeof header);
    packet += text;
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    if (sendto(kernel.get(), packet.data(), packet.size(), 0, reinterpret_cast<sockaddr*>(&address),
               sizeof address) < 0) {
        return failed("uevent");
    }
    struct {
        nlmsghdr header;
        nlmsgerr error;
        std::array<char, 2048> rest;
    } reply{};
    if (recv(kernel.get(), &reply, sizeof reply, 0) < 0) {
        return failed("uevent");
    }
    errno = -reply.error.error;
    return reply.error.error == 0 ? done() : failed("uevent");
}

}  // namespace

Answer carry_out(const Message& request) {
    const Fields& words = request.fields;
    const auto is = [&words](const char* verb, std::size_t count) {
        return words[0] == verb && words.size() >= count;
    };
    if (is("pty", 2)) {
        return make_pty(words[1]);
    }
    if (is("listen", 3)) {
        return listen_at(words[1], number(words[2]));
    }
    if (is("remove", 2)) {
        return unlink(words[1].c_str()) == 0 ? done() : failed(words[1]);
    }
    if (is("file", 3)) {
        return write_file(words[1], words[2]);
    }
    if (is("socket", 4)) {
        return make_socket(number(words[1]), number(words[2]), number(words[3]));
    }
    if (is("spawn", 3)) {
        return spawn(request);
    }
    if (is("signal", 3)) {
        return send_signal(number(words[1]), number(words[2]));
    }
    if (is("uevent", 2)) {
        return send_uevent(words[1]);
    }
    errno = EINVAL;
    return failed("request " + words[0]);
}

}  // namespace bench
