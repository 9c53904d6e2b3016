#include "log.h"

#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "shared_int.h"
#include "vexa_common_def.h"

int g_qxdm_log = 0;

namespace {

// The text of a second is made once per thread: formatting local time costs more than the rest of
// a log line.
struct StampCache {
    time_t second = -1;
    char text[26] = {};
};
thread_local constinit StampCache t_stamp;

const char* time_stamp() {
    timeval now{};
    gettimeofday(&now, nullptr);
    if (now.tv_sec == t_stamp.second)
        return t_stamp.text;
    tm local{};
    localtime_r(&now.tv_sec, &local);
    strftime(t_stamp.text, sizeof(t_stamp.text), "%Y-%m-%d %H:%M:%S", &local);
    t_stamp.second = now.tv_sec;
    return t_stamp.text;
}

}  // namespace

bool log_goes_to_diag() {
    return load_shared(g_qxdm_log) == 1;
}

void print_log_line(const char* function, int line, const char* format, ...) {
    printf("%s ", time_stamp());
    printf("%s(%d):", function, line);
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
}
