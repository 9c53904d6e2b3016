#include "module.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "daemon_figures.h"
#include "tested_daemon.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kDeadline = 60s;
// How long a round of serving sleeps when nothing comes; what has no descriptor (the device words,
// the log) is looked at again after this.
constexpr auto kRound = 2ms;
// For what is told to end; whatever does not ends with the namespaces.
constexpr auto kEndDeadline = 20s;
constexpr std::size_t kLogTail = 6000;

constexpr std::size_t kUartIndex = 2;
constexpr std::array kHostPaths{"/dev/at_usb0", "/dev/at_usb1", "/dev/ttyMSM1", "/dev/mhi_pipe_32"};
// What the daemon opens on a target of USB.
constexpr std::array kUsbDevices{"/dev/at_usb0", "/dev/at_usb1", "/dev/ttyMSM1",
                                 "/dev/at_mdm0", "/dev/smd7",    "/dev/smd8"};
constexpr std::array kChannelPaths{"/dev/at_mdm0", "/dev/smd7", "/dev/smd8"};

std::size_t file_size(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 ? static_cast<std::size_t>(status.st_size) : 0;
}

std::string whole_file(int fd, std::size_t from = 0) {
    const std::size_t size = file_size(fd);
    std::string text(size > from ? size - from : 0, '\0');
    const ssize_t got = pread(fd, text.data(), text.size(), static_cast<off_t>(from));
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
}

std::string tail(const std::string& text) {
    return text.size() <= kLogTail ? text : "...\n" + text.substr(text.size() - kLogTail);
}

int status_number(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The kernel's table of a network namespace's UDP sockets names port 5555 in hexadecimal.
bool has_udp_server(int pid) {
    std::ifstream table("/proc/" + std::to_string(pid) + "/net/udp");
    std::string line;
    while (std::getline(table, line)) {
        if (line.find(":15B3 ") != std::string::npos) {
            return true;
        }
    }
    return false;
}

speed_t line_speed(int fd) {
    termios settings{};
    return tcgetattr(fd, &settings) == 0 ? cfgetospeed(&settings) : B0;
}

// A daemon without the shim finds ptys alone.
ModuleOptions without_shim_if_static(ModuleOptions options) {
    if (daemon_has_shim()) {
        return options;
    }
    options.absent.insert(options.absent.end(), kChannelPaths.begin(), kChannelPaths.end());
    if (options.ready_devices.empty()) {
        options.ready_devices.assign(kUsbDevices.begin(), kUsbDevices.end());
    }
    std::erase_if(options.ready_devices, [](const std::string& path) {
        return std::find(kChannelPaths.begin(), kChannelPaths.end(), path) != kChannelPaths.end();
    });
    return options;
}

int count_of(std::string_view text, std::string_view all) {
    int count = 0;
    for (auto at = all.find(text); at != all.npos; at = all.find(text, at + 1)) {
        ++count;
    }
    return count;
}

}  // namespace

Module::Module(ModuleOptions options)
    : options_(without_shim_if_static(std::move(options))),
      log_(memfd_create("daemon log", MFD_CLOEXEC)),
      programs_log_(memfd_create("programs log", MFD_CLOEXEC)) {
    for (const char* path : kHostPaths) {
        host_ports_.push_back(std::make_unique<HostPort>(*this, path));
    }
    for (const char* path : kChannelPaths) {
        channels_.push_back(std::make_unique<ModemChannel>(*this, path));
    }
    if (!space_.open(bench::program_folder())) {
        throw ExpectationFailed(space_.error());
    }
    fcntl(log_.get(), F_SETFL, O_APPEND);
    fcntl(programs_log_.get(), F_SETFL, O_APPEND);
    lay_devices(options_);
    if (!options_.scenario.empty()) {
        auto parsed = bench::parse_scenario(options_.scenario, bench::modem_verbs());
        if (!parsed.error.empty()) {
            throw ExpectationFailed(parsed.error);
        }
        peer_ = std::make_unique<bench::ModemPeer>(
            parsed.scenario, std::vector<std::string>{"modem", "at", "uart"}, Clock::now());
    }
    if (options_.start) {
        start();
    }
}

