// The trace channel of the start-up code, beside the log facility.
#pragma once

#include <cstdio>

// Silent as shipped: starting sets it to false.
extern bool port_bridge_log_enabled;
extern FILE* log_file;
void pb_get_log_enabled();

// Writes to log_file and flushes it, only while port_bridge_log_enabled. `format` is a literal.
#define START_TRACE_ERROR(format, ...) START_TRACE("(ERROR):   ", format, __VA_ARGS__)
#define START_TRACE_INFO(format, ...) START_TRACE("(INFO):    ", format, __VA_ARGS__)

#define START_TRACE(kind, format, ...)                                                      \
    do {                                                                                    \
        if (port_bridge_log_enabled)                                                        \
            write_start_trace(kind, __func__, __LINE__, format __VA_OPT__(, ) __VA_ARGS__); \
    } while (false)

void write_start_trace(const char* kind, const char* function, unsigned line, const char* format,
                       ...) __attribute__((format(printf, 4, 5)));
// Before a fatal end: closes log_file when the channel is on.
void close_start_trace();
