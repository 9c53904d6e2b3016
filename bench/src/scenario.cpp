#include "scenario.h"

#include <array>
#include <cctype>
#include <charconv>
#include <fstream>
#include <optional>
#include <sstream>

namespace bench {
namespace {

constexpr std::string_view kBlanks = " \t\r";

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

struct Words {
    std::string_view keyword;
    std::string_view rest;
};

Words split_keyword(std::string_view line) {
    const auto end = line.find_first_of(kBlanks);
    if (end == std::string_view::npos) {
        return {line, {}};
    }
    return {line.substr(0, end), trimmed(line.substr(end))};
}

std::optional<int> parse_number(std::string_view text) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size() || number < 0) {
        return std::nullopt;
    }
    return number;
}

// "200ms", "2s"; the unit is required, because a bare number is read both ways.
std::optional<Milliseconds> parse_duration(std::string_view text) {
    const bool milliseconds = text.ends_with("ms");
    if (!milliseconds && !text.ends_with("s")) {
        return std::nullopt;
    }
    const auto number = parse_number(text.substr(0, text.size() - (milliseconds ? 2 : 1)));
    if (!number) {
        return std::nullopt;
    }
    return Milliseconds{milliseconds ? *number : *number * 1000};
}

int hex_digit(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    const int letter = std::tolower(static_cast<unsigned char>(digit));
    return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

class Parser {
  public:
    explicit Parser(std::span<const Verb> verbs) : verbs_(verbs) {}

    ParsedScenario parse(std::string_view text) {
        while (!text.empty() && result_.error.empty()) {
            const auto end = text.find('\n');
            ++line_;
            take_line(trimmed(text.substr(0, end)));
            text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        }
        return std::move(result_);
    }

  private:
    void fail(const std::string& what) {
        result_.error = "line " + std::to_string(line_) + ": " + what;
    }

    void take_line(std::string_view line) {
        if (line.empty() || line.front() == '#') {
            return;
        }
        const Words words = split_keyword(line);
        if (take_trigger(words)) {
            return;
        }
        if (rules().empty()) {
            fail("\"" + std::string(words.keyword) +
                 "\" stands before the first on, otherwise, after or every");
            return;
        }
        if (!take_property(words)) {
            take_step(words);
        }
    }

    bool take_trigger(const Words& words) {
        if (words.keyword == "on") {
            take_pattern(words.rest);
            return true;
        }
        if (words.keyword == "otherwise") {
            begin_rule(Trigger::otherwise);
            return true;
        }
        if (words.keyword == "after" || words.keyword == "every") {
            take_timer(words);
            return true;
        }
        return false;
    }

    // Several "on" lines in a row are one rule with several patterns.
    void take_pattern(std::string_view pattern) {
        if (pattern.empty()) {
            fail("\"on\" needs a command");
            return;
        }
        const bool joins = !rules().empty() && rules().back().trigger == Trigger::command &&
                           rules().back().steps.empty() && !has_properties_;
        if (!joins) {
            begin_rule(Trigger::command);
        }
        rules().back().patterns.emplace_back(pattern);
    }

    void take_timer(const Words& words) {
        const auto time = parse_duration(words.rest);
        if (!time) {
            fail("\"" + std::string(words.keyword) + "\" needs a time such as 200ms or 2s");
            return;
        }
        const bool repeats = words.keyword == "every";
        if (repeats && time->count() == 0) {
            fail("\"every\" needs a time above zero");
            return;
        }
        begin_rule(repeats ? Trigger::every : Trigger::after);
        rules().back().time = *time;
    }

    void begin_rule(Trigger trigger) {
        Rule rule;
        rule.trigger = trigger;
        rule.line = line_;
        rules().push_back(rule);
        has_properties_ = false;
    }

    bool take_property(const Words& words) {
        if (words.keyword == "only") {
            rules().back().only = words.rest;
            if (words.rest.empty()) {
                fail("\"only\" needs the name of a port");
            }
            has_properties_ = true;
            return true;
        }
        if (words.keyword == "times") {
            const auto number = parse_number(words.rest);
            if (!number || *number == 0) {
                fail("\"times\" needs a number above zero");
                return true;
            }
            rules().back().times = *number;
            has_properties_ = true;
            return true;
        }
        return false;
    }

    void take_step(const Words& words) {
        for (const Verb& verb : verbs_) {
            if (verb.name == words.keyword) {
                take_argument(verb, words.rest);
                return;
            }
        }
        fail("unknown word \"" + std::string(words.keyword) + "\"");
    }

    void take_argument(const Verb& verb, std::string_view text) {
        Step step;
        step.verb = verb.name;
        switch (verb.argument) {
            case ArgumentKind::none:
                if (!text.empty()) {
                    fail("nothing may follow \"" + step.verb + "\"");
                }
                break;
            case ArgumentKind::text:
                step.text = decode_escapes(text);
                break;
            case ArgumentKind::duration:
                step.time = parse_duration(text).value_or(Milliseconds{-1});
                if (step.time.count() < 0) {
                    fail("\"" + step.verb + "\" needs a time such as 200ms or 2s");
                }
                break;
            case ArgumentKind::number:
                step.number = parse_number(text).value_or(-1);
                if (step.number < 0) {
                    fail("\"" + step.verb + "\" needs a number");
                }
                break;
        }
        rules().back().steps.push_back(step);
    }

    std::vector<Rule>& rules() { return result_.scenario.rules; }

    std::span<const Verb> verbs_;
    ParsedScenario result_;
    int line_ = 0;
    bool has_properties_ = false;
};

bool same_letter(char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
}

}  // namespace

