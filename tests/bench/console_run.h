// The console fed from a pipe, as a script would use it.
#pragma once

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

#include "module_space.h"

struct Outcome {
    int status = -1;
    std::string output;  // standard output and error
};

// `script` must not hold a single quote.
inline Outcome run_console(const std::string& script, const std::string& options) {
    const std::string command = "printf '%s\\n' '" + script + "' | " + bench::program_folder() +
                                "/vexa-bench " + options + " 2>&1";
    std::FILE* const pipe = popen(command.c_str(), "re");
    Outcome outcome;
    std::array<char, 4096> area;
    while (pipe != nullptr && std::fgets(area.data(), static_cast<int>(area.size()), pipe))
        outcome.output += area.data();
    const int status = pipe == nullptr ? -1 : pclose(pipe);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}
