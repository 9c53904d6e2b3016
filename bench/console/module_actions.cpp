// What the console can do to the module while it runs, and what it can tell of it.
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "bench_module.h"
#include "device_names.h"

namespace bench {
namespace {

constexpr auto kRecordDeadline = std::chrono::seconds(1);
constexpr auto kEndDeadline = std::chrono::seconds(10);

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(toupper(letter)); });
    return text;
}

// Outside the loop: what is waited for is near.
void wait_until(std::chrono::milliseconds at_most, const std::function<bool()>& is_true) {
    const auto deadline = std::chrono::steady_clock::now() + at_most;
    while (!is_true() && std::chrono::steady_clock::now() < deadline) {
        uv_sleep(1);
    }
}

std::string traffic_line(std::string_view place, const Passed& passed) {
    std::ostringstream line;
    line << "  " << place << ": " << passed.to_daemon << " bytes in " << passed.chunks_to_daemon
         << " chunks to the daemon, " << passed.from_daemon << " in " << passed.chunks_from_daemon
         << " from it";
    return line.str();
}

// How a uevent tells a change of a channel; empty: there is no such change.
std::string_view mhi_state(std::string_view change) {
    if (change == "connect") {
        return "CONNECTED";
    }
    if (change == "disconnect") {
        return "DISCONNECTED";
    }
    return change == "configure" ? "CONFIGURED" : "";
}

// A line of /proc/PID/status, as "VmRSS".
std::string process_value(int pid, const std::string& name) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(file, line)) {
        if (line.starts_with(name + ":")) {
            const std::size_t at = line.find_first_not_of(" \t", name.size() + 1);
            return at == std::string::npos ? "" : line.substr(at);
        }
    }
    return "?";
}

std::size_t open_descriptors(int pid) {
    std::error_code error;
    const std::filesystem::directory_iterator folder("/proc/" + std::to_string(pid) + "/fd", error);
    return error ? 0 : static_cast<std::size_t>(std::distance(begin(folder), end(folder)));
}

}  // namespace

bool BenchModule::find_port(const std::string& port, int& index) {
    const int count = options_.pcie ? kHostPortCount : kPciePipe;
    for (index = 0; index < count; ++index) {
        if (port == kPorts[static_cast<std::size_t>(index)].place) {
            return true;
        }
    }
    return fail("no such port here: '" + port + "'; modem, at, uart, or pcie with --pcie");
}

bool BenchModule::is_port_read(int port) const {
    int unread = 0;
    const int slave = ports_[static_cast<std::size_t>(port)].slave.get();
    return slave < 0 || ioctl(slave, FIONREAD, &unread) != 0 || unread == 0;
}

bool BenchModule::unplug(const std::string& port) {
    int index = 0;
    if (!find_port(port, index)) {
        return false;
    }
    Pty& pty = ports_[static_cast<std::size_t>(index)];
    if (!pty.master.is_open()) {
        return fail("the " + port + " port is not plugged");
    }
    record_.done("unplug", {{"port", port}});
    loop_.unwatch(pty.master.get());
    const bool is_removed = space_.remove(kPorts[static_cast<std::size_t>(index)].path);
    pty = Pty{};
    return is_removed || fail(space_.error());
}

bool BenchModule::plug(const std::string& port) {
    int index = 0;
    if (!find_port(port, index)) {
        return false;
    }
    if (ports_[static_cast<std::size_t>(index)].master.is_open()) {
        return fail("the " + port + " port is plugged already");
    }
    record_.done("plug", {{"port", port}});
    return lay_port(index);
}

bool BenchModule::stop_platform() {
    if (!platform_) {
        return fail("no platform runs");
    }
    record_.done("platform-stop");
    if (!space_.signal(platform_->pid, SIGTERM)) {
        return fail(space_.error());
    }
    // Until it is gone a command may still be written to it.
    wait_until(kEndDeadline, [this] {
        take_exits();
        return !platform_;
    });
    return !platform_ || fail("the platform does not end");
}

bool BenchModule::start_platform() {
    if (platform_) {
        return fail("the platform runs already");
    }
    record_.done("platform-start");
    options_.platform_after = 0;
    return launch_platform();
}

