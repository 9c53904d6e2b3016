#include "daemon_figures.h"

#include <filesystem>
#include <fstream>
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
