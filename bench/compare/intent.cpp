// Loaded before the daemon, lets it use a pty as a packet channel: the receive intent, which a pty
// does not know, is granted. Everything else of the daemon is left as it is.
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>

namespace {
constexpr unsigned long kQueueReceiveIntent = 0x4004C300;
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (request == kQueueReceiveIntent)
        return 0;
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}
