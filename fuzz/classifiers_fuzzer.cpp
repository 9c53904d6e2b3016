// The predicates over lines and answers against plain_rules.h. Input: S3, S4, S5, the diagnostics
// log's switch, one byte of odd lengths, the last line (a text), the line.
#include <memory>
#include <string>

#include "combined_line.h"
#include "command_match.h"
#include "command_tables.h"
#include "fuzz_input.h"
#include "input_source.h"
#include "line_settings.h"
#include "plain_rules.h"
#include "shared_int.h"
#include "vexa_common_def.h"
#include "world.h"

namespace {

constexpr std::size_t kLongestLine = 4000;  // the table is walked a hundred times for each

struct Case {
    plain::Settings settings;
    int odd_length;  // 0, negative, or the line's own
    std::string last_line;
    std::string bytes;
    std::string text;  // the bytes up to their first NUL

    [[nodiscard]] const char* line() const { return bytes.c_str(); }
    [[nodiscard]] int length() const { return static_cast<int>(bytes.size()); }
};

void apply(const plain::Settings& settings) {
    store_shared(g_ats3_carriage_return_char, settings.s3);
    store_shared(g_ats4_line_feed_char, settings.s4);
    store_shared(g_ats5_cmd_line_edit_char, settings.s5);
    store_shared(g_qxdm_log, settings.diagnostics_log);
}

plain::Settings present() {
    return {load_shared(g_ats3_carriage_return_char), load_shared(g_ats4_line_feed_char),
            load_shared(g_ats5_cmd_line_edit_char), load_shared(g_qxdm_log)};
}

// Both from the same settings: the same result, and the same settings afterwards.
template <typename Shipped, typename Plain>
void compare(const Case& given, Shipped shipped, Plain plainly) {
    apply(given.settings);
    const int result = shipped();
    plain::Settings settings = given.settings;
    HOLDS(result == static_cast<int>(plainly(settings)));
    HOLDS(present() == settings);
}

void compare_names(const Case& given) {
    const std::string& text = given.text;
    const char* line = given.line();
    compare(
        given, [&] { return vexa_check_specialstring(line); },
        [&](auto& settings) { return plain::digits_in_name(text, settings); });
    compare(
        given, [&] { return get_input_at_prefix_len(line); },
        [&](auto& settings) { return plain::name_length(text, settings); });
    compare(
        given, [&] { return vexa_strmatch(line, given.last_line.c_str()); },
        [&](auto& settings) {
            return plain::is_name(text, plain::until_nul(given.last_line), settings);
        });
}

void compare_tables(const Case& given) {
    const std::string& text = given.text;
    const char* line = given.line();
    const int length = given.odd_length;
    const bool is_single = text.find(';') == std::string::npos;
    compare(
        given, [&] { return hijack_atcmd_to_app_platform(line, length); },
        [&](auto& settings) { return length < 0 ? 0 : plain::is_platforms(text, settings); });
    compare(
        given, [&] { return forward_exc_atcmd_to_cp_too(line, length); },
        [&](auto& settings) {
            return length >= 0 && plain::is_any(text, fwd_exc_atcmd_talbe, 1, settings);
        });
    compare(
        given, [&] { return is_input_sms_atcmd(line, length); },
        [&](auto& settings) {
            plain::is_any(text, smsmode_atcmd_talbe, 1, settings);
            return 0;
        });
    compare(
        given, [&] { return is_input_hex_atcmd(line, length); },
        [&](auto& settings) {
            return plain::is_any(text, hexmode_atcmd_talbe, 1, settings) && is_single;
        });
    compare(
        given, [&] { return is_input_cmux_cmd(line, length); },
        [&](auto& settings) {
            return plain::is_any(text, cmuxmode_atcmd_talbe, 1, settings) && is_single;
        });
    compare(
        given, [&] { return is_input_ppp_atcmd(line, length); },
        [&](auto& settings) { return plain::is_name(text, "atd", settings) && is_single; });
    compare(
        given, [&] { return is_ght_atcmd(line); },
        [&](auto& settings) { return plain::is_any(text, ght_at_table, 0, settings); });
}

void compare_bytes(const Case& given) {
    apply(given.settings);
    const char* line = given.line();
    const int length = given.length();
    const std::string& bytes = given.bytes;
    HOLDS(is_input_at_finished(line, length) == plain::is_finished(bytes, given.settings.s3));
    HOLDS(is_input_at_legal(line, length) == plain::is_legal(bytes));
    HOLDS(is_input_sms_finished(line, length) == plain::ends_sms(bytes));
    HOLDS(is_input_hex_finished(line, length) == plain::ends_hex(bytes));
    HOLDS(is_input_combine_atcmd(line, length) == plain::combination(given.text, length));
    if (given.odd_length <= 0) {
        HOLDS(is_input_at_finished(line, given.odd_length) == 0);
        HOLDS(is_input_at_legal(line, given.odd_length) == 0);
        HOLDS(is_input_sms_finished(line, given.odd_length) == 0);
        HOLDS(is_input_hex_finished(line, given.odd_length) == 0);
    }
}

bool holds(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

void compare_answers(const Case& given) {
    const char* line = given.line();
    const int length = given.length();
    const std::string& text = given.text;
    HOLDS(is_enter_sms_mode(line, length) == (length == 4 && holds(text, ">")));
    HOLDS(is_exit_sms_mode(line, length) ==
          (holds(text, "+CMGS:") || holds(text, "+CMS ERROR:") || holds(text, "OK")));
    HOLDS(is_enter_ppp_mode(line, length, given.last_line.c_str()) ==
          plain::enters_ppp(text, plain::until_nul(given.last_line)));
    HOLDS(is_exit_ppp_mode(line, length) == holds(text, "NO CARRIER"));
    HOLDS(is_enter_hex_mode(line, length) == 1 && is_enter_data_mode(line, length) == 1);
    HOLDS(is_enter_hex_mode_baseon_para(line, length) == 0);
    HOLDS(is_enter_sms_mode_base_on_para(line, length) == 0);
}

void compare_echo_switches(const Case& given) {
    current_line().assign(given.text);
    for (const bool was_on : {false, true}) {
        store_shared(g_client_ate_status, was_on ? kEchoOn : kEchoOff);
        store_shared(g_client_atv_status, was_on ? 1 : 0);
        HOLDS(set_atevq_status_flag() == 0);
        const plain::EchoVerbose wanted = plain::echo_and_verbose(given.text);
        HOLDS(load_shared(g_client_ate_status) ==
              (wanted.echo.value_or(was_on) ? kEchoOn : kEchoOff));
        HOLDS(load_shared(g_client_atv_status) == (wanted.verbose.value_or(was_on) ? 1 : 0));
    }
}

void compare_edits(const Case& given) {
    apply(given.settings);
    const std::unique_ptr<char[]> area(new char[given.bytes.size() + 2]);
    int length = -7;
    const int result =
        input_atcmd_ignore_spaceback(given.line(), given.length(), area.get(), &length);
    HOLDS(result == (given.bytes.empty() ? -1 : 0));
    if (result == 0) {
        const std::string wanted = plain::without_spaces(given.bytes, given.settings.s3);
        HOLDS(std::string(area.get(), static_cast<std::size_t>(length)) == wanted);
        HOLDS(area[wanted.size()] == '\0');
    } else {
        HOLDS(length == -7);
    }
    const CombinedLine combined = split_combined_line(given.bytes);
    const auto wanted = plain::combined_commands(given.bytes);
    HOLDS(static_cast<std::size_t>(combined.count) == wanted.size());
    for (std::size_t i = 0; i < wanted.size(); ++i)
        HOLDS(std::string(combined.commands[i], kCombinedCommandLength) == wanted[i]);
}

// What is asked with nulls instead of lines.
void compare_nothing() {
    HOLDS(get_input_at_prefix_len(nullptr) == -1);
    HOLDS(vexa_strmatch(nullptr, "at") == 0 && vexa_strmatch("at", nullptr) == 0);
    HOLDS(hijack_atcmd_to_app_platform(nullptr, 3) == 0);
    HOLDS(forward_exc_atcmd_to_cp_too(nullptr, 3) == 0);
    HOLDS(is_input_cmux_cmd(nullptr, 3) == 0 && is_input_ppp_atcmd(nullptr, 3) == 0);
    HOLDS(is_input_at_finished(nullptr, 3) == 0 && is_input_at_legal(nullptr, 3) == 0);
    HOLDS(is_input_combine_atcmd(nullptr, 8) == 0 && is_input_sms_finished(nullptr, 3) == 0);
    HOLDS(is_input_hex_finished(nullptr, 3) == 0 && is_enter_sms_mode(nullptr, 4) == 0);
    HOLDS(is_exit_sms_mode(nullptr, 4) == 0 && is_exit_ppp_mode(nullptr, 4) == 0);
    HOLDS(is_enter_ppp_mode("CONNECT", 7, nullptr) == 0);
    HOLDS(is_enter_ppp_mode(nullptr, 7, "ATD") == 0);
    int length = 0;
    char area[8];
    HOLDS(input_atcmd_ignore_spaceback(nullptr, 3, area, &length) == -1);
    HOLDS(input_atcmd_ignore_spaceback("AT", 2, nullptr, &length) == -1);
    HOLDS(input_atcmd_ignore_spaceback("AT", 2, area, nullptr) == -1);
}

Case read_case(const uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    Case given;
    given.settings = {static_cast<uint8_t>(input.byte() & 0x7F),
                      static_cast<uint8_t>(input.byte() & 0x7F),
                      static_cast<uint8_t>(input.byte() & 0x7F), input.byte() & 1};
    const int odd = input.byte() % 4;
    given.last_line = input.text();
    given.bytes = input.rest().substr(0, kLongestLine);
    given.text = plain::until_nul(given.bytes);
    given.odd_length = odd == 0 ? -1 : odd == 1 ? 0 : given.length();
    return given;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const world::Run run;
    const Case given = read_case(data, size);
    compare_names(given);
    compare_tables(given);
    compare_bytes(given);
    compare_answers(given);
    compare_echo_switches(given);
    compare_edits(given);
    apply({});
    compare_nothing();
    return 0;
}
