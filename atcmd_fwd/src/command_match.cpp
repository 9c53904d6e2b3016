#include "command_match.h"

#include <strings.h>

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

using Names = std::span<const char* const>;

// Compares one line with many names. The line's name is measured again as long as measuring it
// moves S3 or S4 ("ATS3=84" ends at its "T" from the second time on): the outcome is that of
// measuring it for every entry.
class LineName {
  public:
    explicit LineName(const char* line) : line_(line) {}

    bool is(const char* name) {
        measure();
        if (length_ < 0 || static_cast<std::size_t>(length_) != strlen(name) ||
            strncasecmp(line_, name, static_cast<std::size_t>(length_)) != 0)
            return false;
        puts("vexa_strmatch equal.\r");
        return true;
    }

    bool is_any_of(Names names) {
        for (const char* name : names)
            if (is(name))
                return true;
        return false;
    }

  private:
    void measure() {
        if (settled_)
            return;
        const uint8_t s3 = s3_char();
        const uint8_t s4 = s4_char();
        length_ = get_input_at_prefix_len(line_);
        settled_ = s3 == s3_char() && s4 == s4_char();
    }

    const char* line_;
    int length_ = -1;
    bool settled_ = false;
};

// The first entry is a marker that is never compared.
Names without_first(Names names) {
    return names.subspan(1);
}

bool is_name_in(const char* line, Names names) {
    return line != nullptr && LineName(line).is_any_of(names);
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

int is_single_command_in(const char* line, Names names) {
    return is_name_in(line, names) && strchr(line, ';') == nullptr ? 1 : 0;
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

// What one character means for the name that it stands in or behind.
enum class NamePart { inside, last, behind };

NamePart classify_character(const char* line, char character) {
    switch (character) {
        case kLineFeed:
        case kCarriageReturn:
        case '*':
        case '=':
        case '?':
            return NamePart::behind;
        default:
            break;
    }
    if (character >= '0' && character <= '9')
        return vexa_check_specialstring(line) != 0 ? NamePart::behind : NamePart::inside;
    const auto byte = static_cast<uint8_t>(character);
    return byte == s3_char() || byte == s4_char() ? NamePart::last : NamePart::inside;
}

}  // namespace

int get_input_at_prefix_len(const char* at_cmd) {
    if (at_cmd == nullptr)
        return -1;
    int length = 0;
    while (at_cmd[length] != '\0') {
        const NamePart part = classify_character(at_cmd, at_cmd[length]);
        if (part == NamePart::behind)
            return length;
        ++length;
        if (part == NamePart::last)
            return length;
    }
    return length;
}

int vexa_strmatch(const char* inputAtBuf, const char* tableMatchStr) {
    if (inputAtBuf == nullptr || tableMatchStr == nullptr)
        return 0;
    return LineName(inputAtBuf).is(tableMatchStr) ? 1 : 0;
}

int hijack_atcmd_to_app_platform(const char* at_buf, int buf_len) {
    if (buf_len < 0 || !is_name_in(at_buf, without_first(hijack_atcmd_talbe)))
        return 0;
    if (vexa_strmatch(at_buf, "at+gtqxdmlog") == 1)
        switch_diagnostics_log(at_buf);
    return 1;
}

int forward_exc_atcmd_to_cp_too(const char* at_buf, int buf_len) {
    return buf_len >= 0 && is_name_in(at_buf, without_first(fwd_exc_atcmd_talbe)) ? 1 : 0;
}

int is_input_sms_atcmd(const char* at_buf, int /*buf_len*/) {
    // The mode is entered on CP's prompt only, so a match is traced and nothing else.
    if (is_name_in(at_buf, without_first(smsmode_atcmd_talbe)))
        VEXA_LOG("sms atcmd, wait for the prompt.%d,%d,%d.\r\n", 0, 0, 0);
    return 0;
}

int is_input_hex_atcmd(const char* at_buf, int /*buf_len*/) {
    return is_single_command_in(at_buf, without_first(hexmode_atcmd_talbe));
}

int is_input_cmux_cmd(const char* at_buf, int /*buf_len*/) {
    return is_single_command_in(at_buf, without_first(cmuxmode_atcmd_talbe));
}

int is_input_ppp_atcmd(const char* at_buf, int /*buf_len*/) {
    static constexpr std::array<const char*, 1> kDial = {"atd"};
    return is_single_command_in(at_buf, kDial);
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
    const std::string_view text = text_of(at_buf);
    if (holds(text, "+") || buf_len < kShortest || buf_len > kLongest)
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
    return is_name_in(at_buf, ght_at_table) ? 1 : 0;
}
