#include "command_match.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>

#include "command_tables.h"
#include "line_settings.h"
#include "log.h"
#include "shared_int.h"
#include "vexa_common_def.h"

namespace {

constexpr char kLineFeed = '\n';
constexpr char kCarriageReturn = '\r';
constexpr char kCtrlZ = 0x1A;
constexpr char kEscape = 0x1B;

// A table of names, and how long each is.
struct Names {
    std::span<const char* const> names;
    std::span<const uint8_t> lengths;

    // Without the first entry, a marker that is never compared.
    [[nodiscard]] constexpr Names without_first() const {
        return {names.subspan(1), lengths.subspan(1)};
    }
};

template <const auto& table>
constexpr auto kLengths = [] {
    std::array<uint8_t, table.size()> lengths{};
    for (std::size_t i = 0; i < table.size(); ++i)
        lengths[i] = static_cast<uint8_t>(std::string_view(table[i]).size());
    return lengths;
}();

template <const auto& table>
constexpr Names kNames = {table, kLengths<table>};

template <const auto&... tables>
constexpr std::size_t kLongestOf = std::max({*std::max_element(std::begin(kLengths<tables>),
                                                               std::end(kLengths<tables>))...});

constexpr std::array<const char*, 1> kDial = {"atd"};
// A name of more characters is in no table.
constexpr std::size_t kLongestName =
    kLongestOf<hijack_atcmd_talbe, fwd_exc_atcmd_talbe, smsmode_atcmd_talbe, hexmode_atcmd_talbe,
               cmuxmode_atcmd_talbe, ght_at_table, kDial>;

char lower(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter | 0x20) : letter;
}

// From the end, because nearly all names begin alike.
bool agree_ignoring_case(const char* one, const char* other, std::size_t length) {
    while (length > 0 && lower(one[length - 1]) == lower(other[length - 1])) --length;
    return length == 0;
}

// What one character means for the name that it stands in or behind.
enum class NamePart : uint8_t { inside, digit, behind };

constexpr std::array<NamePart, 256> kNameParts = [] {
    std::array<NamePart, 256> parts{};
    for (const char digit : std::string_view("0123456789"))
        parts[static_cast<uint8_t>(digit)] = NamePart::digit;
    for (const char end : {'\0', kLineFeed, kCarriageReturn, '*', '=', '?'})
        parts[static_cast<uint8_t>(end)] = NamePart::behind;
    return parts;
}();

// The length of the name at the start of the line, or of so much of it as was looked at: at most
// `most` characters, unless the line may set S-registers further on.
int measure_name(const char* line, int most) {
    SpecialLine special(line);
    uint8_t s3 = s3_char();
    uint8_t s4 = s4_char();
    for (int length = 0; length < most; ++length) {
        const auto byte = static_cast<uint8_t>(line[length]);
        const NamePart part = kNameParts[byte];
        if (part == NamePart::behind)
            return length;
        if (part == NamePart::inside) {
            if (byte == s3 || byte == s4)
                return length + 1;
            continue;
        }
        if (special.check() != 0)
            return length;
        s3 = s3_char();  // the check may have moved them
        s4 = s4_char();
    }
    return most;
}

// Measuring the name of an "ATS" line sets registers at each of its digits.
bool may_set_registers(const char* line) {
    return strncasecmp(line, "ats", 3) == 0;
}

// Compares one line with many names. The line's name is measured again as long as measuring it
// moves S3 or S4 ("ATS3=84" ends at its "T" from the second time on): the outcome is that of
// measuring it for every entry.
class LineName {
  public:
    // Of names that are no longer than `longest`.
    LineName(const char* line, std::size_t longest)
        : line_(line), most_(may_set_registers(line) ? INT_MAX : static_cast<int>(longest) + 1) {}

    bool is(const char* name, std::size_t length) {
        if (!settled_)
            measure();
        if (length_ != length || !agree_ignoring_case(line_, name, length))
            return false;
        puts("vexa_strmatch equal.\r");
        return true;
    }

    bool is_any_of(const Names& table) {
        for (std::size_t i = 0; i < table.names.size(); ++i)
            if (is(table.names[i], table.lengths[i]))
                return true;
        return false;
    }

  private:
    void measure() {
        const uint8_t s3 = s3_char();
        const uint8_t s4 = s4_char();
        length_ = static_cast<std::size_t>(measure_name(line_, most_));
        settled_ = s3 == s3_char() && s4 == s4_char();
    }

    const char* line_;
    int most_;
    std::size_t length_ = 0;
    bool settled_ = false;
};

bool is_name_in(const char* line, const Names& table) {
    return line != nullptr && LineName(line, kLongestName).is_any_of(table);
}

std::string_view text_of(const char* text) {
    return text != nullptr ? std::string_view(text) : std::string_view();
}

bool holds(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

bool holds_any(std::string_view text, std::initializer_list<std::string_view> parts) {
    for (const std::string_view part : parts)
        if (holds(text, part))
            return true;
    return false;
}

int is_single_command_in(const char* line, const Names& table) {
    return is_name_in(line, table) && strchr(line, ';') == nullptr ? 1 : 0;
}

// ASCII letters differ in bit 5 only.
bool is_letter(char given, char upper) {
    return (given & ~0x20) == upper;
}

void switch_diagnostics_log(const char* line) {
    const char* equal = strchr(line, '=');
    if (equal == nullptr)
        return;
    if (equal[1] == '1')
        store_shared(g_qxdm_log, 1);
    if (equal[1] == '0')
        store_shared(g_qxdm_log, 0);
}

}  // namespace

int get_input_at_prefix_len(const char* at_cmd) {
    return at_cmd == nullptr ? -1 : measure_name(at_cmd, INT_MAX);
}

