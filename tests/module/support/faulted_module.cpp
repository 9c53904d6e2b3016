#include "faulted_module.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <random>

#include "daemon_figures.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr long kAnswersBefore = 3;
constexpr long kAnswersMeanwhile = 10;
constexpr long kAnswersBehind = 3;
// A thread that spins takes what the machine gives it, and says so in the log at each turn; one
// that does not spin takes next to nothing, retries of one a second included.
constexpr auto kQuietTime = 600ms;
constexpr long kMostCpuMs = 200;
constexpr std::size_t kMostLog = 50'000;
constexpr std::size_t kLogShown = 2000;
constexpr int kMostWindows = 20;
constexpr long kMostGrowthKib = 64;

// A sanitizer's memory, and an emulator's, is not the daemon's.
bool counts_memory() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return false;
#else
    return std::getenv("VEXA_TEST_DAEMON") == nullptr;
#endif
}

ModuleOptions options_of(Link link) {
    if (link == Link::usb) {
        return {};
    }
    return pcie_options();
}

void serve_for(Module& module, std::chrono::milliseconds time) {
    const auto end = Clock::now() + time;
    while (Clock::now() < end) {
        module.serve(5ms);
    }
}

std::string end_of(const std::string& log) {
    return log.substr(log.size() - std::min(log.size(), kLogShown));
}

// What a window of the daemon's time shows of spinning; empty: nothing.
std::string spinning(Module& module) {
    const auto before = thread_cpu_ms(module.daemon_pid());
    const std::size_t log_before = module.log_size();
    serve_for(module, kQuietTime);
    std::string signs;
    for (const auto& [thread, time] : thread_cpu_ms(module.daemon_pid())) {
        const auto old = before.find(thread);
        if (old != before.end() && time - old->second > kMostCpuMs) {
            signs += std::to_string(time - old->second) + " ms of CPU in thread " +
                     std::to_string(thread) + "\n";
        }
    }
    const std::size_t log_grown = module.log_size() - log_before;
    if (log_grown > kMostLog) {
        signs += std::to_string(log_grown) + " bytes of log, which ends with\n" +
                 end_of(module.log()) + "\n";
    }
    return signs;
}

// Work that has piled up comes to an end; spinning does not.
void expect_no_thread_spins(FaultedModule& faulted) {
    faulted.traffic.settle();
    std::string signs;
    for (int window = 0; window < kMostWindows; ++window) {
        signs = spinning(faulted.module);
        if (signs.empty()) {
            return;
        }
    }
    ADD_FAILURE() << "while nothing happens, in " << kQuietTime.count() << " ms: " << signs;
}

struct Figures {
    int descriptors = 0;
    long memory_kib = 0;
};

Figures figures(FaultedModule& faulted) {
    faulted.traffic.settle();
    faulted.platform.wait_until_connected();
    serve_for(faulted.module, 100ms);
    return {faulted.module.count_descriptors(),
            counts_memory() ? private_dirty_kib(faulted.module.daemon_pid()) : 0};
}

void go_through(FaultedModule& faulted, const Fault& fault) {
    NumberedTraffic& traffic = faulted.traffic;
    traffic.run(kAnswersBefore);
    for (const std::string& road : fault.concerned) {
        traffic.finish(road);
    }
    fault.begin(faulted);
    traffic.run(kAnswersMeanwhile);
    expect_no_thread_spins(faulted);
    traffic.run(kAnswersBefore);
    fault.end(faulted);
    for (const std::string& road : fault.concerned) {
        traffic.resume(road);
    }
    traffic.ask(NumberedTraffic::Ask::both);
    traffic.run(kAnswersBehind);
}

}  // namespace

FaultedModule::FaultedModule(Link link) : both(options_of(link)) {
    traffic.add_host_port(0);
    traffic.add_host_port(2);
    if (link == Link::pcie) {
        mhi.emplace(module);
        mhi->connect();
        module.wait_until([&] { return module.device(kMhiPipe).is_served(); }, "the pipe");
        traffic.add_host_port(3);
        return;
    }
    traffic.add_host_port(1);
    qmi.emplace(module);
    traffic.add(udp_road(module));
    traffic.add(qmi->road());
}

void FaultedModule::wait_until_served(const std::string& path, int opens, Here here) {
    module.wait_until([&] { return module.device(path).is_served(opens); },
                      path + " to be served again", here);
}

std::ostream& operator<<(std::ostream& out, const Fault& fault) {
    return out << fault.name;
}

void expect_survived(const Fault& fault) {
    FaultedModule faulted(fault.link);
    go_through(faulted, fault);
    const Figures first = figures(faulted);
    go_through(faulted, fault);
    const Figures second = figures(faulted);
    EXPECT_LE(second.descriptors, first.descriptors);
    EXPECT_LE(second.memory_kib - first.memory_kib, kMostGrowthKib) << "KiB of private memory";
    const TrafficCounts counts = faulted.traffic.total();
    EXPECT_EQ(counts.misroutes, 0) << faulted.traffic.complaints();
    EXPECT_EQ(counts.losses, 0) << faulted.traffic.complaints();
}

// Without "A", with which commands begin, and without what means something to the daemon.
std::string garbage(std::size_t size) {
    std::mt19937 random(27010);
    std::string bytes;
    while (bytes.size() < size) {
        const auto byte = static_cast<char>(random() & 0xFF);
        if (byte != 'A' && byte != 'a' && byte != '>' && byte != '\r' && byte != '\x1A') {
            bytes += byte;
        }
    }
    return bytes;
}
