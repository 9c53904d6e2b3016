#include "plain_rules.h"

#include <cctype>
#include <cstring>

#include "command_tables.h"
#include "world.h"

namespace plain {
namespace {

std::string lower(std::string_view text) {
    std::string all;
    for (const char byte : text)
        all.push_back(byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte + 32) : byte);
    return all;
}

bool begins(const std::string& line, std::string_view prefix) {
    return lower(line.substr(0, prefix.size())) == lower(prefix);
}

bool has(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

// The number at the start of a text as C reads it, or a large one.
unsigned number_at(std::string_view text) {
    constexpr unsigned kLarge = 1'000'000;
    std::size_t at = 0;
    while (at < text.size() && has(" \t\n\v\f\r", text.substr(at, 1))) ++at;
    const bool is_negative = at < text.size() && text[at] == '-';
    if (at < text.size() && (text[at] == '-' || text[at] == '+'))
        ++at;
    unsigned number = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at)
        number = std::min(kLarge, number * 10 + static_cast<unsigned>(text[at] - '0'));
    return is_negative && number > 0 ? kLarge : number;
}

uint32_t word_at(std::string_view bytes, std::size_t offset) {
    uint32_t word = 0;
    memcpy(&word, bytes.data() + offset, sizeof word);
    return word;
}

}  // namespace

std::string until_nul(std::string_view text) {
    return std::string(text.substr(0, text.find('\0')));
}

int digits_in_name(const std::string& line, Settings& settings) {
    if (begins(line, "ati"))
        return 0;
    if (begins(line, "ats")) {
        const std::size_t equals = line.find('=');
        // A terminator of 0 is the text's own end.
        const std::size_t end =
            settings.s3 == 0 ? line.size() : line.find(static_cast<char>(settings.s3));
        if (equals == std::string::npos || end == std::string::npos)
            return 0;
        if (end > equals && end - equals > 4)
            return -1;
        const unsigned value = number_at(std::string_view(line).substr(equals + 1));
        if (value > 127)
            return 0;
        if (line[3] == '3')
            settings.s3 = static_cast<uint8_t>(value);
        if (line[3] == '4')
            settings.s4 = static_cast<uint8_t>(value);
        if (line[3] == '5')
            settings.s5 = static_cast<uint8_t>(value);
        return 0;
    }
    if (begins(line, "at+ws") || begins(line, "at+cv") || begins(line, "at+mai2sy"))
        return 0;
    return -1;
}

int name_length(const std::string& line, Settings& settings) {
    int length = 0;
    for (const char byte : line) {
        if (has("\n\r*=?", std::string_view(&byte, 1)))
            return length;
        if (byte >= '0' && byte <= '9') {
            if (digits_in_name(line, settings) != 0)
                return length;
            ++length;
            continue;
        }
        ++length;
        const auto value = static_cast<uint8_t>(byte);
        if (value == settings.s3 || value == settings.s4)
            return length;
    }
    return length;
}

bool is_name(const std::string& line, const std::string& name, Settings& settings) {
    const auto length = static_cast<std::size_t>(name_length(line, settings));
    return length == name.size() && lower(line.substr(0, length)) == lower(name);
}

int is_platforms(const std::string& line, Settings& settings) {
    if (!is_any(line, hijack_atcmd_talbe, 1, settings))
        return 0;
    const std::size_t equals = line.find('=');
    if (is_name(line, "at+gtqxdmlog", settings) && equals != std::string::npos) {
        if (line.substr(equals + 1, 1) == "1")
            settings.diagnostics_log = 1;
        if (line.substr(equals + 1, 1) == "0")
            settings.diagnostics_log = 0;
    }
    return 1;
}

bool is_legal(std::string_view bytes) {
    if (bytes.empty() || (bytes[0] != 'A' && bytes[0] != 'a'))
        return false;
    return bytes.size() == 1 || bytes[1] == 'T' || bytes[1] == 't';
}