Module::~Module() {
    try {
        take_exits();
        end_programs();
    } catch (const ExpectationFailed&) {
        // reported
    }
    check_reports();
}

void Module::end_programs() {
    std::vector<int> running;
    if (daemon_runs()) {
        running.push_back(daemon_.pid);
        end_expected_ = true;
    }
    std::copy_if(programs_.begin(), programs_.end(), std::back_inserter(running),
                 [this](int pid) { return !program_status_.contains(pid); });
    for (const int pid : running) {
        space_.signal(pid, SIGTERM);
    }
    const auto is_over = [this](int pid) {
        return pid == daemon_.pid ? daemon_status_.has_value() : program_status_.contains(pid);
    };
    const auto deadline = Clock::now() + kEndDeadline;
    while (Clock::now() < deadline && !std::all_of(running.begin(), running.end(), is_over)) {
        pollfd exits{space_.exits_fd(), POLLIN, 0};
        poll(&exits, 1, static_cast<int>(kRound.count()));
        take_exits();
    }
}

void Module::lay_devices(const ModuleOptions& options) {
    const auto is_absent = [&](const std::string& path) {
        return std::find(options.absent.begin(), options.absent.end(), path) !=
               options.absent.end();
    };
    for (const auto& port : host_ports_) {
        if (!is_absent(port->path())) {
            port->plug();
        }
    }
    for (const auto& channel : channels_) {
        if (!is_absent(channel->path())) {
            channel->open();
        }
    }
    for (const auto& [path, text] : options.files) {
        write_file(path, text);
    }
}

void Module::start(Here here) {
    bench::SpawnRequest request = tested_daemon();
    request.environment.insert(options_.environment.begin(), options_.environment.end());
    request.environment["VEXA_DS_TARGET"] = std::to_string(options_.target);
    request.output = log_.get();
    const auto child = space_.spawn(request);
    if (!child) {
        fail(space_.error(), here);
    }
    daemon_ = *child;
    daemon_status_.reset();
    end_expected_ = false;
    if (options_.wait_until_ready) {
        wait_until_ready(here);
    }
}

void Module::wait_until_ready(Here here) {
    std::vector<std::string> needed = options_.ready_devices;
    if (needed.empty()) {
        needed.assign(kUsbDevices.begin(), kUsbDevices.end());
    }
    for (const std::string& path : needed) {
        wait_until([&] { return is_served(path); }, path + " to be served", here);
    }
    wait_until([&] { return serves_udp(); }, "the UDP server", here);
}

bool Module::is_served(const std::string& path) {
    return daemon_has_shim() ? device(path).polls() > 0 : is_open_plainly(path);
}

bool Module::is_open_plainly(const std::string& path) const {
    // The UART is emptied and set up once it is open; what is written sooner would be lost.
    if (path == host_ports_[kUartIndex]->path() &&
        line_speed(host_ports_[kUartIndex]->slave_fd()) != B115200) {
        return false;
    }
    struct stat wanted {};
    if (stat(space_.outside(path).c_str(), &wanted) != 0) {
        return false;
    }
    const std::string folder = "/proc/" + std::to_string(daemon_.outer_pid) + "/fd";
    std::error_code gone;
    const std::filesystem::directory_iterator descriptors(folder, gone);
    return std::any_of(begin(descriptors), end(descriptors), [&](const auto& descriptor) {
        struct stat found {};
        return stat(descriptor.path().c_str(), &found) == 0 && S_ISCHR(found.st_mode) &&
               found.st_rdev == wanted.st_rdev;
    });
}

bool Module::has_all_ports_open() {
    return std::all_of(kUsbDevices.begin(), kUsbDevices.end(),
                       [&](const char* path) { return device(path).opens() > 0; }) &&
           serves_udp();
}

bool Module::serves_udp() const {
    return has_udp_server(daemon_.outer_pid);
}

