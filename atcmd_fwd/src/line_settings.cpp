#include "line_settings.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "input_source.h"
#include "log.h"
#include "shared_int.h"

uint8_t g_ats3_carriage_return_char = 13;
uint8_t g_ats4_line_feed_char = 10;
uint8_t g_ats5_cmd_line_edit_char = 8;
int g_client_ate_status = kEchoOn;
int g_client_atv_status = 1;

namespace {

// ITU-T V.250 6.2.1: S3, S4 and S5 hold a character of 0 to 127.
constexpr unsigned long kFirstBadCharacter = 128;
// From "=" to the terminator: the "=" and at most three digits.
constexpr int kLongestSettingDistance = 4;

// Null for a register that is not a line setting ("ats0", "ats24").
uint8_t* setting_of(char register_digit) {
    switch (register_digit) {
        case '3':
            return &g_ats3_carriage_return_char;
        case '4':
            return &g_ats4_line_feed_char;
        case '5':
            return &g_ats5_cmd_line_edit_char;
        default:
            return nullptr;
    }
}

// "ATSn=value" and the terminator, as the line reads with this S3.
SRegisterLine read_s_register(const char* line, uint8_t s3) {
    const char* equals = strchr(line, '=');
    // With S3 at 0 the text's own end is its first occurrence, so that "ATS3=13" still works.
    const char* end = strchr(line, s3);
    if (equals == nullptr || end == nullptr)
        return {SRegisterLine::Kind::incomplete, 0, nullptr, 0};
    const auto distance = static_cast<int>(end - equals);
    if (distance > kLongestSettingDistance)
        return {SRegisterLine::Kind::too_long, distance, nullptr, 0};
    const unsigned long value = strtoul(equals + 1, nullptr, 10);
    uint8_t* const setting = value < kFirstBadCharacter ? setting_of(line[3]) : nullptr;
    return {SRegisterLine::Kind::whole, distance, setting, static_cast<uint8_t>(value)};
}

int carry_out(const SRegisterLine& line) {
    switch (line.kind) {
        case SRegisterLine::Kind::incomplete:
            VEXA_LOG("we ats illegal ... %d,%d,%d.\n", 0, 0, 0);
            return 0;
        case SRegisterLine::Kind::too_long:
            VEXA_LOG("we ats illegal len ... temp_end-temp_equal:%d,%d,%d.\n", line.distance, 0, 0);
            return -1;
        case SRegisterLine::Kind::whole:
            break;
    }
    if (line.setting != nullptr)
        store_shared(*line.setting, line.value);
    return 0;
}

bool begins_with(const char* line, std::string_view prefix) {
    return strncasecmp(line, prefix.data(), prefix.size()) == 0;
}

// The first of the words that the line holds, in the words' order; null when it holds none.
const char* find_first(const char* line, std::initializer_list<const char*> words) {
    for (const char* word : words)
        if (const char* found = strstr(line, word))
            return found;
    return nullptr;
}

}  // namespace

uint8_t s3_char() {
    return load_shared(g_ats3_carriage_return_char);
}

uint8_t s4_char() {
    return load_shared(g_ats4_line_feed_char);
}

bool is_echo_on() {
    return load_shared(g_client_ate_status) == kEchoOn;
}

int SpecialLine::check() {
    if (kind_ == Kind::unknown)
        kind_ = kind_of(line_);
    if (kind_ != Kind::s_register)
        return kind_ == Kind::digits_in_name ? 0 : -1;
    const int s3 = s3_char();
    if (s3 != read_with_s3_) {
        s_register_ = read_s_register(line_, static_cast<uint8_t>(s3));
        read_with_s3_ = s3;
    }
    return carry_out(s_register_);
}

SpecialLine::Kind SpecialLine::kind_of(const char* line) {
    if (begins_with(line, "ATI"))
        return Kind::digits_in_name;
    if (begins_with(line, "ats"))
        return Kind::s_register;
    for (const std::string_view prefix : {"AT+WS", "at+cv", "at+mai2sy"})
        if (begins_with(line, prefix))
            return Kind::digits_in_name;
    return Kind::ordinary;
}

int vexa_check_specialstring(const char* str) {
    return SpecialLine(str).check();
}

int set_atevq_status_flag(void) {
    const char* line = current_line().text();
    if (const char* echo = find_first(line, {"e0", "e1", "E0", "E1"})) {
        if (echo[1] == '0') {
            store_shared(g_client_ate_status, kEchoOff);
            VEXA_LOG("ate0 got, we disable echo-display....%d,%d,%d.\n", 0, 0, 0);
        } else {
            store_shared(g_client_ate_status, kEchoOn);
        }
        return 0;
    }
    // An ATE with any other value, or none, keeps the setting.
    if (strcasestr(line, "ate") != nullptr)
        VEXA_LOG("ate error value.\r\n.");
    if (const char* verbose = find_first(line, {"v0", "v1", "V0", "V1"})) {
        store_shared(g_client_atv_status, verbose[1] == '0' ? 0 : 1);
        return 0;
    }
    if (strcasestr(line, "atv") != nullptr)
        VEXA_LOG("atv error value.\r\n.");
    return 0;
}

int input_atcmd_ignore_spaceback(const char* at_buf, int at_buf_len, char* at_buf_no_sb,
                                 int* len_without_spaceback) {
    if (at_buf == nullptr || at_buf_no_sb == nullptr || len_without_spaceback == nullptr ||
        at_buf_len <= 0)
        return -1;
    const auto s3 = static_cast<char>(s3_char());
    const char* const end = std::find(at_buf, at_buf + at_buf_len, s3);
    char* out = at_buf_no_sb;
    bool quoted = false;
    for (const char* byte = at_buf; byte != end; ++byte) {
        if (*byte == '"')
            quoted = !quoted;
        if (*byte != ' ' || quoted)
            *out++ = *byte;
    }
    *out++ = s3;
    *out = '\0';
    *len_without_spaceback = static_cast<int>(out - at_buf_no_sb);
    return 0;
}
