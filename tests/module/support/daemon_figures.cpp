#include "daemon_figures.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

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

}  // namespace

long private_dirty_kib(int pid) {
    return number_of("/proc/" + std::to_string(pid) + "/smaps_rollup", "Private_Dirty:");
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
