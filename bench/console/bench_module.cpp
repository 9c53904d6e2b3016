#include "bench_module.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "platform_peer.h"

namespace bench {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kLogTail = 16384;
constexpr std::size_t kLargestMessage = 65536;
constexpr auto kLookIfReady = 5ms;

constexpr const char* kMhiState = "/sys/devices/virtual/mhi/mhi_ctrl/uevent";

std::string system_error(const std::string& what) {
    return what + ": " + strerror(errno);
}

// Whether one of the kernel's tables of a process's network namespace has a line with this text.
bool table_has(int pid, const char* table, const char* text) {
    std::ifstream lines("/proc/" + std::to_string(pid) + "/net/" + table);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

std::string file_name(const std::string& path) {
    return std::filesystem::path(path).filename().string();
}

// An installed daemon finds no platform libraries by itself where it is not on a module: what is
// started here, and only that, gets the installed stand-ins. In a build folder there are none.
void offer_standins() {
    std::string folders = program_folder() + "/standins";
    if (!std::filesystem::exists(folders)) {
        return;
    }
    const char* earlier = getenv("LD_LIBRARY_PATH");
    if (earlier != nullptr && *earlier != '\0') {
        folders = std::string(earlier) + ":" + folders;
    }
    setenv("LD_LIBRARY_PATH", folders.c_str(), 1);
}

std::string absolute(const std::string& path) {
    return std::filesystem::absolute(path).string();
}

}  // namespace

bool BenchModule::fail(const std::string& what) {
    error_ = what;
    return false;
}

bool BenchModule::start() {
    auto parsed = load_scenario(options_.scenario, modem_verbs());
    if (!parsed.error.empty()) {
        return fail(parsed.error);
    }
    // It is played by a program of its own, whose words nobody would see.
    if (options_.platform) {
        const auto platform = load_scenario(options_.platform_scenario, platform_verbs());
        if (!platform.error.empty()) {
            return fail(platform.error);
        }
    }
    if (!options_.record.empty() && !record_.create(options_)) {
        return fail(system_error(options_.record));
    }
    offer_standins();
    if (!space_.open(program_folder())) {
        return fail(space_.error());
    }
    play_scenario(std::move(parsed.scenario));
    loop_.watch(space_.exits_fd(), [this] { take_exits(); });
    return lay_ports() && lay_channels() && lay_pcie() &&
           (!options_.platform || launch_platform()) && start_daemon();
}

void BenchModule::play_scenario(Scenario scenario) {
    peer_ = std::make_unique<ModemPeer>(
        std::move(scenario), std::vector<std::string>{"modem", "at", "uart"}, Clock::now());
}

bool BenchModule::lay_ports() {
    const int count = options_.pcie ? kHostPortCount : kPciePipe;
    for (int port = 0; port < count; ++port) {
        auto& relay = relays_[static_cast<std::size_t>(port)];
        relay = std::make_unique<Relay>(
            loop_, [this, port](std::string_view typed) { write_port(port, typed); });
        if (!relay->open()) {
            return fail(system_error("no pty outside the module"));
        }
        if (!lay_port(port)) {
            return false;
        }
    }
    return true;
}

bool BenchModule::lay_port(int port) {
    const auto index = static_cast<std::size_t>(port);
    auto pty = space_.make_pty(kPorts[index].path);
    if (!pty) {
        return fail(space_.error());
    }
    ports_[index] = std::move(*pty);
    loop_.watch(ports_[index].master.get(), [this, port] { take_port_output(port); });
    return true;
}

bool BenchModule::lay_channels() {
    for (std::size_t index = 0; index < channels_.size(); ++index) {
        const std::string path(kDevicePaths[kHostDevices + index]);
        channels_[index].listener = space_.listen(path, SOCK_SEQPACKET);
        if (!channels_[index].listener.is_open()) {
            return fail(space_.error());
        }
        loop_.watch(channels_[index].listener.get(),
                    [this, index] { accept_channel(static_cast<int>(index)); });
    }
    return true;
}

bool BenchModule::lay_pcie() {
    if (!options_.pcie) {
        return true;
    }
    return (space_.write_file("/dev/mhi_ctrl", "") &&
            space_.write_file(kMhiState,
                              "MHI_CHANNEL_STATE_32=CONFIGURED\n"
                              "MHI_CHANNEL_STATE_33=CONFIGURED\n")) ||
           fail(space_.error());
}

bool BenchModule::launch_platform() {
    std::vector<std::string> arguments{absolute(options_.platform_scenario)};
    if (options_.platform_after > 0) {
        arguments.insert(arguments.end(), {"--after", std::to_string(options_.platform_after)});
    }
    platform_ = start_program("vexa-platform", arguments);
    if (!platform_) {
        return fail(space_.error());
    }
    // A daemon that starts a moment before its platform would be refused once, and try again.
    const std::string path = space_.outside("/dev/socket/qmux_webs/server_webs");
    const auto deadline = Clock::now() + 5s;
    while (options_.platform_after <= 0 && !std::filesystem::exists(path) &&
           Clock::now() < deadline) {
        uv_sleep(1);
    }
    return true;
}

bool BenchModule::start_daemon() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return fail(system_error("pipe"));
    }
    log_ = UniqueFd(ends[0]);
    const UniqueFd writer(ends[1]);
    if (!options_.log.empty()) {
        log_file_ =
            UniqueFd(open(options_.log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!log_file_.is_open()) {
            return fail(system_error(options_.log));
        }
    }
    fcntl(log_.get(), F_SETFL, O_NONBLOCK);
    SpawnRequest request;
    request.command = {absolute(options_.daemon)};
    request.environment["VEXA_DS_TARGET"] = std::to_string(options_.target);
    if (record_.is_open()) {
        request.environment["VEXA_RECORD"] = absolute(options_.record);
    }
    request.environment["LD_PRELOAD"] = program_folder() + "/lib/libvexa_shim.so";
    request.output = writer.get();
    const auto child = space_.spawn(request);
    if (!child) {
        return fail(space_.error());
    }
    daemon_ = *child;
    loop_.watch(log_.get(), [this] { take_log(); });
    return true;
}

