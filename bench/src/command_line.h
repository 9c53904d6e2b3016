// How the bench's programs answer a command line that they do not carry out.
#pragma once

#include <CLI/CLI.hpp>

namespace bench {

inline constexpr int kWrongUsage = 2;

// Prints the help that was asked for or what is wrong; what to exit with.
inline int report_parse_error(const CLI::App& app, const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kWrongUsage;
}

}  // namespace bench
