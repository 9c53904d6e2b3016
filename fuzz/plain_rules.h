// The rules of the AT language and of the wire records a second time: slow, obvious, and written
// without a look at the code that ships. The fuzzers compare.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plain {

// What a line can change while it is looked at.
struct Settings {
    uint8_t s3 = 13;
    uint8_t s4 = 10;
    uint8_t s5 = 8;
    int diagnostics_log = 0;
    bool operator==(const Settings&) const = default;
};

// `text` ends at its first NUL, as C text does.
std::string until_nul(std::string_view text);

// 0: digits belong to the name; -1: they end it.
int digits_in_name(const std::string& line, Settings& settings);
int name_length(const std::string& line, Settings& settings);
bool is_name(const std::string& line, const std::string& name, Settings& settings);

template <typename Table>
bool is_any(const std::string& line, const Table& table, std::size_t first, Settings& settings) {
    for (std::size_t i = first; i < table.size(); ++i)
        if (is_name(line, table[i], settings))
            return true;
    return false;
}

int is_platforms(const std::string& line, Settings& settings);

bool is_legal(std::string_view bytes);
bool is_finished(std::string_view bytes, uint8_t s3);
int combination(const std::string& line, int length);
bool ends_sms(std::string_view bytes);
bool ends_hex(std::string_view bytes);
bool enters_ppp(const std::string& answer, const std::string& last_line);

std::string without_spaces(std::string_view line, uint8_t s3);
std::vector<std::string> combined_commands(std::string_view line);

struct EchoVerbose {
    std::optional<bool> echo;
    std::optional<bool> verbose;
};
EchoVerbose echo_and_verbose(const std::string& line);

// The payloads of a run of packs for the platform; nothing when the bytes are not whole packs.
std::optional<std::vector<std::string>> split_packs(std::string_view bytes);
// The same, of bytes that must be whole packs of commands or data.
std::vector<std::string> payloads(std::string_view bytes);

// The frame check sequence over address, control and length (3GPP TS 27.010 5.2.1.6), bit by bit.
uint8_t frame_check(const std::string& head);
// A whole frame of the basic option.
std::string frame(uint8_t address, uint8_t control, std::string_view information);

}  // namespace plain
