#include "platform_peer.h"

#include <algorithm>
#include <array>
#include <utility>

namespace bench {

using Action = PlatformDelivery::Action;

namespace {

constexpr std::size_t kHeads = 44;
constexpr std::size_t kKindOffset = 20;
constexpr std::size_t kContentOffset = 36;
constexpr std::size_t kLargestPack = 131072;

constexpr std::array kPlatformVerbs{
    Verb{"answer", ArgumentKind::text},         // the text between two line ends, as one pack
    Verb{"send", ArgumentKind::text},           // the text as it stands, as one pack
    Verb{"raw", ArgumentKind::text},            // bytes without a frame of any kind
    Verb{"length", ArgumentKind::number},       // what the next pack states as its length
    Verb{"wait", ArgumentKind::duration},       // before the next step; ends a write
    Verb{"silent", ArgumentKind::none},         // no answer, on purpose
    Verb{"as-command", ArgumentKind::none},     // kind of the packs that follow; how a rule begins
    Verb{"as-data", ArgumentKind::none},        // puts the port into data mode
    Verb{"as-online", ArgumentKind::none},      // leaves the mode alone
    Verb{"as-indication", ArgumentKind::none},  // leaves the mode alone
    Verb{"data", ArgumentKind::text},           // "echo" or "swallow" until +++
    Verb{"hangup", ArgumentKind::none},         // close the connection
    Verb{"halfclose", ArgumentKind::none},      // say nothing more, go on listening
    Verb{"restart", ArgumentKind::duration},    // gone altogether for that long
};

void put32(std::string& bytes, std::size_t offset, std::size_t value) {
    for (std::size_t index = 0; index < 4; ++index) {
        bytes[offset + index] = static_cast<char>(value >> (8 * index));
    }
}

uint32_t get32(std::string_view bytes, std::size_t offset) {
    uint32_t value = 0;
    for (std::size_t index = 4; index > 0; --index) {
        value = value << 8 | static_cast<unsigned char>(bytes[offset + index - 1]);
    }
    return value;
}

std::string_view port_name(uint32_t number) {
    switch (number) {
        case 0:
            return "modem";
        case 1:
            return "at";
        case 4:
            return "uart";
        default:
            return "?";
    }
}

}  // namespace

std::span<const Verb> platform_verbs() {
    return kPlatformVerbs;
}

std::string encode_pack(PackKind kind, std::string_view payload) {
    std::string bytes(kHeads, '\0');
    bytes.replace(0, 4, "kcap");
    put32(bytes, 4, kHeads + payload.size());
    put32(bytes, kKindOffset, static_cast<uint32_t>(kind));
    put32(bytes, kContentOffset, payload.size());
    return bytes.append(payload);
}

std::optional<Pack> take_pack(std::string& stream, bool& broken) {
    broken = false;
    if (stream.size() < kHeads) {
        return std::nullopt;
    }
    const std::size_t length = get32(stream, 4);
    if (stream.compare(0, 4, "kcap") != 0 || length < kHeads || length > kLargestPack) {
        broken = true;
        return std::nullopt;
    }
    if (stream.size() < length) {
        return std::nullopt;
    }
    Pack pack{static_cast<PackKind>(get32(stream, kKindOffset)),
              stream.substr(kHeads, length - kHeads)};
    stream.erase(0, length);
    return pack;
}

PlatformPeer::PlatformPeer(Scenario scenario, Time now) : scenario_(std::move(scenario)) {
    for (std::size_t index = 0; index < scenario_.rules.size(); ++index) {
        const Rule& rule = scenario_.rules[index];
        if (rule.trigger == Trigger::after || rule.trigger == Trigger::every) {
            timers_.push_back({index, now + rule.time, rule.trigger == Trigger::every});
        }
    }
}

void PlatformPeer::connected(int id, Time now) {
    Connection connection;
    connection.ready_at = now;
    connections_[id] = std::move(connection);
}

void PlatformPeer::closed(int id) {
    connections_.erase(id);
}

bool PlatformPeer::received(int id, std::string_view bytes, Time now) {
    Connection& connection = connections_.at(id);
    connection.stream.append(bytes);
    bool broken = false;
    while (const auto pack = take_pack(connection.stream, broken)) {
        take(id, *pack, now);
    }
    return !broken;
}

void PlatformPeer::take(int id, const Pack& pack, Time now) {
    Connection& connection = connections_.at(id);
    if (pack.kind == PackKind::report && pack.payload.size() == 4) {
        connection.port = port_name(get32(pack.payload, 0));
    }
    requests_.push_back({connection.port, pack.kind, pack.payload});
    if (pack.kind == PackKind::report) {
        return;
    }
    if (!connection.in_data) {
        begin_line(connection, without_line_end(pack.payload), now);
        return;
    }
    if (pack.payload == "+++") {
        connection.in_data = false;
        connection.ready_at = now;
    } else if (connection.echoes_data) {
        at_once_.push_back(
            {Action::write, id, encode_pack(PackKind::data, pack.payload), Milliseconds{0}});
    }
}

void PlatformPeer::begin_line(Connection& connection, std::string_view line, Time now) {
    if (!connection.steps.empty()) {
        connection.waiting.emplace_back(line);
        return;
    }
    if (const Rule* rule = find_rule(scenario_, connection.port, line, used_)) {
        begin_steps(connection, *rule, now);
    }
}

void PlatformPeer::begin_steps(Connection& connection, const Rule& rule, Time now) {
    if (connection.steps.empty()) {
        connection.ready_at = now;
    }
    connection.kind = PackKind::command;
    connection.stated_length = -1;
    connection.steps.insert(connection.steps.end(), rule.steps.begin(), rule.steps.end());
}

std::optional<PlatformPeer::Time> PlatformPeer::next_due() const {
    std::optional<Time> due;
    const auto sooner = [&due](Time time) { due = due ? std::min(*due, time) : time; };
    for (const auto& [id, connection] : connections_) {
        const bool has_work = !connection.steps.empty() || !connection.waiting.empty();
        if (has_work && !connection.in_data) {
            sooner(connection.ready_at);
        }
    }
    for (const Timer& timer : timers_) {
        sooner(timer.due);
    }
    if (!at_once_.empty()) {
        sooner(Time::min());
    }
    return due;
}

std::vector<PlatformDelivery> PlatformPeer::take_due(Time now) {
    std::vector<PlatformDelivery> out = std::move(at_once_);
    at_once_.clear();
    fire_timers(now);
    std::vector<int> ids;
    for (const auto& [id, connection] : connections_) {
        ids.push_back(id);
    }
    for (const int id : ids) {
        run(id, now, out);
    }
    return out;
}

std::vector<PlatformRequest> PlatformPeer::take_requests() {
    return std::exchange(requests_, {});
}

void PlatformPeer::fire_timers(Time now) {
    for (Timer& timer : timers_) {
        if (timer.due > now) {
            continue;
        }
        const Rule& rule = scenario_.rules[timer.rule];
        for (auto& [id, connection] : connections_) {
            if (connection.port != "?" && (rule.only.empty() || rule.only == connection.port)) {
                begin_steps(connection, rule, now);
            }
        }
        timer.due = timer.repeats ? now + rule.time : Time::max();
    }
    std::erase_if(timers_, [](const Timer& timer) { return timer.due == Time::max(); });
}

std::string PlatformPeer::message_of(Connection& connection, const Step& step) {
    if (step.verb == "raw") {
        return step.text;
    }
    std::string pack =
        encode_pack(connection.kind, step.verb == "send" ? step.text : "\r\n" + step.text + "\r\n");
    if (connection.stated_length >= 0) {
        put32(pack, 4, static_cast<std::size_t>(connection.stated_length));
        connection.stated_length = -1;
    }
    return pack;
}

// What a rule says without a wait goes out in one write: the packs of one answer.
void PlatformPeer::run(int id, Time now, std::vector<PlatformDelivery>& out) {
    Connection& connection = connections_.at(id);
    bool joins = false;
    while (!connection.in_data && connection.ready_at <= now) {
        if (connection.steps.empty()) {
            if (connection.waiting.empty()) {
                return;
            }
            const std::string line = std::move(connection.waiting.front());
            connection.waiting.pop_front();
            begin_line(connection, line, now);
            joins = false;
            continue;
        }
        const Step step = std::move(connection.steps.front());
        connection.steps.pop_front();
        if (step.verb == "answer" || step.verb == "send" || step.verb == "raw") {
            const std::string bytes = message_of(connection, step);
            if (joins) {
                out.back().bytes += bytes;
            } else {
                out.push_back({Action::write, id, bytes, Milliseconds{0}});
            }
            joins = true;
        } else if (step.verb == "wait") {
            connection.ready_at = std::max(connection.ready_at, now) + step.time;
            joins = false;
        } else if (take_action(id, step, out)) {
            joins = false;
        } else {
            set_state(connection, step);
        }
    }
}

bool PlatformPeer::take_action(int id, const Step& step, std::vector<PlatformDelivery>& out) {
    constexpr std::array<std::pair<std::string_view, Action>, 3> kActions{
        {{"hangup", Action::hang_up},
         {"halfclose", Action::half_close},
         {"restart", Action::restart}}};
    for (const auto& [name, action] : kActions) {
        if (step.verb == name) {
            out.push_back({action, id, {}, step.time});
            return true;
        }
    }
    return false;
}

void PlatformPeer::set_state(Connection& connection, const Step& step) {
    constexpr std::array<std::pair<std::string_view, PackKind>, 4> kKinds{
        {{"as-command", PackKind::command},
         {"as-data", PackKind::data},
         {"as-online", PackKind::online},
         {"as-indication", PackKind::indication}}};
    for (const auto& [name, kind] : kKinds) {
        if (step.verb == name) {
            connection.kind = kind;
        }
    }
    if (step.verb == "length") {
        connection.stated_length = step.number;
    } else if (step.verb == "data") {
        connection.in_data = true;
        connection.echoes_data = step.text == "echo";
    }
}

}  // namespace bench