std::optional<Child> BenchModule::start_program(const std::string& name,
                                                const std::vector<std::string>& arguments,
                                                int output, int input) {
    SpawnRequest request;
    request.command = {program_folder() + "/" + name};
    request.command.insert(request.command.end(), arguments.begin(), arguments.end());
    request.output = output;
    request.input = input;
    return space_.spawn(request);
}

std::vector<std::string> BenchModule::summary() const {
    std::string platform = "no app platform";
    if (options_.platform) {
        platform = "platform " + file_name(options_.platform_scenario);
        if (options_.platform_after > 0) {
            platform += " (late)";
        }
    }
    std::vector<std::string> lines{"vexa_at_client on a simulated module",
                                   "  modem " + file_name(options_.scenario) + ", " + platform};
    for (std::size_t index = 0; index < kPorts.size(); ++index) {
        if (relays_[index] != nullptr) {
            lines.push_back("  " + std::string(kPorts[index].name) + " " + kPorts[index].path +
                            ": picocom " + relays_[index]->name());
        }
    }
    return lines;
}

void BenchModule::write_port(int port, std::string_view bytes) {
    const auto index = static_cast<std::size_t>(port);
    const std::int64_t begun = record_.time();
    const ssize_t taken = write(ports_[index].master.get(), bytes.data(), bytes.size());
    if (taken <= 0) {
        return;  // unplugged, or nobody has read for 64 KiB
    }
    bytes = bytes.substr(0, static_cast<std::size_t>(taken));
    record_.typed(begun, kPorts[index].place, bytes);
    port_traffic_[index].to_daemon += bytes.size();
    ++port_traffic_[index].chunks_to_daemon;
}

void BenchModule::on_port_output(int port, std::function<void(std::string_view)> heard) {
    heard_[static_cast<std::size_t>(port)] = std::move(heard);
}

void BenchModule::take_port_output(int port) {
    const auto index = static_cast<std::size_t>(port);
    std::array<char, 4096> bytes;
    const ssize_t got = read(ports_[index].master.get(), bytes.data(), bytes.size());
    if (got <= 0) {
        return;
    }
    const std::string_view text(bytes.data(), static_cast<std::size_t>(got));
    port_traffic_[index].from_daemon += text.size();
    ++port_traffic_[index].chunks_from_daemon;
    relays_[index]->say(text);
    if (heard_[index]) {
        heard_[index](text);
    }
}