bool BenchModule::set_lines(const std::string& place, const std::string& names) {
    const std::size_t index = device_at(place);
    if (index == kPlaces.size()) {
        return fail("no such place: '" + place + "'");
    }
    std::uint32_t bits = 0;
    std::istringstream words(upper(names));
    for (std::string word; words >> word;) {
        const auto* line = std::find_if(kLineNames.begin(), kLineNames.end(),
                                        [&](const LineName& one) { return one.name == word; });
        if (line == kLineNames.end()) {
            return fail("no such line: '" + word + "'; one of DTR RTS CTS DSR CD RI");
        }
        bits |= line->bit;
    }
    record_.done("lines", {{"port", place}, {"lines", upper(names)}});
    space_.device(index).modem_bits = bits;
    space_.device(index).pending_events.fetch_or(POLLPRI);
    space_.wake(index);
    return true;
}

std::string BenchModule::lines_of(const std::string& place) {
    const std::size_t index = device_at(place);
    return index == kPlaces.size() ? ""
                                   : std::string(LinesOn(space_.device(index).modem_bits).text());
}

bool BenchModule::use_scenario(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        return fail(path + ": cannot be read");
    }
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    return use_scenario_text(std::filesystem::path(path).filename().string(), text);
}

bool BenchModule::use_scenario_text(const std::string& name, const std::string& text) {
    auto parsed = parse_scenario(text, modem_verbs());
    if (!parsed.error.empty()) {
        return fail(name + ": " + parsed.error);
    }
    record_.scenario(name, text);
    play_scenario(std::move(parsed.scenario));
    play_modem();
    return true;
}

std::string BenchModule::end_record(int status) {
    if (!record_.is_open()) {
        return "";
    }
    // A call that is blocked for longer has sent nothing yet.
    wait_until(kRecordDeadline, [this] { return space_.is_all_recorded(); });
    // Nothing that the bench takes away at its end is to be told as if it had happened.
    is_ending_ = true;
    if (daemon_.pid > 0) {
        space_.signal(daemon_.pid, SIGKILL);
    }
    wait_until(kEndDeadline, [this] {
        take_exits();
        return daemon_.pid < 0;
    });
    while (take_log()) {
    }
    record_.end(status);
    return record_.error() == 0 ? "" : options_.record + ": " + strerror(record_.error());
}

std::string BenchModule::status_line() {
    std::string line;
    for (std::size_t index = 0; index < kPorts.size(); ++index) {
        if (relays_[index] == nullptr) {
            continue;
        }
        line += std::string(line.empty() ? "" : " | ") + kPorts[index].place;
        if (!ports_[index].master.is_open()) {
            line += " unplugged";
        } else if (index != kPciePipe) {
            // Counted from 1.
            const std::uint32_t mode = space_.device(device_at(kPorts[index].place)).port_mode;
            line += std::string(" ") +
                    (mode == 0 || mode > kModeNames.size() ? "?" : kModeNames[mode - 1]);
        }
    }
    return line + (platform_ ? " | platform runs" : " | no platform");
}

std::vector<std::string> BenchModule::stats() const {
    std::vector<std::string> lines;
    for (std::size_t index = 0; index < kPorts.size(); ++index) {
        if (relays_[index] != nullptr) {
            lines.push_back(traffic_line(kPorts[index].place, port_traffic_[index]));
        }
    }
    for (std::size_t index = 0; index < kChannels; ++index) {
        lines.push_back(traffic_line(kPlaces[kHostDevices + index], channel_traffic_[index]));
    }
    const int pid = daemon_.outer_pid;
    lines.push_back("  daemon: " + process_value(pid, "Threads") + " threads, " +
                    process_value(pid, "VmRSS") + " resident, " +
                    std::to_string(open_descriptors(pid)) + " descriptors");
    return lines;
}

bool BenchModule::change_mhi(const std::string& change, int channel) {
    if (!options_.pcie) {
        return fail("the module is not attached over PCIe; start with --pcie");
    }
    if (mhi_state(change).empty()) {
        return fail("no such change: '" + change + "'; connect, disconnect or configure");
    }
    if (channel != 0 && channel != 32 && channel != 33) {
        return fail("no such channel; 32, 33, or none for both");
    }
    record_.done("mhi", {{"change", change}, {"channel", std::int64_t{channel}}});
    return send_mhi(change, channel);
}

bool BenchModule::send_mhi(const std::string& change, int channel) {
    std::string event =
        "change@/devices/virtual/mhi/mhi_ctrl\nACTION=change\n"
        "DEVPATH=/devices/virtual/mhi/mhi_ctrl\nSUBSYSTEM=mhi\n";
    for (const int number : {32, 33}) {
        if (channel == 0 || channel == number) {
            event += "MHI_CHANNEL_STATE_" + std::to_string(number) + "=";
            event.append(mhi_state(change)).append("\n");
        }
    }
    return space_.send_uevent(event) || fail(space_.error());
}

}  // namespace bench
