#include "start_trace.h"

#include <pthread.h>

#include <cstdarg>

bool port_bridge_log_enabled = true;
FILE* log_file = nullptr;

// Reads no configuration, in spite of its name: the channel is off.
void pb_get_log_enabled() {
    port_bridge_log_enabled = false;
}

void write_start_trace(const char* kind, const char* function, unsigned line, const char* format,
                       ...) {
    if (log_file == nullptr)
        return;
    // The thread's id is printed as the pointer that the format names.
    const auto thread = pthread_self();
    fprintf(log_file, "[thread %p] %30s,%3u %s",
            reinterpret_cast<void*>(thread),  // NOLINT(performance-no-int-to-ptr)
            function, line, kind);
    va_list arguments;
    va_start(arguments, format);
    vfprintf(log_file, format, arguments);
    va_end(arguments);
    fflush(log_file);
}

void close_start_trace() {
    if (port_bridge_log_enabled && log_file != nullptr)
        fclose(log_file);
}
