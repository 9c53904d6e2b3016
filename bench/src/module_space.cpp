#include "module_space.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "messages.h"

namespace bench {

std::string program_folder() {
    std::array<char, PATH_MAX> path{};
    const ssize_t size = readlink("/proc/self/exe", path.data(), path.size() - 1);
    const std::string text(path.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    return text.substr(0, text.rfind('/'));
}

ModuleSpace::~ModuleSpace() {
    if (state_ != nullptr) {
        munmap(state_, sizeof(ModuleState));
    }
    control_.reset();
    if (keeper_ > 0) {
        kill(keeper_, SIGKILL);  // its init goes with it, and with that everything inside
        waitpid(keeper_, nullptr, 0);
    }
}

bool ModuleSpace::open(const std::string& tools) {
    return start_keeper(tools) && map_state();
}

bool ModuleSpace::start_keeper(const std::string& tools) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        error_ = std::string("socketpair: ") + strerror(errno);
        return false;
    }
    control_ = UniqueFd(ends[0]);
    const UniqueFd theirs(ends[1]);
    const UniqueFd passed(fcntl(theirs.get(), F_DUPFD, 10));  // stays open across exec
    std::string program = tools + "/vexa-module-keeper";
    std::string number = std::to_string(passed.get());
    std::array<char*, 3> arguments{program.data(), number.data(), nullptr};
    const int failed =
        posix_spawn(&keeper_, program.c_str(), nullptr, nullptr, arguments.data(), environ);
    if (failed != 0) {
        keeper_ = -1;
        error_ = program + ": " + strerror(failed);
        return false;
    }
    fcntl(passed.get(), F_SETFD, FD_CLOEXEC);
    return true;
}

bool ModuleSpace::map_state() {
    const auto hello = receive_reply();
    if (!hello) {
        return false;
    }
    init_ = atoi(hello->fields.at(1).c_str());
    const UniqueFd file(::open(outside(kStatePath).c_str(), O_RDWR | O_CLOEXEC));
    void* mapped =
        mmap(nullptr, sizeof(ModuleState), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (mapped == MAP_FAILED) {
        error_ = outside(kStatePath) + ": " + strerror(errno);
        return false;
    }
    state_ = static_cast<ModuleState*>(mapped);
    for (std::size_t index = 0; index < kDevicePaths.size(); ++index) {
        const std::string path = outside(kWakePrefix + std::to_string(index));
        wakes_.emplace_back(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    }
    return true;
}

std::string ModuleSpace::outside(const std::string& path) const {
    return "/proc/" + std::to_string(init_) + "/root" + path;
}

void ModuleSpace::wake(std::size_t index) {
    (void)!write(wakes_[index].get(), "", 1);
}

std::optional<ModuleSpace::Reply> ModuleSpace::receive_reply() {
    for (;;) {
        Message message = receive_message(control_.get());
        if (message.fields.empty()) {
            error_ = "the keeper of the module's namespaces is gone";
            return std::nullopt;
        }
        if (message.fields[0] == "exit") {
            exits_.push_back(
                {atoi(message.fields.at(1).c_str()), atoi(message.fields.at(2).c_str())});
            continue;
        }
        if (message.fields[0] != "ok") {
            error_ = message.fields.at(1);
            return std::nullopt;
        }
        return Reply{std::move(message.fields), std::move(message.descriptors)};
    }
}

std::optional<ModuleSpace::Reply> ModuleSpace::ask(const std::vector<std::string>& fields,
                                                   const std::vector<int>& descriptors) {
    if (!send_message(control_.get(), fields, descriptors)) {
        error_ = std::string("no word to the keeper: ") + strerror(errno);
        return std::nullopt;
    }
    return receive_reply();
}

std::optional<Exit> ModuleSpace::next_exit() {
    pollfd ready{control_.get(), POLLIN, 0};
    while (exits_.empty() && poll(&ready, 1, 0) > 0) {
        const Message message = receive_message(control_.get());
        if (message.fields.size() < 3) {
            return std::nullopt;
        }
        exits_.push_back({atoi(message.fields[1].c_str()), atoi(message.fields[2].c_str())});
    }
    if (exits_.empty()) {
        return std::nullopt;
    }
    const Exit exit = exits_.front();
    exits_.pop_front();
    return exit;
}

std::optional<Pty> ModuleSpace::make_pty(const std::string& path) {
    auto reply = ask({"pty", path});
    if (!reply || reply->descriptors.size() != 2) {
        return std::nullopt;
    }
    return Pty{std::move(reply->descriptors[0]), std::move(reply->descriptors[1]),
               reply->fields.at(1)};
}

UniqueFd ModuleSpace::listen(const std::string& path, int type) {
    auto reply = ask({"listen", path, std::to_string(type)});
    return reply && !reply->descriptors.empty() ? std::move(reply->descriptors[0]) : UniqueFd();
}

bool ModuleSpace::remove(const std::string& path) {
    return ask({"remove", path}).has_value();
}

bool ModuleSpace::write_file(const std::string& path, const std::string& text) {
    return ask({"file", path, text}).has_value();
}

UniqueFd ModuleSpace::socket(int domain, int type, int protocol) {
    auto reply =
        ask({"socket", std::to_string(domain), std::to_string(type), std::to_string(protocol)});
    return reply && !reply->descriptors.empty() ? std::move(reply->descriptors[0]) : UniqueFd();
}

std::optional<Child> ModuleSpace::spawn(const SpawnRequest& request) {
    std::string environment;
    for (const auto& [name, value] : request.environment) {
        environment += name + "=" + value + "\n";
    }
    std::vector<std::string> fields{"spawn", environment};
    fields.insert(fields.end(), request.command.begin(), request.command.end());
    const UniqueFd nothing(::open("/dev/null", O_RDWR | O_CLOEXEC));
    const auto or_nothing = [&](int fd) { return fd >= 0 ? fd : nothing.get(); };
    const auto reply = ask(fields, {or_nothing(request.output), or_nothing(request.input)});
    if (!reply) {
        return std::nullopt;
    }
    return Child{atoi(reply->fields.at(1).c_str()), atoi(reply->fields.at(2).c_str())};
}

bool ModuleSpace::signal(int pid, int number) {
    return ask({"signal", std::to_string(pid), std::to_string(number)}).has_value();
}

bool ModuleSpace::send_uevent(const std::string& text) {
    return ask({"uevent", text}).has_value();
}

}  // namespace bench