bool is_finished(std::string_view bytes, uint8_t s3) {
    if (bytes == "A/" || bytes == "a/")
        return true;
    if (bytes.empty())
        return false;
    const auto last = static_cast<uint8_t>(bytes.back());
    if (last == 13 || last == 26 || last == s3)
        return true;
    return bytes.size() >= 3 && last == 10 && static_cast<uint8_t>(bytes[bytes.size() - 2]) == s3;
}

int combination(const std::string& line, int length) {
    if (has(line, "+") || length < 7 || length > 10)
        return 0;
    for (const char* basic : {"ate", "ATE", "atv", "ATV", "atq", "ATQ"})
        if (has(line, basic))
            return 2;
    return 0;
}

bool ends_sms(std::string_view bytes) {
    return !bytes.empty() && (bytes.back() == 0x1A || bytes.back() == 0x1B);
}

bool ends_hex(std::string_view bytes) {
    if (bytes.empty())
        return false;
    return bytes.back() == 0x1A || (bytes.size() > 3 && bytes.ends_with("+++"));
}

bool enters_ppp(const std::string& answer, const std::string& last_line) {
    return has(answer, "CONNECT") && begins(last_line, "atd") && !has(last_line, ";");
}

std::string without_spaces(std::string_view line, uint8_t s3) {
    std::string kept;
    bool is_inside_quotes = false;
    for (const char byte : line) {
        if (static_cast<uint8_t>(byte) == s3)
            break;
        if (byte == '"')
            is_inside_quotes = !is_inside_quotes;
        if (byte == ' ' && !is_inside_quotes)
            continue;
        kept += byte;
    }
    kept += static_cast<char>(s3);
    return kept;
}

std::vector<std::string> combined_commands(std::string_view line) {
    const std::string text(line);
    std::vector<std::string> all;
    if (text.size() < 7 || text.size() > 10)
        return all;
    all.push_back((text.size() > 8 ? "AT" + text.substr(2, 2) : text.substr(0, 4)) + "\r\n");
    all.push_back("AT" + text.substr(4, 2) + "\r\n");
    if (text.size() > 8)
        all.push_back("AT" + text.substr(6, 2) + "\r\n");
    return all;
}

EchoVerbose echo_and_verbose(const std::string& line) {
    for (const char* word : {"e0", "e1", "E0", "E1"})
        if (has(line, word))
            return {word[1] == '1', {}};
    for (const char* word : {"v0", "v1", "V0", "V1"})
        if (has(line, word))
            return {{}, word[1] == '1'};
    return {};
}

std::optional<std::vector<std::string>> split_packs(std::string_view bytes) {
    constexpr std::size_t kHeads = 8 + 12 + 24;
    std::vector<std::string> all;
    while (!bytes.empty()) {
        if (bytes.size() < kHeads || !bytes.starts_with("kcap"))
            return {};
        const std::size_t length = word_at(bytes, 4);
        if (length < kHeads || length > bytes.size())
            return {};
        all.emplace_back(bytes.substr(kHeads, length - kHeads));
        bytes.remove_prefix(length);
    }
    return all;
}

std::vector<std::string> payloads(std::string_view bytes) {
    const auto all = split_packs(bytes);
    HOLDS(all.has_value());
    std::size_t at = 0;
    for (const std::string& payload : *all) {
        HOLDS(word_at(bytes, at + 20) == 1 || word_at(bytes, at + 20) == 2);  // command, data
        HOLDS(word_at(bytes, at + 36) == payload.size());
        at += 44 + payload.size();
    }
    return *all;
}

uint8_t frame_check(const std::string& head) {
    unsigned check = 0xFF;
    for (const char byte : head) {
        check ^= static_cast<uint8_t>(byte);
        for (int bit = 0; bit < 8; ++bit)
            check = (check & 1) != 0 ? (check >> 1) ^ 0xE0 : check >> 1;
    }
    return static_cast<uint8_t>(0xFF - check);
}

std::string frame(uint8_t address, uint8_t control, std::string_view information) {
    std::string head = {static_cast<char>(address), static_cast<char>(control),
                        static_cast<char>(information.size() * 2 + 1)};
    std::string all = "\xF9" + head;
    all += information;
    all += static_cast<char>(frame_check(head));
    all += "\xF9";
    return all;
}

}  // namespace plain
