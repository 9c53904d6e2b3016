#include "plain_model.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <utility>

namespace model {
namespace {

const std::vector<std::string> kPlatformCommands{
    "at+tpin",
    "at+cpinr",
    "at+ccid",
    "at+csim",
    "at+gtusim",
    "at+cgsn",
    "at+gsn",
    "at+gtesim",
    "at+gtabc",
    "at+ccho",
    "at+cgla",
    "at+cchc",
    "at+cgmr",
    "at+gmr",
    "at+cfsn",
    "at+cgmi",
    "at+gmi",
    "at+cgmm",
    "at+gmm",
    "at+gtusim",
    "at+cesq",
    "at+csq",
    "at+ws46",
    "at+cemode",
    "at+cpwroff",
    "at+reset",
    "at+diagen",
    "at+gtfmode",
    "at+creg",
    "at+cgreg",
    "at+cereg",
    "at+cgreg",
    "at+gtusbmode",
    "at+gtusbdetecten",
    "at+gtpcie",
    "at+gtintfmode",
    "at+mtsm",
    "at+gtgpspower",
    "at+gtgpsepo",
    "at+gtagpsserv",
    "at+gtgps",
    "at+gtgpscfg",
    "at+gtgpsdelaid",
    "at+gtqxdmlog",
    "at+gtloglvl",
    "at+gtnaropen",
    "at+gtcmccdmen",
    "at+gtdataregen",
    "at+gtlpgset",
    "at+bodysaren",
    "at+bodysaron",
    "at+bodysar",
    "at+bodysarclear",
    "at+bodysarst",
    "at+bodysarmode",
    "at+bodysarprofile",
    "at+gtudset",
    "at+gtud",
    "at+gtudcheck",
    "at+gtdelta",
    "at+gtota",
    "at+clvl",
    "at+cmut",
    "at+gtdtmf",
    "at+mavol",
    "at+mmicg",
    "at+mai2sy",
    "at+gtaudmode",
    "at+audplay",
    "at+audrec",
    "at+audrm",
    "at+syscmd",
    "ate",
    "atq",
    "atv",
    "ati9",
    "at+cmee",
    "ats0",
    "ats3",
    "ats4",
    "ats5",
    "ats24",
    "at+gtrndis",
    "at+cgdcont",
    "at+mgauth",
    "at+cgpaddr",
    "at+gtdns",
    "at+gtwwan",
    "at+gtautoconnect",
    "at+gtconnectmode",
    "at+gtwandhcpconf",
    "at+gtautodhcp",
    "at+gtenecm",
    "at+gtmapvlan",
    "at+gtdmzip",
    "at+gtippass",
    "at+gtmpdn",
    "at+gtwake",
    "at+gtusbsleepen",
    "at+gtpmtime",
    "at+slpmode",
    "at+gtdmserv",
    "at+cbwrite",
    "at+cb",
    "at+gtexitapp",
    "at+gtping",
    "at+gtdiagsocket",
    "at+gtmodel",
};

// The platform answers them, and the modem sees them, too.
const std::vector<std::string> kBothCommands{"ate",  "atq",  "atv",   "ats0",   "ats3",
                                             "ats4", "ats5", "ats24", "at+cmee"};

const std::string kNotRunning = "app-plat is not running, plz wait....\r\n";
const std::string kMuxError = "\r\n!!!!!MUX data error!!!!!.\r\n";
constexpr std::size_t kLongestLine = 16384;
constexpr std::size_t kLongestPayload = 4096;
constexpr std::size_t kLongestAnswer = 16384;
constexpr std::size_t kLongestFrame = 127;
constexpr char kFlag = '\xF9';

std::string small(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return text;
}

bool holds(const std::string& text, const std::string& word) {
    return text.find(word) != std::string::npos;
}

bool holds_any(const std::string& text, const std::vector<std::string>& words) {
    return std::any_of(words.begin(), words.end(),
                       [&](const std::string& word) { return holds(text, word); });
}

bool begins(const std::string& text, const std::string& word) {
    return small(text.substr(0, word.size())) == word;
}

std::string up_to_nul(const std::string& bytes) {
    return bytes.substr(0, bytes.find('\0'));
}

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

std::string number_bytes(std::uint32_t number) {
    std::string bytes;
    for (int shift = 0; shift < 32; shift += 8) {
        bytes += static_cast<char>(number >> shift & 0xFF);
    }
    return bytes;
}

// Three heads of 8, 12 and 24 bytes, little-endian, then the payload.
std::string pack_bytes(unsigned kind, const std::string& payload, std::size_t content) {
    std::string bytes = "kcap" + number_bytes(static_cast<std::uint32_t>(44 + payload.size()));
    bytes += std::string(12, '\0') + number_bytes(kind) + std::string(12, '\0');
    return bytes + number_bytes(static_cast<std::uint32_t>(content)) + std::string(4, '\0') +
           payload;
}

std::string port_report(int port) {
    constexpr std::array<std::uint32_t, kPorts> kNumbers{0, 1, 4};
    return pack_bytes(4, number_bytes(kNumbers[static_cast<std::size_t>(port)]), 0);
}

// 3GPP TS 27.010, 5.2.1.6: over address, control and length; bit by bit.
char check_sequence(const std::string& bytes) {
    unsigned rest = 0xFF;
    for (const char byte : bytes) {
        rest ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit) {
            rest = (rest & 1) != 0 ? rest >> 1 ^ 0xE0 : rest >> 1;
        }
    }
    return static_cast<char>(0xFF - rest);
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

PlainModel::PlainModel(bool pcie, Broken broken) : pcie_(pcie), broken_(broken) {}

Seen PlainModel::at_start() {
    Seen seen;
    for (int port = 0; port < kPorts; ++port) {
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
    if (bytes.empty() || (device == kPipe && !pcie_)) {
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
    if (size == 0 || size > kLongestAnswer) {
        is_open_ = true;
        return;
    }
    Port& to = ports_[at(port)];
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
    if (port == kModem) {
        seen_.hosts[kModem] += key;
    } else if (port == kUart) {
        seen_.hosts[kUart] += broken_ == Broken::echo_on_uart ? key : "";
    } else {
        if (diverted_ && client_ >= 0) {
            seen_.clients[at(client_)].push_back(key);
        } else {
            seen_.hosts[kAt] += key;
        }
        seen_.hosts[kPipe] += pcie_ ? key : "";
    }
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
    pack(port, 1, line);
    from.last = line;
    wait(port, source);
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
    if (pcie_) {
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

// --- the multiplexer on the UART

// True: it was one.
bool PlainModel::take_cmux_command(int source) {
    std::string& line = lines_[at(source)];
    if (small(name_of(line)) != "at+cmux" || holds(line, ";")) {
        return false;
    }
    std::string answer = kNotRunning;
    if (holds(line, "=?")) {
        answer = "+CMUX: (0),(0),(1-6),(1-1509),(1-255),(0-5),(2-255),(1-255)";
    } else if (holds(line, "x?") || holds(line, "X?")) {
        answer = "+CMUX: " + parameters_;
    } else if (holds(line, "=0") || holds(line, "=1")) {
        parameters_ = std::string(holds(line, "=0") ? "0" : "1") + ",0,5,31,10,3,30,10";
        multiplexes_ = true;
        ports_[kUart].mode = 5;
        answer = "\r\nOK\r\n";
    }
    seen_.hosts[kUart] += answer;
    line.clear();
    return true;
}

// Only what stands alone is told here: one frame between its own flags, or junk that cannot begin
// one. The daemon takes cut and glued frames as well.
void PlainModel::hear_frame(const std::string& frame) {
    const bool is_junk = frame.find(kFlag) == std::string::npos && (frame[0] & 1) == 0;
    if (is_junk) {
        is_open_ = is_open_ || junk_before_;  // one refusal a run, and a run ends by time, too
        junk_before_ = true;
        return refuse_frame();
    }
    junk_before_ = false;
    const auto length = frame.size() > 3 ? static_cast<unsigned char>(frame[3]) : 0U;
    if (frame.size() < 6 || frame[0] != kFlag || (frame[1] & 1) == 0 || (length & 1) == 0 ||
        frame.size() != 6 + length / 2 || frame.back() != kFlag) {
        is_open_ = true;
        return;
    }
    const auto address = static_cast<unsigned char>(frame[1]);
    const auto control = static_cast<unsigned char>(frame[2]);
    constexpr std::array<unsigned char, 4> kAddresses{0x03, 0x07, 0x0B, 0x13};
    const std::array<std::string, 4> acknowledgements{
        "\xF9\x03\x73\x01\xD7\xF9", "\xF9\x07\x73\x01\x15\xF9", "\xF9\x0B\x73\x01\x92\xF9",
        "\xF9\x13\x3F\x01\x5D\xF9"};
    const auto next = at(std::min(next_channel_, 3));
    const bool is_set_up = (control & 0xEF) == 0x2F && length <= 2;
    if (is_set_up && address == kAddresses[next]) {
        seen_.hosts[kUart] += acknowledgements[next];
        next_channel_ = std::min(next_channel_ + 1, 3);
    } else if (next_channel_ == 3 && control == 0xEF) {
        hear_payload(address, frame.substr(4, length / 2));
    } else {
        refuse_frame();
    }
}

void PlainModel::refuse_frame() {
    seen_.hosts[kUart] += kMuxError;
}

void PlainModel::hear_payload(unsigned char address, const std::string& payload) {
    const bool dials = holds_any(payload, {"atd", "ATD"});
    (dials ? dial_address_ : command_address_) = address;
    if (payload.empty()) {
        return;
    }
    const bool is_command = !dials && holds_any(payload, {"at", "AT"});
    is_open_ = is_open_ || holds(payload, std::string(1, '\0'));
    send(is_command ? kUart : kModem, kUart, payload);
}

void PlainModel::in_frames(unsigned char address, const std::string& text) {
    if (address == 0) {
        return;
    }
    for (std::size_t from = 0; from < text.size(); from += kLongestFrame) {
        const std::string piece = text.substr(from, kLongestFrame);
        const std::string head{static_cast<char>(address - 2), '\xEF',
                               static_cast<char>(piece.size() * 2 + 1)};
        seen_.hosts[kUart] += kFlag + head + piece + check_sequence(head) + kFlag;
    }
}

}  // namespace model
