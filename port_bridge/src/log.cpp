#include "log.h"

#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string_view>

#include "log_text.h"
#include "shared_int.h"
#include "vexa_common_def.h"

int g_qxdm_log = 0;

namespace {

// The text of a second is made once per thread: formatting local time costs more than the rest of
// a log line.
struct StampCache {
    time_t second = -1;
    char text[26] = {};  // with the blank behind it
    std::size_t length = 0;
};
thread_local constinit StampCache t_stamp;

std::string_view time_stamp() {
    timeval now{};
    gettimeofday(&now, nullptr);
    StampCache& stamp = t_stamp;
    if (now.tv_sec == stamp.second)
        return {stamp.text, stamp.length};
    tm local{};
    localtime_r(&now.tv_sec, &local);
    stamp.length = strftime(stamp.text, sizeof(stamp.text), "%Y-%m-%d %H:%M:%S ", &local);
    stamp.second = now.tv_sec;
    return {stamp.text, stamp.length};
}

}  // namespace

bool log_goes_to_diag() {
    return load_shared(g_qxdm_log) == 1;
}

void print_log_line(const char* function, int line, const char* format, ...) {
    LogText text(stdout);
    text.add(time_stamp());
    text.hand_over();
    text.add(function);
    text.add('(');
    text.add_decimal(static_cast<std::size_t>(line));
    text.add("):");
    text.hand_over();
    va_list arguments;
    va_start(arguments, format);
    text.add_formatted(format, arguments);
    va_end(arguments);
}

void print_plain_text(const char* format, ...) {
    LogText text(stdout);
    va_list arguments;
    va_start(arguments, format);
    text.add_formatted(format, arguments);
    va_end(arguments);
}