int vexa_strmatch(const char* inputAtBuf, const char* tableMatchStr) {
    if (inputAtBuf == nullptr || tableMatchStr == nullptr)
        return 0;
    const std::size_t length = strlen(tableMatchStr);
    return LineName(inputAtBuf, length).is(tableMatchStr, length) ? 1 : 0;
}

int hijack_atcmd_to_app_platform(const char* at_buf, int buf_len) {
    if (buf_len < 0 || !is_name_in(at_buf, kNames<hijack_atcmd_talbe>.without_first()))
        return 0;
    if (vexa_strmatch(at_buf, "at+gtqxdmlog") == 1)
        switch_diagnostics_log(at_buf);
    return 1;
}

int forward_exc_atcmd_to_cp_too(const char* at_buf, int buf_len) {
    return buf_len >= 0 && is_name_in(at_buf, kNames<fwd_exc_atcmd_talbe>.without_first()) ? 1 : 0;
}

int is_input_sms_atcmd(const char* at_buf, int /*buf_len*/) {
    // The mode is entered on CP's prompt only, so a match is traced and nothing else.
    if (is_name_in(at_buf, kNames<smsmode_atcmd_talbe>.without_first()))
        VEXA_LOG("sms atcmd, wait for the prompt.%d,%d,%d.\r\n", 0, 0, 0);
    return 0;
}

int is_input_hex_atcmd(const char* at_buf, int /*buf_len*/) {
    return is_single_command_in(at_buf, kNames<hexmode_atcmd_talbe>.without_first());
}

int is_input_cmux_cmd(const char* at_buf, int /*buf_len*/) {
    return is_single_command_in(at_buf, kNames<cmuxmode_atcmd_talbe>.without_first());
}

int is_input_ppp_atcmd(const char* at_buf, int /*buf_len*/) {
    return is_single_command_in(at_buf, kNames<kDial>);
}

int is_input_at_finished(const char* at_buf, int buf_len) {
    if (at_buf == nullptr || buf_len <= 0)
        return 0;
    const char s3 = static_cast<char>(s3_char());
    const char last = at_buf[buf_len - 1];
    if (last == kCarriageReturn || last == s3 || last == kCtrlZ)
        return 1;
    if (buf_len >= 3 && at_buf[buf_len - 2] == s3 && last == kLineFeed)
        return 1;
    // ITU-T V.250 5.2.4: the repetition of a line needs no terminator.
    return buf_len == 2 && is_letter(at_buf[0], 'A') && last == '/' ? 1 : 0;
}

int is_input_at_legal(const char* at_buf, int buf_len) {
    if (at_buf == nullptr || buf_len <= 0 || !is_letter(at_buf[0], 'A'))
        return 0;
    return buf_len == 1 || is_letter(at_buf[1], 'T') ? 1 : 0;
}

int is_input_combine_atcmd(const char* at_buf, int buf_len) {
    constexpr int kShortest = 7;
    constexpr int kLongest = 10;
    if (buf_len < kShortest || buf_len > kLongest)
        return 0;
    const std::string_view text = text_of(at_buf);
    if (holds(text, "+"))
        return 0;
    return holds_any(text, {"ate", "ATE", "atv", "ATV", "atq", "ATQ"}) ? 2 : 0;
}

int is_input_sms_finished(const char* at_buf, int buf_len) {
    if (at_buf == nullptr || buf_len <= 0)
        return 0;
    const char last = at_buf[buf_len - 1];
    return last == kCtrlZ || last == kEscape ? 1 : 0;
}

int is_input_hex_finished(const char* at_buf, int buf_len) {
    if (at_buf == nullptr || buf_len <= 0)
        return 0;
    if (at_buf[buf_len - 1] == kCtrlZ)
        return 1;
    return buf_len >= 4 && memcmp(at_buf + buf_len - 3, "+++", 3) == 0 ? 1 : 0;
}

int is_enter_sms_mode(const char* at_buf, int buf_len) {
    constexpr int kPromptLength = 4;  // CR LF "> " (3GPP TS 27.005 3.5.1)
    return buf_len == kPromptLength && holds(text_of(at_buf), ">") ? 1 : 0;
}

int is_exit_sms_mode(const char* at_buf, int /*buf_len*/) {
    return holds_any(text_of(at_buf), {"+CMGS:", "+CMS ERROR:", "OK"}) ? 1 : 0;
}

int is_enter_ppp_mode(const char* at_buf, int /*buf_len*/, const char* last_at_buf) {
    // ";" ends a voice call's number (ITU-T V.250 6.3.1): that is never a data connection.
    if (last_at_buf == nullptr || strncasecmp(last_at_buf, "ATD", 3) != 0 ||
        strchr(last_at_buf, ';') != nullptr)
        return 0;
    return holds(text_of(at_buf), "CONNECT") ? 1 : 0;
}

int is_exit_ppp_mode(const char* at_buf, int /*buf_len*/) {
    return holds(text_of(at_buf), "NO CARRIER") ? 1 : 0;
}

int is_enter_hex_mode(const char* /*at_buf*/, int /*buf_len*/) {
    return 1;
}

int is_enter_data_mode(const char* /*at_buf*/, int /*buf_len*/) {
    return 1;
}

int is_enter_hex_mode_baseon_para(const char* /*at_buf*/, int /*buf_len*/) {
    return 0;
}

int is_enter_sms_mode_base_on_para(const char* /*at_buf*/, int /*buf_len*/) {
    return 0;
}

int is_ght_atcmd(const char* at_buf) {
    return is_name_in(at_buf, kNames<ght_at_table>) ? 1 : 0;
}