int Module::daemon_exit_status(Here here) {
    end_expected_ = true;
    wait_until([&] { return daemon_status_.has_value(); }, "the daemon to end", here);
    return status_number(*daemon_status_);
}

int Module::count_descriptors() const {
    return open_descriptors(daemon_.outer_pid);
}

int Module::count_threads() const {
    return running_threads(daemon_.outer_pid);
}

DeviceControl Module::device(const std::string& path) {
    if (!daemon_has_shim()) {
        fail("this test wants the shim, and " + path + " has no words without it", Here::current());
    }
    for (std::size_t index = 0; index < bench::kDevicePaths.size(); ++index) {
        if (bench::kDevicePaths[index] == path) {
            return {space_, index};
        }
    }
    throw ExpectationFailed("no device " + path);
}

UdpClient Module::udp_client() {
    return {*this, socket(AF_INET, SOCK_DGRAM)};
}

bench::UniqueFd Module::socket(int domain, int type, int protocol) {
    return space_.socket(domain, type, protocol);
}

bench::UniqueFd Module::listen(const std::string& path, int type) {
    bench::UniqueFd listener = space_.listen(path, type);
    if (!listener.is_open()) {
        throw ExpectationFailed(space_.error());
    }
    return listener;
}

void Module::write_file(const std::string& path, const std::string& text) {
    if (!space_.write_file(path, text)) {
        throw ExpectationFailed(space_.error());
    }
}

void Module::remove(const std::string& path) {
    space_.remove(path);
}

void Module::send_uevent(const std::string& text) {
    if (!space_.send_uevent(text)) {
        throw ExpectationFailed(space_.error());
    }
}

std::string Module::log() const {
    return whole_file(log_.get());
}

void Module::drop_log() {
    (void)!ftruncate(log_.get(), 0);
}

int Module::log_count(std::string_view text) const {
    return count_of(text, log());
}

std::size_t Module::log_size() const {
    return file_size(log_.get());
}

std::string Module::log_from(std::size_t from) const {
    return whole_file(log_.get(), from);
}

bool Module::log_has(std::string_view text, std::size_t from) const {
    return whole_file(log_.get(), from).find(text) != std::string::npos;
}

void Module::wait_for_log(std::string_view text, int times, Here here) {
    wait_until([&] { return log_count(text) >= times; },
               "\"" + bench::visible(text) + "\" in the log, " + std::to_string(times) + " times",
               here);
}

std::string Module::programs_output() const {
    return whole_file(programs_log_.get());
}

void Module::wait_for_output(std::string_view text, int times, Here here) {
    wait_until(
        [&] { return count_of(text, programs_output()) >= times; },
        "\"" + bench::visible(text) + "\" from a program, " + std::to_string(times) + " times",
        here);
}

int Module::start_program(const std::string& name, const std::vector<std::string>& arguments,
                          Here here) {
    bench::SpawnRequest request;
    request.command = {bench::program_folder() + "/" + name};
    request.command.insert(request.command.end(), arguments.begin(), arguments.end());
    request.output = programs_log_.get();
    const auto child = space_.spawn(request);
    if (!child) {
        fail(space_.error(), here);
    }
    programs_.push_back(child->pid);
    outer_pids_[child->pid] = child->outer_pid;
    return child->pid;
}

void Module::stop_program(int pid, int signal_number, Here here) {
    space_.signal(pid, signal_number);
    program_exit_status(pid, here);
}

int Module::program_exit_status(int pid, Here here) {
    wait_until([&] { return program_status_.contains(pid); }, "a program to end", here);
    return status_number(program_status_.at(pid));
}

void Module::wait_until(const std::function<bool()>& done, const std::string& what, Here here) {
    const auto deadline = Clock::now() + kDeadline;
    while (!done()) {
        if (Clock::now() >= deadline) {
            fail("waited in vain for " + what, here);
        }
        serve(kRound);
        if (daemon_status_ && !end_expected_ && !done()) {
            fail("the daemon ended with status " + std::to_string(status_number(*daemon_status_)) +
                     " while waiting for " + what,
                 here);
        }
    }
}

