// Measures the daemon of this build on the simulated module and prints a figure a line, "NAME
// VALUE"; script/measure runs it and holds the figures against the budgets.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "daemon_figures.h"
#include "more_roads.h"
#include "pcie_module.h"
#include "traffic.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kIdle = 10s;
constexpr auto kLongestWait = 11s;  // of a command whose answer came before its wait
constexpr int kWarmUp = 1000;
constexpr int kBlock = 250;  // commands between looks at the log
constexpr int kStarts = 9;
constexpr int kMhiMainPairTarget = 24;
constexpr int kModemPortIndex = 0;
constexpr int kUartIndex = 2;
constexpr int kPipeIndex = 3;

void print(const std::string& name, double value) {
    printf("%s %.6g\n", name.c_str(), value);
    fflush(stdout);
}

// The most of one thread, and of all together, in the idle time.
struct Wakeups {
    long of_one = 0;
    long of_all = 0;
    double seconds = 0;

    double a_second() const { return static_cast<double>(of_all) / seconds; }
};

Wakeups idle_wakeups(int pid) {
    std::this_thread::sleep_for(kLongestWait);
    const auto begin = Clock::now();
    const auto before = voluntary_switches(pid);
    std::this_thread::sleep_for(kIdle);
    const auto after = voluntary_switches(pid);
    Wakeups wakeups;
    wakeups.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    for (const auto& [thread, count] : after) {
        const auto old = before.find(thread);
        const long grown = old == before.end() ? count : count - old->second;
        wakeups.of_one = std::max(wakeups.of_one, grown);
        wakeups.of_all += grown;
    }
    return wakeups;
}

double start_ms() {
    ModuleOptions options;
    options.start = false;
    options.wait_until_ready = false;
    Module module(options);
    FakePlatform platform(module);
    const auto begin = Clock::now();
    module.start();
    while (!module.has_all_ports_open()) {
        std::this_thread::sleep_for(100us);
    }
    const auto time = Clock::now() - begin;
    module.wait_until_ready();
    return std::chrono::duration<double, std::milli>(time).count();
}

void measure_start() {
    std::vector<double> times;
    for (int i = 0; i < kStarts; ++i) {
        times.push_back(start_ms());
    }
    std::sort(times.begin(), times.end());
    print("start_ms", times[times.size() / 2]);
    print("start_worst_ms", times.back());
}

// One start's roads: carries so many more commands on each.
using Carry = std::function<void(int)>;

// What a number of commands on every road of a start takes of memory, and whether more of them take
// more.
void measure_memory(Module& module, const std::string& start, int commands, const Carry& carry) {
    fprintf(stderr, "vexa-measure: %s, %d commands on every road\n", start.c_str(), commands);
    carry(kWarmUp);
    std::this_thread::sleep_for(1s);
    const long dirty = private_dirty_kib(module.daemon_pid());
    print("private_dirty_" + start + "_kib", static_cast<double>(dirty));
    const auto begin = Clock::now();
    carry(commands - kWarmUp);
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    std::this_thread::sleep_for(1s);
    const long later = private_dirty_kib(module.daemon_pid());
    print("growth_" + start + "_kib", static_cast<double>(later - dirty));
    print("ms_a_command_" + start, seconds * 1000 / (commands - kWarmUp));
}

void carry_numbered(Module& module, NumberedTraffic& traffic, int commands) {
    for (int left = commands; left > 0; left -= kBlock) {
        traffic.run(std::min(left, kBlock));
        module.drop_log();
    }
    traffic.settle();
}

void expect_none_lost(const NumberedTraffic& traffic) {
    const TrafficCounts counts = traffic.total();
    if (counts.losses != 0 || counts.misroutes != 0) {
        throw std::runtime_error("not every command was answered:\n" + traffic.complaints());
    }
}

void print_stacks(int pid) {
    const auto [least, most] = stacks_dirty_kib(pid);
    print("stack_least_kib", static_cast<double>(least));
    print("stack_most_kib", static_cast<double>(most));
}

// The three host ports with every kind of command, then a client of the UDP server.
void measure_usb(int commands) {
    ModuleWithPlatform both;
    MixedTraffic ports(both);
    int carried = 0;
    measure_memory(both.module, "usb", commands, [&](int more) {
        ports.run_to(carried += more);
        NumberedTraffic udp(both.module, both.platform);
        udp.add(udp_road(both.module));
        carry_numbered(both.module, udp, more);
        expect_none_lost(udp);
    });
    print_stacks(both.module.daemon_pid());
    const Wakeups wakeups = idle_wakeups(both.module.daemon_pid());
    print("idle_usb_wakeups", static_cast<double>(wakeups.of_all));
}

// The UART as a multiplexer, its two channels in use, beside the other host ports and UDP.
void measure_multiplexer(int commands) {
    ModuleWithPlatform both;
    MuxLink link(both.module);
    open_both_channels(both.module, link);
    NumberedTraffic traffic(both.module, both.platform);
    traffic.add(mux_road(link));
    traffic.add(modem_beside_mux_road(both.module, link));
    traffic.add_host_port(1);
    traffic.add(udp_road(both.module));
    measure_memory(both.module, "mux", commands,
                   [&](int more) { carry_numbered(both.module, traffic, more); });
    expect_none_lost(traffic);
    const Wakeups wakeups = idle_wakeups(both.module.daemon_pid());
    print("idle_mux_wakeups", static_cast<double>(wakeups.of_all));
}

// The modem port, the pipe in the AT port's place, and the UART.
void measure_pcie(int commands) {
    ModuleWithPlatform both(pcie_options());
    MhiLink link(both.module);
    link.connect();
    both.module.wait_until([&] { return both.module.device(kMhiPipe).is_served(); }, "the pipe");
    NumberedTraffic traffic(both.module, both.platform);
    for (const int port : {kModemPortIndex, kUartIndex, kPipeIndex}) {
        traffic.add_host_port(port);
    }
    measure_memory(both.module, "pcie", commands,
                   [&](int more) { carry_numbered(both.module, traffic, more); });
    expect_none_lost(traffic);
}

void measure_idle_mhi() {
    ModuleOptions options;
    options.target = kMhiMainPairTarget;
    options.ready_devices = {"/dev/mhi_pipe_32", "/dev/at_usb0", "/dev/at_usb1", "/dev/smd7"};
    Module module(options);
    FakePlatform platform(module);
    platform.wait_until_connected();
    print("idle_mhi_wakeups_a_second", idle_wakeups(module.daemon_pid()).a_second());
}

void measure_idle_without_platform() {
    Module module;
    print("idle_no_platform_wakeups_a_second", idle_wakeups(module.daemon_pid()).a_second());
}

}  // namespace

int main(int argc, char** argv) {
    const int commands = argc == 2 ? atoi(argv[1]) : 0;
    if (commands <= kWarmUp) {
        fprintf(stderr, "usage: vexa-measure COMMANDS    (on every road, more than %d)\n", kWarmUp);
        return 2;
    }
    try {
        measure_start();
        measure_idle_mhi();
        measure_idle_without_platform();
        measure_usb(commands);
        measure_multiplexer(commands);
        measure_pcie(commands);
    } catch (const std::exception& error) {
        fprintf(stderr, "vexa-measure: %s\n", error.what());
        return 1;
    }
    return 0;
}
