#include "plain_model.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "plain_words.h"

namespace model {
namespace {

constexpr std::size_t kLongestLine = 16384;
constexpr std::size_t kLongestPayload = 4096;
constexpr std::size_t kLongestAnswer = 16384;

bool is_repeat(const std::string& line) {
    return line == "A/" || line == "a/" || line == "A/\r" || line == "a/\r" || line == "A/\r\n" ||
           line == "a/\r\n";
}

bool is_legal(const std::string& line) {
    if (line == "A" || line == "a") {
        return true;
    }
    return begins(line, "at");
}

bool has_result(const std::string& text) {
    return holds_any(text, {"ok\r\n", "OK\r\n", "error", "ERROR", "no carrier", "NO CARRIER"});
}

const std::vector<std::pair<std::string, Broken>> kBrokenNames{
    {"none", Broken::none},
    {"echo-on-uart", Broken::echo_on_uart},
    {"repeat-of-any-port", Broken::repeat_of_any_port},
    {"ctrl-z-is-kept", Broken::ctrl_z_is_kept},
    {"splits-every-length", Broken::splits_every_length},
    {"typing-keeps-client", Broken::typing_keeps_client},
    {"blanks-in-quotes-drop", Broken::blanks_in_quotes_drop},
    {"prompt-of-any-length", Broken::prompt_of_any_length},
    {"echo-after-typing", Broken::echo_after_typing},
};

}  // namespace

std::optional<Broken> broken_rule(std::string_view name) {
    for (const auto& [text, rule] : kBrokenNames) {
        if (text == name) {
            return rule;
        }
    }
    return std::nullopt;
}

std::string_view name_of(Broken rule) {
    const auto found = std::find_if(kBrokenNames.begin(), kBrokenNames.end(),
                                    [rule](const auto& entry) { return entry.second == rule; });
    return found->first;
}

std::string broken_rule_names() {
    std::string names;
    for (const auto& [text, rule] : kBrokenNames) {
        names += (names.empty() ? "" : " ") + text;
    }
    return names;
}

PlainModel::PlainModel(const World& world, Broken broken) : world_(world), broken_(broken) {}

Seen PlainModel::at_start() const {
    Seen seen;
    for (int port = 0; port < kPorts && world_.platform; ++port) {
        seen.platform[at(port)] = port_report(port);
    }
    return seen;
}

std::optional<Seen> PlainModel::take(const Step& step) {
    PlainModel next = *this;
    next.play(step);
    if (next.is_open_) {
        return std::nullopt;
    }
    Seen seen = std::exchange(next.seen_, {});
    *this = std::move(next);
    return seen;
}

void PlainModel::play(const Step& step) {
    switch (step.who) {
        case Who::host:
            return hear_host(step.place, step.bytes);
        case Who::client:
            return hear_client(step.place, step.bytes);
        case Who::cp:
            return hear_cp(step.place, step.bytes);
        case Who::platform:
            return hear_platform(step.place, step.packs);
    }
}

// --- what comes in

void PlainModel::hear_host(int device, const std::string& bytes) {
    if (bytes.empty() || (device == kPipe && !world_.pcie)) {
        is_open_ = true;
        return;
    }
    const bool takes_back = device != kModem;
    if (takes_back && broken_ != Broken::typing_keeps_client) {
        diverted_ = false;
    }
    hear(device, bytes);
}

void PlainModel::hear_client(int client, const std::string& bytes) {
    if (ports_[kAt].asker == kUdp) {
        is_open_ = true;
        return;
    }
    if (bytes.empty()) {
        ++progress_.datagrams;
        return;
    }
    diverted_ = true;
    client_ = client;
    hear(kUdp, bytes);
}

void PlainModel::hear_cp(int port, const std::string& bytes) {
    if (bytes.empty()) {
        is_open_ = true;
        return;
    }
    const std::string text = up_to_nul(bytes);
    if (!(multiplexes_ && port == kModem)) {
        follow_modes(port, text, bytes.size());
    }
    if (multiplexes_ && port != kAt) {
        in_frames(port == kModem ? dial_address_ : command_address_, bytes);
    } else {
        to_host(port, bytes);
    }
    typed_ = false;
    ports_[at(port)].awaits_result = ports_[at(port)].awaits_result && !has_result(text);
    release(port);
    ++progress_.messages[at(port)];
}

void PlainModel::hear_platform(int port, const std::vector<Pack>& packs) {
    std::string text;
    std::size_t size = 0;
    for (const Pack& pack : packs) {
        text += up_to_nul(pack.payload);
        size += pack.payload.size();
        is_open_ = is_open_ || pack.payload.size() > kLongestPayload;
    }
    if (size == 0 || size > kLongestAnswer || !world_.platform) {
        is_open_ = true;
        return;
    }
    Port& to = ports_[at(port)];
    times_held_ += to.awaits_result ? 1 : 0;
    if (!(multiplexes_ && port == kUart)) {
        if (packs.back().kind == 2 && to.mode == 0) {
            to.mode = 4;
        } else if (packs.back().kind == 1 && to.mode == 4) {
            to.mode = 0;
        }
    }
    if (size == 255 && text == std::string(255, '+')) {
        seen_.platform[at(port)] += port_report(port);  // shut down, and connected anew
        return;
    }
    if (echoes_ && (!typed_ || broken_ == Broken::echo_after_typing)) {
        text = (to.kept + text).substr(0, kLongestAnswer);
    } else {
        text.resize(size, '\0');
    }
    if (multiplexes_ && port == kUart) {
        in_frames(command_address_, text);
    } else {
        to_host(port, text);
    }
    ++progress_.answers;
    release(port);
}

void PlainModel::follow_modes(int port, const std::string& text, std::size_t size) {
    int& mode = ports_[at(port)].mode;
    const std::string& last = ports_[at(port)].last;
    if (mode == 0 && holds(text, "CONNECT") && begins(last, "atd") && !holds(last, ";")) {
        mode = 3;
    }
    if (mode == 3 && holds(text, "NO CARRIER")) {
        mode = 0;
    }
    const bool is_prompt_size = size == 4 || broken_ == Broken::prompt_of_any_length;
    if (mode == 0 && is_prompt_size && holds(text, ">")) {
        mode = 2;
    }
    if (mode == 2 && holds_any(text, {"+CMGS:", "+CMS ERROR:", "OK"})) {
        mode = 0;
    }
}

// --- a chunk of host input, by the port's mode

void PlainModel::hear(int source, const std::string& chunk) {
    Port& port = ports_[at(port_of(source))];
    if (port.asker == source) {
        is_open_ = true;
        return;
    }
    switch (port.mode) {
        case 0:
            gather(source, chunk);
            break;
        case 2:
            if (chunk.back() == '\x1A' || chunk.back() == '\x1B') {
                port.mode = 0;
            }
            raw_to_cp(port_of(source), chunk);
            break;
        case 3:
            if (chunk == "+++" ||
                (chunk.size() >= 3 && chunk.size() <= 5 && begins(chunk, "ath\r"))) {
                port.mode = 0;
            }
            raw_to_cp(port_of(source), chunk);
            break;
        case 4:
            pack(port_of(source), 2, chunk);
            break;
        default:
            hear_frame(chunk);
            break;
    }
    if (port.asker != source) {
        done(source);
    }
}

void PlainModel::done(int source) {
    if (source == kUdp) {
        ++progress_.datagrams;
    } else {
        ++progress_.chunks[at(source)];
    }
}

void PlainModel::raw_to_cp(int port, const std::string& chunk) {
    std::string sent = chunk;
    if (broken_ == Broken::ctrl_z_is_kept && chunk.back() == '\x1A') {
        sent.pop_back();
    }
    seen_.channels[at(port)].push_back(sent);
}

// --- command lines

void PlainModel::echo_key(int source, const std::string& key) {
    typed_ = true;
    const int port = port_of(source);
    if (port != kUart || broken_ == Broken::echo_on_uart) {
        say(port, key);
    }
}

// What the daemon says itself; on the AT port it goes to the pipe as well.
void PlainModel::say(int port, const std::string& text) {
    if (port != kAt) {
        seen_.hosts[at(port)] += text;
        return;
    }
    if (diverted_ && client_ >= 0) {
        seen_.clients[at(client_)].push_back(text);
    } else {
        seen_.hosts[kAt] += text;
    }
    seen_.hosts[kPipe] += world_.pcie ? text : "";
}

void PlainModel::gather(int source, const std::string& chunk) {
    std::string& line = lines_[at(source)];
    if (chunk.size() == 1 && echoes_) {
        echo_key(source, chunk);
    }
    if (chunk == "\b") {
        line = line.substr(0, line.empty() ? 0 : line.size() - 1);
        return;
    }
    line += up_to_nul(chunk);
    if (line.size() > kLongestLine) {
        is_open_ = true;
    } else if (is_finished(line)) {
        take_line(source);
    } else if (!is_legal(line)) {
        line.clear();
    }
}

bool PlainModel::is_finished(const std::string& line) const {
    if (line.empty()) {
        return false;
    }
    const auto byte = [&](std::size_t from_end) {
        return static_cast<unsigned char>(line[line.size() - from_end]);
    };
    return byte(1) == 13 || byte(1) == s3_ || byte(1) == 0x1A || line == "A/" || line == "a/" ||
           (line.size() >= 3 && byte(2) == s3_ && byte(1) == 10);
}

void PlainModel::take_line(int source) {
    std::string& line = lines_[at(source)];
    if (is_repeat(line)) {
        std::string last = ports_[at(port_of(source))].last;
        if (broken_ == Broken::repeat_of_any_port && last.empty()) {
            last = ports_[kModem].last + ports_[kAt].last + ports_[kUart].last;
        }
        line = last + line.substr(std::min(last.size(), line.size()));
    }
    if (holds(line, " ")) {
        line = without_blanks(line);
    }
    if (!is_legal(line)) {
        line.clear();
        return;
    }
    (void)name_of(line);  // an S-register takes its value here already
    if (source == kUart && take_cmux_command(source)) {
        return;
    }
    run(source, commands_in(line));
}

std::string PlainModel::without_blanks(const std::string& line) const {
    std::string kept;
    bool quoted = false;
    for (const char byte : line) {
        if (static_cast<unsigned char>(byte) == s3_) {
            break;
        }
        quoted = byte == '"' ? !quoted : quoted;
        const bool drops = byte == ' ' && (!quoted || broken_ == Broken::blanks_in_quotes_drop);
        kept += drops ? "" : std::string(1, byte);
    }
    return s3_ == 0 ? kept : kept + static_cast<char>(s3_);
}

std::vector<std::string> PlainModel::commands_in(const std::string& line) const {
    const bool fits =
        line.size() >= 7 && (line.size() <= 10 || broken_ == Broken::splits_every_length);
    if (!fits || holds(line, "+") || !holds_any(line, {"ate", "ATE", "atv", "ATV", "atq", "ATQ"})) {
        return {line};
    }
    if (line.size() <= 8) {
        return {line.substr(0, 4) + "\r\n", "AT" + line.substr(4, 2) + "\r\n"};
    }
    return {"AT" + line.substr(2, 2) + "\r\n", "AT" + line.substr(4, 2) + "\r\n",
            "AT" + line.substr(6, 2) + "\r\n"};
}

// --- what a line is called, and the settings in it

std::string PlainModel::name_of(const std::string& line) {
    std::string name;
    for (const char byte : line) {
        if (byte == '\r' || byte == '\n' || byte == '*' || byte == '=' || byte == '?') {
            break;
        }
        if (byte >= '0' && byte <= '9') {
            if (!digit_belongs(line)) {
                break;
            }
            name += byte;
            continue;
        }
        name += byte;
        const auto value = static_cast<unsigned char>(byte);
        if (value == s3_ || value == s4_) {
            break;
        }
    }
    return name;
}

// The name is looked at anew for each command, and a register that the line sets counts at once.
bool PlainModel::is_one_of(const std::string& line, const std::vector<std::string>& names) {
    return std::any_of(names.begin(), names.end(),
                       [&](const std::string& name) { return small(name_of(line)) == name; });
}

bool PlainModel::digit_belongs(const std::string& line) {
    if (begins(line, "ati")) {
        return true;
    }
    if (begins(line, "ats")) {
        return takes_register(line);
    }
    return begins(line, "at+ws") || begins(line, "at+cv") || begins(line, "at+mai2sy");
}

// False: more than three digits.
bool PlainModel::takes_register(const std::string& line) {
    const auto equals = line.find('=');
    const auto end = s3_ == 0 ? line.size() : line.find(static_cast<char>(s3_));
    if (equals == std::string::npos || end == std::string::npos) {
        return true;
    }
    if (static_cast<long>(end) - static_cast<long>(equals) > 4) {
        return false;
    }
    const auto value = static_cast<unsigned>(std::atoi(line.c_str() + equals + 1));
    if (value < 128 && line[3] == '3') {
        s3_ = value;
    }
    if (value < 128 && line[3] == '4') {
        s4_ = value;
    }
    return true;
}

void PlainModel::note_settings(const std::string& line) {
    for (const char* word : {"e0", "e1", "E0", "E1"}) {
        if (holds(line, word)) {
            echoes_ = word[1] == '1';
            return;
        }
    }
}

// --- sending, and waiting for the answer

void PlainModel::run(int source, std::vector<std::string> commands) {
    Port& port = ports_[at(port_of(source))];
    while (!commands.empty()) {
        const std::string command = commands.front();
        commands.erase(commands.begin());
        send(port_of(source), source, command);
        if (port.asker == source) {
            port.rest = commands;
            return;
        }
    }
    lines_[at(source)].clear();
}

void PlainModel::send(int port, int source, const std::string& line) {
    Port& from = ports_[at(port)];
    if (from.asker >= 0) {
        is_open_ = true;
        return;
    }
    if (!is_one_of(line, kPlatformCommands)) {
        send_to_cp(port, line);
        return wait(port, source);
    }
    if (small(name_of(line)) == "at+gtqxdmlog" && holds(line, "=1")) {
        is_open_ = true;  // the log goes elsewhere, and the test reads it
    }
    if (is_one_of(line, kBothCommands)) {
        seen_.channels[at(port)].push_back(line);
        note_settings(lines_[at(source)]);
    }
    if (from.mode != 0 && from.mode != 5) {
        return;
    }
    from.last = line;
    if (!world_.platform) {
        return send_without_platform(port, source, line);
    }
    pack(port, 1, line);
    wait(port, source);
}

void PlainModel::send_without_platform(int port, int source, const std::string& line) {
    if (!is_one_of(line, kWorthWaiting)) {
        send_to_cp(port, line);
        return wait(port, source);
    }
    ++times_held_;
    if (port != kUart) {
        say(port, kNotRunning);
    }
}

void PlainModel::send_to_cp(int port, const std::string& line) {
    seen_.channels[at(port)].push_back(line);
    ports_[at(port)].last = line;
    ports_[at(port)].awaits_result = true;
}

void PlainModel::pack(int port, unsigned kind, const std::string& payload) {
    seen_.platform[at(port)] += pack_bytes(kind, payload, payload.size());
    const bool ends_in_crlf = payload.ends_with("\r\n");
    ports_[at(port)].kept =
        up_to_nul(ends_in_crlf ? payload.substr(0, payload.size() - 1) : payload);
}

void PlainModel::wait(int port, int source) {
    if (!multiplexes_) {
        ports_[at(port)].asker = source;
    }
}

void PlainModel::release(int port) {
    Port& waiting = ports_[at(port)];
    if (waiting.asker < 0) {
        return;
    }
    const int source = std::exchange(waiting.asker, -1);
    run(source, std::exchange(waiting.rest, {}));
    if (waiting.asker != source) {
        done(source);
    }
}

// --- what goes out to the host

void PlainModel::to_at_port(const std::string& text) {
    if (world_.pcie) {
        seen_.hosts[kPipe] += text;
    } else if (diverted_ && client_ >= 0) {
        seen_.clients[at(client_)].push_back(text);
    } else {
        seen_.hosts[kAt] += text;
    }
}

void PlainModel::to_host(int port, const std::string& text) {
    if (port == kAt) {
        to_at_port(text);
    } else {
        seen_.hosts[at(port)] += text;
    }
}

}  // namespace model
