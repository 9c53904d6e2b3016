// That the process under test is the program that it is meant to be: the preset's own, for its
// machine, with the preset's shim or, being static, without one.
#include <elf.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <string>

#include "module.h"
#include "tested_daemon.h"

namespace {

// e_machine stands at the same place in the 32-bit and the 64-bit header; little-endian here.
int machine_of(const std::string& file) {
    Elf32_Ehdr header{};
    std::ifstream(file, std::ios::binary).read(reinterpret_cast<char*>(&header), sizeof header);
    return std::string(reinterpret_cast<const char*>(header.e_ident), SELFMAG) == ELFMAG
               ? header.e_machine
               : EM_NONE;
}

int wanted_machine() {
    const char* named = std::getenv("VEXA_TEST_MACHINE");
    return named == nullptr ? machine_of("/proc/self/exe") : std::stoi(named);
}

// The files whose code a process runs; an emulator maps what it runs as the kernel would.
std::set<std::string> mapped_files(int pid) {
    std::set<std::string> files;
    std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
    for (std::string line; std::getline(maps, line);) {
        if (const auto path = line.find('/'); path != line.npos) {
            files.insert(line.substr(path));
        }
    }
    return files;
}

std::vector<std::string> ending_with(const std::set<std::string>& files, std::string_view name) {
    std::vector<std::string> found;
    std::copy_if(files.begin(), files.end(), std::back_inserter(found),
                 [&](const std::string& file) { return file.ends_with(name); });
    return found;
}

TEST(TestedDaemon, IsTheProgramOfTheWantedMachine) {
    Module module;
    const auto files = mapped_files(module.daemon_pid());
    const auto daemons = ending_with(files, "/vexa_at_client");
    ASSERT_EQ(daemons.size(), 1U);
    EXPECT_EQ(machine_of(daemons.front()), wanted_machine()) << daemons.front();
    const auto shims = ending_with(files, "/libvexa_shim.so");
    ASSERT_EQ(shims.size(), daemon_has_shim() ? 1U : 0U);
    if (daemon_has_shim()) {
        EXPECT_EQ(machine_of(shims.front()), wanted_machine()) << shims.front();
    }
}

TEST(TestedDaemon, MapsNoLibraryWhenItIsStatic) {
    Module module;
    const auto files = mapped_files(module.daemon_pid());
    const auto platforms = ending_with(files, "/libdiag.so.1");
    EXPECT_EQ(platforms.size(), daemon_has_shim() ? 1U : 0U);
}

}  // namespace
