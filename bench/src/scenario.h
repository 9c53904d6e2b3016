// A peer's script, read from a plain text file: what it hears and what it answers. Pure; the
// format is described in docs/scenarios.md.
#pragma once

#include <chrono>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

using Milliseconds = std::chrono::milliseconds;

enum class ArgumentKind { none, text, duration, number };

// What a step of a given peer can be called and what follows its name.
struct Verb {
    std::string_view name;
    ArgumentKind argument;
};

struct Step {
    std::string verb;
    std::string text;      // of a text argument, escapes decoded
    Milliseconds time{0};  // of a duration
    int number = 0;        // of a number
};

enum class Trigger {
    command,    // a line that matches one of the patterns
    otherwise,  // a line that matched nothing
    after,      // once, this long after the start
    every,      // again and again with this period
};

struct Rule {
    Trigger trigger = Trigger::command;
    std::vector<std::string> patterns;
    Milliseconds time{0};
    std::string only;  // name of the one port concerned; empty: all
    int times = 0;     // how often the rule may be used; 0: no limit
    int line = 0;      // where it stands in its file
    std::vector<Step> steps;
};

struct Scenario {
    std::vector<Rule> rules;
};

struct ParsedScenario {
    Scenario scenario;
    std::string error;  // empty when all is well, else "line N: what is wrong"
};

ParsedScenario parse_scenario(std::string_view text, std::span<const Verb> verbs);

// The same from a file; an unreadable one is an error too. Errors begin with the path.
ParsedScenario load_scenario(const std::string& path, std::span<const Verb> verbs);

// Case does not count; "*" stands for any run of characters, "\*" for the character itself.
bool matches_pattern(std::string_view pattern, std::string_view line);

// A line without the line ends it arrived with.
std::string_view without_line_end(std::string_view line);

// The first rule for a line on a port, or null. `used` counts how often each rule was taken, one
// counter a rule, and is moved by a hit.
const Rule* find_rule(const Scenario& scenario, std::string_view port, std::string_view line,
                      std::vector<int>& used);

// \r \n \t \e \\ \xHH; anything else behind a backslash stays as it is, the backslash too.
std::string decode_escapes(std::string_view text);
// The reverse, for messages to people.
std::string visible(std::string_view bytes);

}  // namespace bench
