#include "command_match.h"

#include <strings.h>

#include <cstring>
#include <span>

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

bool holds(const char* text, const char* part) {
    return strstr(text, part) != nullptr;
}

bool holds_any(const char* text, std::initializer_list<const char*> parts) {
    for (const char* part : parts)
        if (holds(text, part))
            return true;
    return false;
}

// The first table entry that is the line's name; null when there is none. The first marker is not
// compared, the last one is.
const char* find_command(std::span<const char* const> table, const char* line) {
    for (const char* entry : table.subspan(1))
        if (vexa_strmatch(line, entry) == 1)
            return entry;
    return nullptr;
}

bool is_ordinary_name_end(char c) {
    return c == kLineFeed || c == kCarriageReturn || c == '*' || c == '=' || c == '?';
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// "at+gtqxdmlog=1" and "=0" switch the log at once, before the platform has seen the line.
void switch_diagnostics_log(const char* line) {
    const char* equals = strchr(line, '=');
    if (equals == nullptr)
        return;
    if (equals[1] == '1')
        store_shared(g_qxdm_log, 1);
    if (equals[1] == '0')
        store_shared(g_qxdm_log, 0);
}

// A mode command in one line with others is theirs to answer, not a mode change.
int stands_alone(std::span<const char* const> table, const char* line) {
    return find_command(table, line) != nullptr && strchr(line, ';') == nullptr ? 1 : 0;
}

}  // namespace

int get_input_at_prefix_len(const char* at_cmd) {
    if (at_cmd == nullptr)
        return -1;
    int length = 0;
    for (; at_cmd[length] != '\0'; ++length) {
        const char c = at_cmd[length];
        if (is_ordinary_name_end(c))
            return length;
        if (is_digit(c) && vexa_check_specialstring(at_cmd) != 0)
            return length;
        const auto byte = static_cast<unsigned char>(c);
        if (!is_digit(c) && (byte == s3_char() || byte == s4_char()))
            return length + 1;
    }
    return length;
}

int vexa_strmatch(const char* inputAtBuf, const char* tableMatchStr) {
    if (inputAtBuf == nullptr || tableMatchStr == nullptr)
        return 0;
    const std::size_t length = strlen(tableMatchStr);
    if (get_input_at_prefix_len(inputAtBuf) != static_cast<int>(length))
        return 0;
    return strncasecmp(inputAtBuf, tableMatchStr, length) == 0 ? 1 : 0;
}

int hijack_atcmd_to_app_platform(const char* at_buf, int buf_len) {
    if (at_buf == nullptr || buf_len < 0)
        return 0;
    const char* entry = find_command(hijack_atcmd_talbe, at_buf);
    if (entry == nullptr)
        return 0;
    if (strcasecmp(entry, "at+gtqxdmlog") == 0)
        switch_diagnostics_log(at_buf);
    return 1;
}

int forward_exc_atcmd_to_cp_too(const char* at_buf, int buf_len) {
    if (at_buf == nullptr || buf_len < 0)
        return 0;
    return find_command(fwd_exc_atcmd_talbe, at_buf) != nullptr ? 1 : 0;
}

int is_input_sms_atcmd(const char* at_buf, int /*buf_len*/) {
    if (at_buf == nullptr)
        return 0;
    // SMS mode begins with CP's prompt, never with the command: a refused +CMGS has no prompt.
    if (find_command(smsmode_atcmd_talbe, at_buf) != nullptr)
        VEXA_LOG("sms atcmd:<%s>,%d,%d.\r\n", at_buf, 0, 0);
    return 0;
}

int is_input_hex_atcmd(const char* at_buf, int /*buf_len*/) {
    return at_buf == nullptr ? 0 : stands_alone(hexmode_atcmd_talbe, at_buf);
}

int is_input_cmux_cmd(const char* at_buf, int /*buf_len*/) {
    return at_buf == nullptr ? 0 : stands_alone(cmuxmode_atcmd_talbe, at_buf);
}

int is_input_ppp_atcmd(const char* at_buf, int /*buf_len*/) {
    if (at_buf == nullptr || vexa_strmatch(at_buf, "atd") == 0)
        return 0;
    return strchr(at_buf, ';') == nullptr ? 1 : 0;
}

int is_input_at_finished(const char* at_buf, int buf_len) {
    if (at_buf == nullptr || buf_len <= 0)
        return 0;
    const auto s3 = static_cast<char>(s3_char());
    const char last = at_buf[buf_len - 1];
    if (last == kCarriageReturn || last == s3 || last == kCtrlZ)
        return 1;
    if (buf_len >= 3 && at_buf[buf_len - 2] == s3 && last == kLineFeed)
        return 1;
    const bool is_repeat = buf_len == 2 && (at_buf[0] == 'A' || at_buf[0] == 'a') && last == '/';
    return is_repeat ? 1 : 0;
}

int is_input_at_legal(const char* at_buf, int buf_len) {
    if (at_buf == nullptr || buf_len <= 0)
        return 0;
    if (at_buf[0] != 'A' && at_buf[0] != 'a')
        return 0;
    if (buf_len == 1)
        return 1;
    return at_buf[1] == 'T' || at_buf[1] == 't' ? 1 : 0;
}

int is_input_combine_atcmd(const char* at_buf, int buf_len) {
    if (at_buf == nullptr || strchr(at_buf, '+') != nullptr || buf_len < 7 || buf_len > 10)
        return 0;
    return holds_any(at_buf, {"ate", "ATE", "atv", "ATV", "atq", "ATQ"}) ? 2 : 0;
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
    // CP's prompt is exactly CR LF '>' and a blank (3GPP TS 27.005 3.5.1).
    return at_buf != nullptr && buf_len == 4 && holds(at_buf, ">") ? 1 : 0;
}

int is_exit_sms_mode(const char* at_buf, int /*buf_len*/) {
    return at_buf != nullptr && holds_any(at_buf, {"+CMGS:", "+CMS ERROR:", "OK"}) ? 1 : 0;
}

int is_enter_ppp_mode(const char* at_buf, int /*buf_len*/, const char* last_at_buf) {
    if (at_buf == nullptr || last_at_buf == nullptr || !holds(at_buf, "CONNECT"))
        return 0;
    if (strncasecmp(last_at_buf, "ATD", 3) != 0)
        return 0;
    // ATD<number>; is a voice call (ITU-T V.250 6.3.1): it never becomes a data connection.
    return strchr(last_at_buf, ';') == nullptr ? 1 : 0;
}

int is_exit_ppp_mode(const char* at_buf, int /*buf_len*/) {
    return at_buf != nullptr && holds(at_buf, "NO CARRIER") ? 1 : 0;
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
    for (const char* entry : ght_at_table)
        if (vexa_strmatch(at_buf, entry) == 1)
            return 1;
    return 0;
}
