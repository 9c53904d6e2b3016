// Command lines of the two QMI programs.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>

namespace bench {

// The exit status when the program is to end at once: help was asked for, or a mistake reported.
inline std::optional<int> parse_arguments(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        return app.exit(error);
    }
}

}  // namespace bench
