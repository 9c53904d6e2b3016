#include "recorded_session.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "device_names.h"

namespace bench {
namespace {

using Json = nlohmann::json;
using Kind = RecordedStep::Kind;

constexpr std::int64_t kNoTime = -1;

struct Line {
    std::int64_t time = 0;
    std::size_t number = 0;
    Json fields;
};

struct ActionName {
    std::string_view what;
    Kind kind;
};
constexpr std::array<ActionName, 7> kActions{{{"unplug", Kind::unplug},
                                              {"plug", Kind::plug},
                                              {"platform-stop", Kind::platform_stop},
                                              {"platform-start", Kind::platform_start},
                                              {"lines", Kind::lines},
                                              {"mhi", Kind::mhi},
                                              {"scenario", Kind::scenario}}};

std::string text_field(const Json& fields, const char* name) {
    const auto found = fields.find(name);
    return found != fields.end() && found->is_string() ? found->get<std::string>() : "";
}

std::int64_t number_field(const Json& fields, const char* name, std::int64_t otherwise) {
    const auto found = fields.find(name);
    return found != fields.end() && found->is_number_integer() ? found->get<std::int64_t>()
                                                               : otherwise;
}

bool flag_field(const Json& fields, const char* name, bool otherwise) {
    const auto found = fields.find(name);
    return found != fields.end() && found->is_boolean() ? found->get<bool>() : otherwise;
}

// A recording's bytes stand as the characters U+0000 to U+00FF, which are one or two bytes of
// UTF-8. Nothing when another character is among them.
std::optional<std::string> decode_bytes(const std::string& text) {
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto lead = static_cast<unsigned char>(text[at]);
        if (lead < 0x80) {
            bytes += text[at];
            continue;
        }
        if ((lead != 0xc2 && lead != 0xc3) || at + 1 == text.size()) {
            return std::nullopt;
        }
        bytes += static_cast<char>((lead & 0x03) << 6 | (text[++at] & 0x3f));
    }
    return bytes;
}

// Nothing when the line is none: the last one of a recording that was cut off, or a broken one.
std::optional<Line> parse_line(const std::string& text, std::size_t number) {
    Json fields = Json::parse(text, nullptr, false);
    if (!fields.is_object()) {
        return std::nullopt;
    }
    const std::int64_t time = number_field(fields, "t", kNoTime);
    return time < 0 ? std::nullopt : std::optional(Line{time, number, std::move(fields)});
}

StreamName stream_of(const Json& fields) {
    const std::string place = text_field(fields, "at");
    return place == "udp" ? "udp " + text_field(fields, "peer") : place;
}

bool carries_answers(const std::string& place) {
    return is_host_port(place) || place == "udp" || place == "qmi";
}

std::optional<Kind> typed_kind(const std::string& place, const std::string& direction) {
    if (direction == "typed" && is_host_port(place)) {
        return Kind::typed;
    }
    if (direction == "typed" && place == "udp") {
        return Kind::datagram;
    }
    if (direction == "in" && place == "qmi") {
        return Kind::qmi_request;
    }
    return std::nullopt;
}

std::optional<Kind> action_kind(const std::string& what) {
    const auto* row = std::find_if(kActions.begin(), kActions.end(),
                                   [&](const ActionName& one) { return one.what == what; });
    return row == kActions.end() ? std::nullopt : std::optional(row->kind);
}

class SessionBuilder {
  public:
    explicit SessionBuilder(RecordedSession& session) : session_(session) {}

    void take(const Line& line) {
        const std::string place = text_field(line.fields, "at");
        const std::string direction = text_field(line.fields, "dir");
        if (place == "bench") {
            take_action(line);
        } else if (direction == "out" && carries_answers(place)) {
            take_answer(line);
        } else if (const auto kind = typed_kind(place, direction)) {
            take_typed(line, *kind);
        }
    }

  private:
    bool decode(const Line& line, std::string& bytes) {
        auto decoded = decode_bytes(text_field(line.fields, "data"));
        if (!decoded && session_.error.empty()) {
            session_.error = "line " + std::to_string(line.number) + ": data that are no bytes";
        }
        bytes = decoded.value_or("");
        return decoded.has_value();
    }

