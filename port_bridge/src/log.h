// The one log facility. Any thread, no lock: lines of two threads may interleave.
#pragma once

#include <array>
#include <cstddef>
#include <tuple>

#include "diag.h"
#include "log_text.h"

inline constexpr uint16_t kDiagSubsystem = 65;
inline constexpr uint32_t kDiagLevel = 2;
// The diagnostic channel carries the function's name and at most this many arguments.
inline constexpr std::size_t kDiagArguments = 3;

// Not constexpr on purpose: to reach it makes the message fail to compile. A width or precision
// given as an argument ("%.*s") would take two of the channel's few arguments.
void log_formats_have_no_star();

// A format for the diagnostic channel: cut before the first conversion that has no argument there,
// so that the channel never follows one that was not passed.
template <std::size_t size>
consteval std::array<char, size> diag_format(const char (&format)[size]) {
    std::array<char, size> text{};
    std::size_t conversions = 0;
    for (std::size_t i = 0; i + 1 < size; ++i) {
        const bool is_percent_sign = format[i] == '%' && format[i + 1] == '%';
        if (format[i] == '%' && !is_percent_sign && ++conversions > kDiagArguments + 1)
            break;
        if (format[i] == '*')
            log_formats_have_no_star();
        text[i] = format[i];
        if (is_percent_sign) {
            ++i;
            text[i] = format[i];
        }
    }
    return text;
}

// Whether messages go to the diagnostic channel now: g_qxdm_log is 1.
bool log_goes_to_diag();

// One message on standard output, in three writes: time stamp, function and line, message. Another
// thread's may come between them.
void print_log_line(const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
// Text as it stands, without a stamp, whatever g_qxdm_log says: VEXA_PRINT.
void print_plain_text(const char* format, ...) __attribute__((format(printf, 1, 2)));

// One message on the diagnostic channel; missing arguments are passed as 0.
template <typename... Arguments>
void send_diag_message(const vexa_diag_message* site, const char* function,
                       const Arguments&... arguments) {
    const auto padded = std::tuple_cat(std::tuple<const Arguments&...>(arguments...),
                                       std::array<int, kDiagArguments>{});
    msg_sprintf(site, function, std::get<0>(padded), std::get<1>(padded), std::get<2>(padded));
}

// A diagnostic message of its own, whatever g_qxdm_log says.
#define VEXA_DIAG(format, ...)                                                                 \
    do {                                                                                       \
        static constexpr auto vexa_diag_text = diag_format("%s(): " format);                   \
        static constexpr vexa_diag_message vexa_diag_site = {static_cast<uint16_t>(__LINE__),  \
                                                             kDiagSubsystem, kDiagLevel,       \
                                                             vexa_diag_text.data(), __FILE__}; \
        send_diag_message(&vexa_diag_site, __func__ __VA_OPT__(, ) __VA_ARGS__);               \
    } while (false)

// Logs one message with the calling function's name and line: to standard output with a time
// stamp, or to the diagnostic channel while g_qxdm_log is 1 (read once per message).
// `format` must be a string literal.
#define VEXA_LOG(format, ...)                                                      \
    do {                                                                           \
        static_assert(is_log_format(format));                                      \
        if (log_goes_to_diag())                                                    \
            VEXA_DIAG(format __VA_OPT__(, ) __VA_ARGS__);                          \
        else                                                                       \
            print_log_line(__func__, __LINE__, format __VA_OPT__(, ) __VA_ARGS__); \
    } while (false)

// Prints plain text on standard output, without a stamp and whatever g_qxdm_log says.
// `format` must be a string literal.
#define VEXA_PRINT(format, ...)                              \
    do {                                                     \
        static_assert(is_log_format(format));                \
        print_plain_text(format __VA_OPT__(, ) __VA_ARGS__); \
    } while (false)