void Module::watch(int fd, std::function<void()> readable) {
    watched_[fd] = std::move(readable);
}

void Module::unwatch(int fd) {
    watched_.erase(fd);
}

int Module::poll_time(std::chrono::milliseconds at_most) const {
    auto time = at_most;
    if (const auto due = peer_ ? peer_->next_due() : std::nullopt) {
        const auto now = Clock::now();
        time = *due <= now
                   ? 0ms
                   : std::min(time, std::chrono::ceil<std::chrono::milliseconds>(*due - now));
    }
    return static_cast<int>(time.count());
}

void Module::serve(std::chrono::milliseconds at_most) {
    std::vector<pollfd> set;
    std::vector<std::function<void()>> handlers;
    const auto add = [&](int fd, std::function<void()> handler) {
        if (fd >= 0) {
            set.push_back({fd, POLLIN, 0});
            handlers.push_back(std::move(handler));
        }
    };
    add(space_.exits_fd(), [this] { take_exits(); });
    for (const auto& port : host_ports_) {
        add(port->reads_ ? port->fd() : -1, [&port] { port->take_input(); });
    }
    for (const auto& channel : channels_) {
        add(channel->listener_.get(), [&channel] { channel->accept_connection(); });
        add(channel->connection_.get(), [&channel] { channel->take_input(); });
    }
    for (const auto& [fd, handler] : watched_) {
        add(fd, handler);
    }
    poll(set.data(), set.size(), poll_time(at_most));
    for (std::size_t at = 0; at < set.size(); ++at) {
        if (set[at].revents != 0) {
            handlers[at]();
        }
    }
    play_modem();
}

void Module::play_modem() {
    if (peer_ == nullptr) {
        return;
    }
    for (std::size_t index = 0; index < channels_.size(); ++index) {
        ModemChannel& channel = *channels_[index];
        while (!channel.received_.empty()) {
            peer_->received(static_cast<int>(index), channel.received_.front(), Clock::now());
            channel.received_.pop_front();
        }
    }
    for (const bench::Delivery& delivery : peer_->take_due(Clock::now())) {
        ModemChannel& channel = this->channel(delivery.channel);
        if (delivery.hang_up) {
            channel.hang_up();
            peer_->closed(delivery.channel);
        } else if (channel.is_open()) {
            channel.send(delivery.bytes);
        }
    }
}

void Module::take_exits() {
    while (const auto exit = space_.next_exit()) {
        if (exit->pid == daemon_.pid) {
            daemon_status_ = exit->status;
        } else {
            program_status_[exit->pid] = exit->status;
        }
    }
}

void Module::fail(const std::string& what, Here here) {
    std::string text = what + "\n";
    for (const auto& port : host_ports_) {
        text += port->path() + " got \"" + bench::visible(port->received()) + "\"\n";
    }
    for (const auto& channel : channels_) {
        text += channel->path() + (channel->is_open() ? " got" : " (not open) got");
        for (const std::string& message : channel->received()) {
            text += " \"" + bench::visible(message) + "\"";
        }
        text += "\n";
    }
    text += "--- the daemon's log ends with:\n" + tail(log());
    const std::string programs = whole_file(programs_log_.get());
    if (!programs.empty()) {
        text += "\n--- other programs:\n" + tail(programs);
    }
    ADD_FAILURE_AT(here.file_name(), here.line()) << text;
    throw ExpectationFailed("an expectation failed at " + std::string(here.file_name()) + ":" +
                            std::to_string(here.line()));
}

void Module::check_reports() {
    const std::string all = log() + whole_file(programs_log_.get());
    for (const char* sign : {"Sanitizer:", "runtime error:", "memcheck-error:"}) {
        if (all.find(sign) != std::string::npos) {
            ADD_FAILURE() << "a sanitizer reported:\n" << tail(all.substr(all.find(sign)));
        }
    }
    if (daemon_status_ && !end_expected_) {
        ADD_FAILURE() << "the daemon ended by itself with status " << status_number(*daemon_status_)
                      << "\n"
                      << tail(all);
    }
}
