#include "conversation.h"

#include <algorithm>
#include <array>
#include <span>
#include <sstream>

#include "scenario.h"

namespace model {
namespace {

constexpr std::array<std::string_view, 4> kWho{"host", "cp", "platform", "client"};
constexpr std::array<std::string_view, 4> kDevices{"modem", "at", "uart", "pipe"};
constexpr std::array<std::string_view, 3> kClientNames{"a", "b", "c"};
constexpr std::string_view kWithPcie = "with pcie";
constexpr std::string_view kWithoutPlatform = "without platform";
constexpr std::array<std::string_view, 4> kKinds{"indication", "command", "data", "online"};

std::span<const std::string_view> places_of(Who who) {
    if (who == Who::client) {
        return kClientNames;
    }
    return std::span(kDevices).first(who == Who::host ? kHostDevices : kPorts);
}

int find_name(std::span<const std::string_view> names, std::string_view name) {
    const auto found = std::find(names.begin(), names.end(), name);
    return found == names.end() ? -1 : static_cast<int>(found - names.begin());
}

// A blank at an end would be lost in an editor.
std::string shown(std::string_view bytes) {
    std::string text = bench::visible(bytes);
    if (!text.empty() && text.front() == ' ') {
        text.replace(0, 1, "\\x20");
    }
    if (!text.empty() && text.back() == ' ') {
        text.replace(text.size() - 1, 1, "\\x20");
    }
    return text;
}

std::string shown(const Pack& pack) {
    return std::string(kKinds[pack.kind]) + " " + shown(pack.payload);
}

std::string_view take_word(std::string_view& line) {
    const auto end = std::min(line.find(' '), line.size());
    const std::string_view word = line.substr(0, end);
    line.remove_prefix(std::min(end + 1, line.size()));
    return word;
}

bool parse_pack(std::string_view line, Step& step) {
    const int kind = find_name(kKinds, take_word(line));
    if (kind < 0) {
        return false;
    }
    step.packs.push_back({static_cast<unsigned>(kind), bench::decode_escapes(line)});
    return true;
}

bool parse_step(std::string_view line, Step& step) {
    if (line.starts_with("& ")) {
        step.together = true;
        line.remove_prefix(2);
    }
    const int who = find_name(kWho, take_word(line));
    if (who < 0) {
        return false;
    }
    step.who = static_cast<Who>(who);
    step.place = find_name(places_of(step.who), take_word(line));
    if (step.place < 0) {
        return false;
    }
    if (step.who == Who::platform) {
        return parse_pack(line, step);
    }
    step.bytes = bench::decode_escapes(line);
    return true;
}

bool parse_line(std::string_view line, Conversation& conversation) {
    if (line.starts_with("#")) {
        line.remove_prefix(std::min<std::size_t>(line.starts_with("# ") ? 2 : 1, line.size()));
        conversation.reason += std::string(line) + "\n";
        return true;
    }
    if (line == kWithPcie) {
        conversation.world.pcie = true;
        return true;
    }
    if (line == kWithoutPlatform) {
        conversation.world.platform = false;
        return true;
    }
    if (line.starts_with("+ ")) {
        return !conversation.steps.empty() && conversation.steps.back().who == Who::platform &&
               parse_pack(line.substr(2), conversation.steps.back());
    }
    return parse_step(line, conversation.steps.emplace_back());
}

}  // namespace

std::string name_of(Who who, std::size_t place) {
    return std::string(kWho[static_cast<std::size_t>(who)]) + " " +
           std::string(places_of(who)[place]);
}

std::string to_text(const Step& step) {
    std::string text = step.together ? "& " : "";
    text += name_of(step.who, static_cast<std::size_t>(step.place));
    if (step.who != Who::platform) {
        return text + " " + shown(step.bytes) + "\n";
    }
    for (const Pack& pack : step.packs) {
        text += &pack == &step.packs.front() ? " " : "+ ";
        text += shown(pack) + "\n";
    }
    return text;
}

std::string to_text(const Conversation& conversation) {
    std::string text;
    std::istringstream reason(conversation.reason);
    for (std::string line; std::getline(reason, line);) {
        text += "# " + line + "\n";
    }
    text += conversation.world.pcie ? std::string(kWithPcie) + "\n" : "";
    text += conversation.world.platform ? "" : std::string(kWithoutPlatform) + "\n";
    for (const Step& step : conversation.steps) {
        text += to_text(step);
    }
    return text;
}

ParsedConversation parse_conversation(std::string_view text) {
    ParsedConversation parsed;
    std::istringstream lines{std::string(text)};
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        if (!line.empty() && !parse_line(line, parsed.conversation)) {
            parsed.error = "line " + std::to_string(number) + ": cannot be read: " + line;
            return parsed;
        }
    }
    return parsed;
}

}  // namespace model