void BenchModule::accept_channel(int index) {
    Channel& channel = channels_[static_cast<std::size_t>(index)];
    close_channel(index);
    channel.connection =
        UniqueFd(accept4(channel.listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (channel.connection.is_open()) {
        loop_.watch(channel.connection.get(), [this, index] { take_channel_message(index); });
    }
}

void BenchModule::close_channel(int index) {
    Channel& channel = channels_[static_cast<std::size_t>(index)];
    if (channel.connection.is_open()) {
        loop_.unwatch(channel.connection.get());
        channel.connection.reset();
        peer_->closed(index);
    }
}

void BenchModule::take_channel_message(int index) {
    Channel& channel = channels_[static_cast<std::size_t>(index)];
    std::string message(kLargestMessage, '\0');
    const ssize_t got = recv(channel.connection.get(), message.data(), message.size(), 0);
    if (got < 0 && errno == EAGAIN) {
        return;
    }
    if (got <= 0) {
        close_channel(index);
        return;
    }
    message.resize(static_cast<std::size_t>(got));
    Passed& traffic = channel_traffic_[static_cast<std::size_t>(index)];
    traffic.from_daemon += message.size();
    ++traffic.chunks_from_daemon;
    peer_->received(index, message, Clock::now());
    play_modem();
}

void BenchModule::play_modem() {
    for (const Delivery& delivery : peer_->take_due(Clock::now())) {
        if (delivery.hang_up) {
            close_channel(delivery.channel);
            continue;
        }
        const int fd = channels_[static_cast<std::size_t>(delivery.channel)].connection.get();
        if (fd < 0) {
            continue;
        }
        (void)!send(fd, delivery.bytes.data(), delivery.bytes.size(), MSG_NOSIGNAL);
        Passed& traffic = channel_traffic_[static_cast<std::size_t>(delivery.channel)];
        traffic.to_daemon += delivery.bytes.size();
        ++traffic.chunks_to_daemon;
    }
    loop_.cancel(modem_timer_);
    if (const auto due = peer_->next_due()) {
        const auto left =
            *due <= Clock::now() ? 0ms : std::chrono::ceil<Milliseconds>(*due - Clock::now());
        modem_timer_ = loop_.after(left, [this] { play_modem(); });
    }
}

bool BenchModule::take_log() {
    std::array<char, 16384> bytes;
    const ssize_t got = read(log_.get(), bytes.data(), bytes.size());
    if (got <= 0) {
        if (got == 0) {
            loop_.unwatch(log_.get());
        }
        return false;
    }
    const auto size = static_cast<std::size_t>(got);
    record_.log({bytes.data(), size});
    if (log_file_.is_open()) {
        (void)!write(log_file_.get(), bytes.data(), size);
    }
    log_tail_.append(bytes.data(), size);
    if (log_tail_.size() > 2 * kLogTail) {
        log_tail_.erase(0, log_tail_.size() - kLogTail);
    }
    return true;
}

void BenchModule::take_exits() {
    while (const auto exit = space_.next_exit()) {
        if (platform_ && exit->pid == platform_->pid) {
            platform_.reset();
        }
        if (exit->pid != daemon_.pid) {
            continue;
        }
        daemon_.pid = -1;
        if (is_ending_) {
            continue;
        }
        take_log();
        const int status =
            WIFEXITED(exit->status) ? WEXITSTATUS(exit->status) : 128 + WTERMSIG(exit->status);
        record_.done("daemon-ended", {{"status", std::int64_t{status}}});
        if (daemon_ended_) {
            daemon_ended_(status);
        }
    }
}

void BenchModule::when_ready(std::function<void()> ready) {
    ready_ = std::move(ready);
    play_modem();
    loop_.after(0ms, [this] { look_if_ready(); });  // never before the loop runs
}

bool BenchModule::is_ready() {
    for (std::size_t index = 0; index < kDevicePaths.size(); ++index) {
        if (kDevicePaths[index] != kPorts[kPciePipe].path && space_.device(index).polls == 0) {
            return false;
        }
    }
    // Port 5555; and, over PCIe, the listener to group 1 of the kernel's uevents (family 15).
    return table_has(daemon_.outer_pid, "udp", ":15B3 ") &&
           (!options_.pcie || table_has(daemon_.outer_pid, "netlink", " 15 "));
}

void BenchModule::look_if_ready() {
    if (!is_ready()) {
        loop_.after(kLookIfReady, [this] { look_if_ready(); });
        return;
    }
    if (options_.pcie) {
        send_mhi("connect", 0);  // part of the start, not of what was done to the module
    }
    ready_();
}

}  // namespace bench
