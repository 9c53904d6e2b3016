// Prints docs/routing.md: where each command goes, asked of the daemon's own predicates for every
// row of its tables. script/routing writes the page; a test fails when it is stale.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <span>
#include <string>

#include "command_match.h"
#include "command_tables.h"

namespace {

using Names = std::span<const char* const>;

constexpr const char* kIntroduction =
    R"(# Where each command goes

Written by `script/routing` from the tables in `atcmd_fwd/src/command_tables.h`; a test fails when
the two differ. Do not edit this page.

The **name** of a command line decides. It runs from the start of the line to the first `=`, `?`,
`*`, digit or line end; upper and lower case are the same. Four exceptions keep their digits:
names that begin with `ATI`, `ATS`, `AT+WS` or `AT+CV`, and `AT+MAI2SY`. A semicolon does not end
a name: `AT+CSQ;+CGMR` has a name that no table knows, and `AT+CGDCONT=1;+CSQ` goes whole to where
`AT+CGDCONT` goes.

- **platform**: the app platform answers. When it cannot be reached, the last column says what
  happens.
- **both**: the modem gets the line first and is not waited for, then the platform. What either of
  them answers reaches the port.
- Every other name goes to the **modem**.

| Name | Goes to | While the platform cannot be reached |
|---|---|---|
)";

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char byte) { return static_cast<char>(std::toupper(byte)); });
    return text;
}

// The names of a table without its first marker; upper case, sorted, each once.
std::set<std::string> sorted(Names names) {
    std::set<std::string> result;
    for (const char* name : names) result.insert(upper(name));
    return result;
}

// The walks compare the last marker, too; it is no AT command.
bool is_command(const std::string& name) {
    return name.starts_with("AT");
}

using Predicate = int (*)(const char*, int);

bool holds(Predicate predicate, const std::string& name) {
    const std::string line = name + "\r";
    return predicate(line.c_str(), static_cast<int>(line.size())) != 0;
}

int waits(const char* line, int /*length*/) {
    return is_ght_atcmd(line);
}

// The matchers tell each hit on standard output; the page goes where `page` points.
void print_roads(FILE* page) {
    for (const std::string& name : sorted(hijack_atcmd_talbe)) {
        if (!is_command(name))
            continue;
        const bool to_platform = holds(hijack_atcmd_to_app_platform, name);
        const bool to_both = to_platform && holds(forward_exc_atcmd_to_cp_too, name);
        const char* away = holds(waits, name) ? "asked again for about 5 s"
                           : to_both          ? "goes to the modem once more"
                                              : "goes to the modem";
        fprintf(page, "| `%s` | %s | %s |\n", name.c_str(),
                !to_platform ? "modem: no line has this name"
                : to_both    ? "both"
                             : "platform",
                away);
    }
}

void print_list(FILE* page, const char* heading, const std::set<std::string>& names) {
    fprintf(page, "%s", heading);
    const char* before = "";
    for (const std::string& name : names) {
        if (!is_command(name))
            continue;
        fprintf(page, "%s`%s`", before, name.c_str());
        before = ", ";
    }
    fprintf(page, "%s.\n", *before == '\0' ? "none" : "");
}

void print_modes(FILE* page) {
    fprintf(page, "\n## Commands that change what a port's next bytes are\n\n");
    print_list(page,
               "- Message text, once the modem prompts with `> `: ", sorted(smsmode_atcmd_talbe));
    print_list(page, "- The multiplexer, on the UART: ", sorted(cmuxmode_atcmd_talbe));
    print_list(page, "- Hex input: ", sorted(hexmode_atcmd_talbe));
    fprintf(page, "- A data connection, when the modem answers `CONNECT`: `ATD`.\n");
}

// Worth waiting for, and yet never sent to the platform.
void print_idle_rows(FILE* page) {
    std::set<std::string> idle;
    for (const std::string& name : sorted(ght_at_table))
        if (!holds(hijack_atcmd_to_app_platform, name))
            idle.insert(name);
    fprintf(page, "\n## Rows without effect\n\n");
    print_list(page,
               "In the list of what is asked again, but not in the platform's table, so that they\n"
               "go to the modem: ",
               idle);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: vexa-routing-page FILE    writes the page to FILE\n");
        return 2;
    }
    FILE* page = fopen(argv[1], "w");
    if (page == nullptr) {
        fprintf(stderr, "vexa-routing-page: %s: %s\n", argv[1], strerror(errno));
        return 1;
    }
    fputs(kIntroduction, page);
    print_roads(page);
    print_modes(page);
    print_idle_rows(page);
    return fclose(page) == 0 ? 0 : 1;
}
