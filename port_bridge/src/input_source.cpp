#include "input_source.h"

constinit LockedText g_at_buf_cache[kInputSourceCount];

namespace {
thread_local constinit InputSource t_source = InputSource::modem_port;
}

void bind_input_source(InputSource source) {
    t_source = source;
}

InputSource current_input_source() {
    return t_source;
}

LockedText& current_line() {
    return g_at_buf_cache[static_cast<int>(t_source)];
}
