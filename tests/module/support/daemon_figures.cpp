#include "daemon_figures.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// The number behind `name` in one of the kernel's "name:  number" files.
long number_of(const std::string& file, const std::string& name) {
    std::ifstream lines(file);
    for (std::string word; lines >> word;) {
        long number = 0;
        if (word == name && lines >> number) {
            return number;
        }
    }
    throw std::runtime_error(file + " has no " + name);
}

int count_entries(const std::string& folder) {
    std::error_code gone;
    const std::filesystem::directory_iterator entries(folder, gone);
    return static_cast<int>(std::distance(begin(entries), end(entries)));
}

struct Area {
    unsigned long begin = 0;
    unsigned long end = 0;
    long private_dirty_kib = 0;
};

std::vector<Area> areas_of(int pid) {
    std::vector<Area> areas;
    std::ifstream lines("/proc/" + std::to_string(pid) + "/smaps");
    for (std::string line; std::getline(lines, line);) {
        Area area;
        if (sscanf(line.c_str(), "%lx-%lx ", &area.begin, &area.end) == 2) {
            areas.push_back(area);
        } else if (!areas.empty()) {
            sscanf(line.c_str(), "Private_Dirty: %ld", &areas.back().private_dirty_kib);
        }
    }
    return areas;
}

// Of a thread that waits in a system call: the last word but one of its file. 0: it runs.
unsigned long stack_pointer(const std::filesystem::path& thread) {
    std::ifstream file(thread / "syscall");
    std::vector<std::string> words;
    for (std::string word; file >> word;) {
        words.push_back(word);
    }
    return words.size() < 3 ? 0 : std::stoul(words[words.size() - 2], nullptr, 16);
}

}  // namespace

int open_descriptors(int pid) {
    return count_entries("/proc/" + std::to_string(pid) + "/fd");
}

int running_threads(int pid) {
    return count_entries("/proc/" + std::to_string(pid) + "/task");
}

long private_dirty_kib(int pid) {
    return number_of("/proc/" + std::to_string(pid) + "/smaps_rollup", "Private_Dirty:");
}

std::pair<long, long> stacks_dirty_kib(int pid) {
    const auto areas = areas_of(pid);
    long least = std::numeric_limits<long>::max();
    long most = 0;
    for (const auto& thread :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        const unsigned long pointer = stack_pointer(thread.path());
        const auto stack = std::find_if(areas.begin(), areas.end(), [&](const Area& area) {
            return pointer >= area.begin && pointer < area.end;
        });
        if (stack == areas.end()) {
            throw std::runtime_error("no stack found of thread " + thread.path().string());
        }
        if (thread.path().filename() != std::to_string(pid)) {
            least = std::min(least, stack->private_dirty_kib);
            most = std::max(most, stack->private_dirty_kib);
        }
    }
    return {least, most};
}

std::map<int, long> voluntary_switches(int pid) {
    std::map<int, long> switches;
    for (const auto& thread :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        switches[std::stoi(thread.path().filename().string())] =
            number_of((thread.path() / "status").string(), "voluntary_ctxt_switches:");
    }
    return switches;
}

std::map<int, long> thread_cpu_ms(int pid) {
    std::map<int, long> times;
    for (const auto& thread :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        std::ifstream file(thread.path() / "stat");
        std::string line;
        std::getline(file, line);
        // The name stands in brackets and may hold anything; behind it state is field 3, and user
        // and system time are fields 14 and 15.
        std::istringstream fields(line.substr(line.rfind(')') + 1));
        std::string skipped;
        for (int field = 3; field < 14; ++field) {
            fields >> skipped;
        }
        long user = 0;
        long system = 0;
        fields >> user >> system;
        times[std::stoi(thread.path().filename().string())] =
            (user + system) * 1000 / sysconf(_SC_CLK_TCK);
    }
    return times;
}
