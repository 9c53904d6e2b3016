// Measures the daemon of this build on the simulated module and prints a figure a line, "NAME
// VALUE"; script/measure runs it and holds the figures against the budgets.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "daemon_figures.h"
#include "traffic.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kIdle = 10s;
constexpr int kWarmUp = 1000;
constexpr int kStarts = 9;
constexpr int kMhiMainPairTarget = 24;

void print(const char* name, double value) {
    printf("%s %.6g\n", name, value);
    fflush(stdout);
}

// Both: the most of one thread, and of all together, in the idle time.
struct Wakeups {
    long of_one = 0;
    long of_all = 0;
};

Wakeups idle_wakeups(int pid) {
    std::this_thread::sleep_for(1s);  // the last command's pauses end
    const auto before = voluntary_switches(pid);
    std::this_thread::sleep_for(kIdle);
    const auto after = voluntary_switches(pid);
    Wakeups wakeups;
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

void measure_traffic(int commands) {
    Module module;
    Traffic traffic(module);
    traffic.run_to(kWarmUp);
    std::this_thread::sleep_for(1s);
    const long dirty = private_dirty_kib(module.daemon_pid());
    print("private_dirty_kib", static_cast<double>(dirty));
    const auto begin = Clock::now();
    traffic.run_to(commands);
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    std::this_thread::sleep_for(1s);
    const long later = private_dirty_kib(module.daemon_pid());
    print("commands", commands);
    print("ms_a_command", seconds * 1000 / (commands - kWarmUp));
    print("private_dirty_later_kib", static_cast<double>(later));
    print("growth_kib", static_cast<double>(later - dirty));
    const Wakeups wakeups = idle_wakeups(module.daemon_pid());
    print("idle_usb_wakeups", static_cast<double>(wakeups.of_all));
}

void measure_idle_mhi() {
    ModuleOptions options;
    options.target = kMhiMainPairTarget;
    options.ready_devices = {"/dev/mhi_pipe_32", "/dev/at_usb0", "/dev/at_usb1", "/dev/smd7"};
    Module module(options);
    FakePlatform platform(module);
    platform.wait_until_connected();
    const Wakeups wakeups = idle_wakeups(module.daemon_pid());
    const double seconds = std::chrono::duration<double>(kIdle).count();
    print("idle_mhi_wakeups_a_second", static_cast<double>(wakeups.of_all) / seconds);
}

void measure_idle_without_platform() {
    Module module;
    const Wakeups wakeups = idle_wakeups(module.daemon_pid());
    const double seconds = std::chrono::duration<double>(kIdle).count();
    print("idle_no_platform_wakeups_a_second", static_cast<double>(wakeups.of_all) / seconds);
}

}  // namespace

int main(int argc, char** argv) {
    const int commands = argc == 2 ? atoi(argv[1]) : 0;
    if (commands <= kWarmUp) {
        fprintf(stderr, "usage: vexa-measure COMMANDS    (per port, more than %d)\n", kWarmUp);
        return 2;
    }
    try {
        measure_start();
        measure_idle_mhi();
        measure_idle_without_platform();
        measure_traffic(commands);
    } catch (const std::exception& error) {
        fprintf(stderr, "vexa-measure: %s\n", error.what());
        return 1;
    }
    return 0;
}