    void take_answer(const Line& line) {
        std::string bytes;
        const StreamName name = stream_of(line.fields);
        // A UDP client that the bench did not play is part of the module: the QMI service's.
        const bool is_ours = !name.starts_with("udp ") || clients_.contains(name);
        if (!is_ours || !decode(line, bytes) || bytes.empty()) {
            return;
        }
        RecordedStream& stream = session_.streams[name];
        stream.pieces.push_back({stream.bytes.size(), line.number});
        stream.bytes += bytes;
        answered_[name] = stream.bytes.size();
    }

    void take_typed(const Line& line, Kind kind) {
        RecordedStep step = begin_step(line, kind);
        step.place = kind == Kind::datagram ? text_field(line.fields, "peer")
                                            : text_field(line.fields, "at");
        clients_.insert(stream_of(line.fields));
        if (decode(line, step.text)) {
            session_.steps.push_back(std::move(step));
        }
    }

    void take_action(const Line& line) {
        const auto kind = action_kind(text_field(line.fields, "what"));
        if (!kind) {
            return;
        }
        RecordedStep step = begin_step(line, *kind);
        step.place = text_field(line.fields, "port");
        step.name = text_field(line.fields, "name");
        step.channel = static_cast<int>(number_field(line.fields, "channel", 0));
        const char* const text = *kind == Kind::lines ? "lines"
                                 : *kind == Kind::mhi ? "change"
                                                      : "text";
        step.text = text_field(line.fields, text);
        session_.steps.push_back(std::move(step));
    }

    RecordedStep begin_step(const Line& line, Kind kind) {
        RecordedStep step;
        step.kind = kind;
        step.time = line.time;
        step.line = line.number;
        step.answered = std::exchange(answered_, {});
        return step;
    }

    RecordedSession& session_;
    std::map<StreamName, std::size_t> answered_;  // since the last step
    std::set<StreamName> clients_;
};

void take_start(const Json& fields, RecordedSession& session) {
    session.target = static_cast<int>(number_field(fields, "target", session.target));
    session.pcie = flag_field(fields, "pcie", false);
    session.platform = flag_field(fields, "platform", true);
    const auto after = fields.find("platform_after");
    session.platform_after = after != fields.end() && after->is_number() ? after->get<double>() : 0;
    session.scenario = text_field(fields.value("scenario", Json::object()), "text");
    session.platform_scenario =
        text_field(fields.value("platform_scenario", Json::object()), "text");
}

std::string check_start(const std::optional<Line>& first) {
    if (!first || text_field(first->fields, "what") != "start") {
        return "line 1: no start of a recording; was it made with --record?";
    }
    const std::int64_t version = number_field(first->fields, "version", 0);
    return version == 1 ? "" : "line 1: version " + std::to_string(version) + "; this knows 1";
}

std::vector<Line> read_lines(std::istream& file, std::vector<std::size_t>& passed_over) {
    std::vector<Line> lines;
    std::string text;
    for (std::size_t number = 2; std::getline(file, text); ++number) {
        if (auto line = parse_line(text, number)) {
            lines.push_back(std::move(*line));
        } else {
            passed_over.push_back(number);
        }
    }
    std::stable_sort(lines.begin(), lines.end(),
                     [](const Line& one, const Line& other) { return one.time < other.time; });
    return lines;
}

}  // namespace

std::size_t RecordedStream::line_of(std::size_t offset) const {
    const auto after = std::upper_bound(
        pieces.begin(), pieces.end(), offset,
        [](std::size_t wanted, const RecordedAnswer& piece) { return wanted < piece.offset; });
    return after == pieces.begin() ? 0 : std::prev(after)->line;
}

RecordedSession load_session(const std::string& path) {
    RecordedSession session;
    std::ifstream file(path);
    std::string text;
    if (!file || !std::getline(file, text)) {
        session.error = path + ": " + (file.eof() ? "empty" : strerror(errno));
        return session;
    }
    const auto first = parse_line(text, 1);
    session.error = check_start(first);
    if (session.error.empty()) {
        take_start(first->fields, session);
        SessionBuilder builder(session);
        for (Line& line : read_lines(file, session.passed_over)) {
            line.time -= first->time;
            builder.take(line);
        }
    }
    if (!session.error.empty()) {
        session.error = path + ": " + session.error;
    }
    return session;
}

}  // namespace bench