ParsedScenario parse_scenario(std::string_view text, std::span<const Verb> verbs) {
    return Parser(verbs).parse(text);
}

ParsedScenario load_scenario(const std::string& path, std::span<const Verb> verbs) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (!file || !(text << file.rdbuf())) {
        return {{}, path + ": cannot be read"};
    }
    ParsedScenario parsed = parse_scenario(text.str(), verbs);
    if (!parsed.error.empty()) {
        parsed.error = path + ": " + parsed.error;
    }
    return parsed;
}

bool matches_pattern(std::string_view pattern, std::string_view line) {
    if (pattern.empty()) {
        return line.empty();
    }
    if (pattern.front() == '*') {
        for (std::size_t skipped = 0; skipped <= line.size(); ++skipped) {
            if (matches_pattern(pattern.substr(1), line.substr(skipped))) {
                return true;
            }
        }
        return false;
    }
    if (pattern.size() > 1 && pattern.substr(0, 2) == "\\*") {
        pattern.remove_prefix(1);
    }
    return !line.empty() && same_letter(pattern.front(), line.front()) &&
           matches_pattern(pattern.substr(1), line.substr(1));
}

std::string_view without_line_end(std::string_view line) {
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) {
        line.remove_suffix(1);
    }
    return line;
}

const Rule* find_rule(const Scenario& scenario, std::string_view port, std::string_view line,
                      std::vector<int>& used) {
    used.resize(scenario.rules.size());
    const auto fits = [&](const Rule& rule, std::size_t index) {
        if ((!rule.only.empty() && rule.only != port) ||
            (rule.times != 0 && used[index] >= rule.times)) {
            return false;
        }
        if (rule.trigger == Trigger::otherwise) {
            return true;
        }
        if (rule.trigger != Trigger::command) {
            return false;
        }
        for (const std::string& pattern : rule.patterns) {
            if (matches_pattern(pattern, line)) {
                return true;
            }
        }
        return false;
    };
    for (const Trigger trigger : {Trigger::command, Trigger::otherwise}) {
        for (std::size_t index = 0; index < scenario.rules.size(); ++index) {
            const Rule& rule = scenario.rules[index];
            if (rule.trigger == trigger && fits(rule, index)) {
                ++used[index];
                return &rule;
            }
        }
    }
    return nullptr;
}

std::string decode_escapes(std::string_view text) {
    constexpr std::array<std::pair<char, char>, 5> kEscapes{
        {{'r', '\r'}, {'n', '\n'}, {'t', '\t'}, {'e', '\x1b'}, {'\\', '\\'}}};
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\\' || at + 1 == text.size()) {
            bytes += text[at];
            continue;
        }
        if (text[at + 1] == 'x' && at + 3 < text.size() && hex_digit(text[at + 2]) >= 0 &&
            hex_digit(text[at + 3]) >= 0) {
            bytes += static_cast<char>(hex_digit(text[at + 2]) * 16 + hex_digit(text[at + 3]));
            at += 3;
            continue;
        }
        const char name = text[at + 1];
        bool known = false;
        for (const auto& [letter, byte] : kEscapes) {
            if (letter == name) {
                bytes += byte;
                known = true;
            }
        }
        if (known) {
            ++at;
        } else {
            bytes += text[at];
        }
    }
    return bytes;
}

std::string visible(std::string_view bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        if (byte == '\r') {
            text += "\\r";
        } else if (byte == '\n') {
            text += "\\n";
        } else if (byte == '\\') {
            text += "\\\\";
        } else if (value < 0x20 || value > 0x7e) {
            text += "\\x";
            text += kDigits[value >> 4];
            text += kDigits[value & 0x0f];
        } else {
            text += byte;
        }
    }
    return text;
}

}  // namespace bench
