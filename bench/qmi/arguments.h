// Command lines of the two QMI programs.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <optional>
#include <string>

#include "command_line.h"

namespace bench {

// Parses, and tells the QMI libraries where the service is. The exit status when the program is to
// end at once: help was asked for, or a mistake reported.
inline std::optional<int> parse_arguments(CLI::App& app, int argc, char** argv) {
    std::string socket;
    app.add_option("--socket", socket, "Where the service is (VEXA_QMI_SOCKET)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return report_parse_error(app, error);
    }
    if (!socket.empty())
        setenv("VEXA_QMI_SOCKET", socket.c_str(), 1);
    return std::nullopt;
}

}  // namespace bench
