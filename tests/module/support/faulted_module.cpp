#include "faulted_module.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
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

// The processes that a fault may harm: the daemon, and the QMI service beside it.
struct Process {
    std::string name;
    int pid;
};

std::vector<Process> processes_of(const FaultedModule& faulted) {
    std::vector<Process> processes{{"the daemon", faulted.module.daemon_pid()}};
    if (faulted.qmi) {
        processes.push_back({"the QMI service", faulted.qmi->host_pid()});
    }
    return processes;
}

using CpuTimes = std::map<int, long>;

std::string busy_threads(const std::string& name, const CpuTimes& before, const CpuTimes& after) {
    std::string signs;
    for (const auto& [thread, time] : after) {
        const auto old = before.find(thread);
        if (old != before.end() && time - old->second > kMostCpuMs) {
            signs += std::to_string(time - old->second) + " ms of CPU in thread " +
                     std::to_string(thread) + " of " + name + "\n";
        }
    }
    return signs;
}

// What a window of their time shows of spinning; empty: nothing.
std::string spinning(FaultedModule& faulted) {
    Module& module = faulted.module;
    const auto processes = processes_of(faulted);
    std::vector<CpuTimes> before;
    for (const Process& process : processes) {
        before.push_back(thread_cpu_ms(process.pid));
    }
    const std::size_t log_before = module.log_size();
    serve_for(module, kQuietTime);
    std::string signs;
    for (std::size_t at = 0; at < processes.size(); ++at) {
        signs += busy_threads(processes[at].name, before[at], thread_cpu_ms(processes[at].pid));
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
        signs = spinning(faulted);
        if (signs.empty()) {
            return;
        }
    }
    ADD_FAILURE() << "while nothing happens, in " << kQuietTime.count() << " ms: " << signs;
}

struct Figures {
    std::string name;
    int descriptors = 0;
    long memory_kib = 0;
};

std::vector<Figures> figures(FaultedModule& faulted) {
    faulted.traffic.settle();
    faulted.platform.wait_until_connected();
    serve_for(faulted.module, 100ms);
    std::vector<Figures> all;
    for (const Process& process : processes_of(faulted)) {
        all.push_back({process.name, open_descriptors(process.pid),
                       counts_memory() ? private_dirty_kib(process.pid) : 0});
    }
    return all;
}

void expect_no_growth(const std::vector<Figures>& first, const std::vector<Figures>& second) {
    for (std::size_t at = 0; at < first.size(); ++at) {
        EXPECT_LE(second[at].descriptors, first[at].descriptors) << "of " << first[at].name;
        EXPECT_LE(second[at].memory_kib - first[at].memory_kib, kMostGrowthKib)
            << "KiB of private memory of " << first[at].name;
    }
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
    const auto first = figures(faulted);
    go_through(faulted, fault);
    expect_no_growth(first, figures(faulted));
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
