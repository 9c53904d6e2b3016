// The one log facility. Any thread, no lock: lines of two threads may interleave.
#pragma once

#include "diag.h"

// Logs one message with the calling function's name and line: to standard output with a time
// stamp, or to the diagnostic channel while g_qxdm_log is 1 (read once per message).
// `format` must be a string literal. The diagnostic channel carries the first three arguments.
#define VEXA_LOG(format, ...)                                                              \
    do {                                                                                   \
        static constexpr vexa_diag_message vexa_log_site = {                               \
            static_cast<uint16_t>(__LINE__), kDiagSubsystem, kDiagLevel, "%s(): " format,  \
            __FILE__};                                                                     \
        log_message(&vexa_log_site, __func__, __LINE__, format __VA_OPT__(, ) __VA_ARGS__); \
    } while (false)

inline constexpr uint16_t kDiagSubsystem = 65;
inline constexpr uint32_t kDiagLevel = 2;

void log_message(const vexa_diag_message* site, const char* function, int line, const char* format,
                 ...) __attribute__((format(printf, 4, 5)));
