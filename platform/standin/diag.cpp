// Stand-in for the diagnostics library: every message becomes one line of the file named in
// VEXA_DIAG_LOG, or nothing when that is unset.
#include "diag.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

constexpr int kNotWanted = -2;

int open_sink() {
    const char* path = getenv("VEXA_DIAG_LOG");
    if (path == nullptr || *path == '\0')
        return kNotWanted;
    return open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

int sink() {
    static const int fd = open_sink();
    return fd;
}

// One write(2) a line: appends of two threads or processes do not mix.
void write_line(char* line, std::size_t size, std::size_t length) {
    if (length > size - 2)
        length = size - 2;
    while (length > 0 && (line[length - 1] == '\r' || line[length - 1] == '\n')) --length;
    line[length] = '\n';
    [[maybe_unused]] const ssize_t written = write(sink(), line, length + 1);
}

std::size_t at_least_0(int length) {
    return length < 0 ? 0 : static_cast<std::size_t>(length);
}

}  // namespace

int Diag_LSM_Init(uint8_t* /*environment*/) {
    return sink() == -1 ? 0 : 1;
}

void msg_sprintf(const vexa_diag_message* message, ...) {
    if (sink() < 0)
        return;
    char line[1024];
    const std::string_view path = message->file;
    const std::string_view file = path.substr(path.rfind('/') + 1);
    const std::size_t start =
        at_least_0(snprintf(line, sizeof(line) / 2, "%.*s:%u ", static_cast<int>(file.size()),
                            file.data(), static_cast<unsigned>(message->line)));
    va_list arguments;
    va_start(arguments, message);
    const int length = vsnprintf(line + start, sizeof(line) - start, message->format, arguments);
    va_end(arguments);
    write_line(line, sizeof(line), start + at_least_0(length));
}

void diag_switch_logging(int mode, char* peripheral) {
    if (sink() < 0)
        return;
    char line[128];
    const int length = snprintf(line, sizeof(line), "diag_switch_logging %d %s", mode,
                                peripheral == nullptr ? "-" : peripheral);
    write_line(line, sizeof(line), at_least_0(length));
}
