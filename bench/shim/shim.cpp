// Loaded before the daemon, this gives the simulated module what a pty cannot: a modem-control
// word, POLLPRI, the receive intent, packet channels, and faults on demand. It knows nothing of the
// daemon and passes on whatever does not concern one of the module's devices.
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "device_state.h"
#include "port_modes.h"
#include "shim_parts.h"
#include "shim_pauses.h"
#include "shim_record.h"
#include "shim_sockets.h"

#ifndef __clang__
// libc declares poll's array as written only; it is read here as the kernel reads it.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

bench::ModuleState* bench::g_state = nullptr;

namespace {

using bench::DeviceState;
using bench::g_state;
using bench::kDevicePaths;
using bench::kMaxDescriptors;
using bench::Word;

constexpr unsigned long kQueueReceiveIntent = 0x4004C300;
constexpr std::size_t kMaxPolled = 32;
constexpr int kNoDevice = 0;

// 1 + index of the device a descriptor belongs to, below 0 for a copy of another descriptor; 0 for
// what is no device's.
std::array<std::atomic<int>, kMaxDescriptors> g_device_of;
std::array<int, kDevicePaths.size()> g_wake;

DeviceState* device_of(int fd) {
    if (fd < 0 || fd >= kMaxDescriptors || g_state == nullptr) {
        return nullptr;
    }
    const int tag = g_device_of[static_cast<std::size_t>(fd)].load();
    return tag == kNoDevice ? nullptr
                            : &g_state->devices[static_cast<std::size_t>(std::abs(tag) - 1)];
}

bool is_copy(int fd) {
    return g_device_of[static_cast<std::size_t>(fd)].load() < 0;
}

std::size_t index_of(const DeviceState* device) {
    return static_cast<std::size_t>(device - g_state->devices.data());
}

void remember(int fd, int tag) {
    if (fd >= 0 && fd < kMaxDescriptors) {
        g_device_of[static_cast<std::size_t>(fd)].store(tag);
    }
}

void copy_tag(int from, int to) {
    const DeviceState* device = device_of(from);
    remember(to, device == nullptr ? kNoDevice : -1 - static_cast<int>(index_of(device)));
}

// One use of an armed fault: true when this call is to fail.
bool take_fault(Word& count) {
    std::uint32_t left = count.load();
    while (left != 0) {
        if (left == bench::kForEver || count.compare_exchange_weak(left, left - 1)) {
            return true;
        }
    }
    return false;
}

int fail(std::uint32_t error) {
    errno = static_cast<int>(error);
    return -1;
}

int device_tag(const char* path) {
    if (g_state == nullptr || path == nullptr) {
        return kNoDevice;
    }
    for (std::size_t index = 0; index < kDevicePaths.size(); ++index) {
        if (kDevicePaths[index] == path) {
            return static_cast<int>(index) + 1;
        }
    }
    return kNoDevice;
}

// A channel that keeps message bounds is a sequenced-packet socket at the device's path.
int open_channel(const char* path, int flags) {
    const int type = SOCK_SEQPACKET | ((flags & O_CLOEXEC) != 0 ? SOCK_CLOEXEC : 0);
    const int fd = socket(AF_UNIX, type, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        return fd;
    }
    NEXT(close)(fd);
    return fail(ENODEV);
}

bool is_socket(const char* path) {
    struct stat status {};
    return stat(path, &status) == 0 && S_ISSOCK(status.st_mode);
}

// `really` opens what is not a packet channel.
template <typename Open>
int open_device(const char* path, int flags, Open really) {
    const bench::RandomPauses pauses;
    const int tag = device_tag(path);
    if (tag == kNoDevice) {
        const int fd = really();
        remember(fd, kNoDevice);
        return fd;
    }
    const auto index = static_cast<std::size_t>(tag - 1);
    DeviceState& device = g_state->devices[index];
    const std::int64_t begun = bench::record_time();
    int fd = -1;
    if (take_fault(device.open_refusals)) {
        fail(device.open_error.load());
    } else {
        fd = is_socket(path) ? open_channel(path, flags) : really();
    }
    if (fd >= 0) {
        remember(fd, tag);
        device.polls_since_open = 0;
        ++device.opens;
    }
    bench::record_open(index, begun, fd);
    return fd;
}

mode_t mode_argument(int flags, va_list arguments) {
    return (flags & (O_CREAT | __O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

// The intent's argument is a size or points at one. What is not a plausible size is read by the
// kernel, into a pipe: it refuses a bad address instead of ending the process.
std::uint32_t intent_size(void* argument) {
    constexpr std::uintptr_t kLargestSize = 1 << 20;
    const auto value = reinterpret_cast<std::uintptr_t>(argument);
    if (value <= kLargestSize) {
        return static_cast<std::uint32_t>(value);
    }
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return 0;
    }
    std::uint32_t size = 0;
    const bool readable = NEXT(write)(ends[1], argument, sizeof size) == sizeof size &&
                          NEXT(read)(ends[0], &size, sizeof size) == sizeof size;
    NEXT(close)(ends[0]);
    NEXT(close)(ends[1]);
    return readable ? size : 0;
}

int take_intent(DeviceState& device, std::uint32_t size) {
    const int result = take_fault(device.intent_refusals) ? fail(EIO) : 0;
    if (result == 0) {
        device.intent_size = size;
        ++device.intents;
    }
    bench::record_intent(index_of(&device), size, result);
    return result;
}

int control_device(DeviceState& device, unsigned long request, void* argument) {
    switch (request) {
        case TIOCMGET:
            *static_cast<int*>(argument) = static_cast<int>(device.modem_bits.load());
            ++device.modem_gets;
            bench::record_lines(index_of(&device), false, device.modem_bits.load());
            return 0;
        case TIOCMSET:
            device.modem_bits = static_cast<std::uint32_t>(*static_cast<int*>(argument));
            ++device.modem_sets;
            bench::record_lines(index_of(&device), true, device.modem_bits.load());
            return 0;
        default:
            return take_intent(device, intent_size(argument));
    }
}

// What was raised on demand and concerns this poll entry.
short take_pending(DeviceState& device, short wanted) {
    const auto always = static_cast<std::uint32_t>(POLLERR | POLLHUP | POLLNVAL);
    const std::uint32_t mask = always | static_cast<unsigned short>(wanted);
    return static_cast<short>(device.pending_events.fetch_and(~mask) & mask);
}

void drain(int fd) {
    std::array<char, 64> bytes;
    while (NEXT(read)(fd, bytes.data(), bytes.size()) > 0) {
    }
}

// A poll set with the wake-up pipes of its devices behind the caller's entries.
struct Widened {
    std::array<pollfd, kMaxPolled + kDevicePaths.size()> entries{};
    nfds_t count = 0;
};

bool has_device(const pollfd* fds, nfds_t count) {
    return std::any_of(fds, fds + count, [](const pollfd& entry) { return device_of(entry.fd); });
}

Widened widen(const pollfd* fds, nfds_t count) {
    Widened set;
    std::copy(fds, fds + count, set.entries.begin());
    set.count = count;
    for (nfds_t at = 0; at < count; ++at) {
        if (const DeviceState* device = device_of(fds[at].fd)) {
            set.entries[set.count++] = {g_wake[index_of(device)], POLLIN, 0};
        }
    }
    return set;
}

// `wait(entries, count, at_once)` is poll or ppoll. Begins again when only a wake-up pipe spoke and
// nothing concerned the caller.
template <typename Wait>
int poll_devices(pollfd* fds, nfds_t count, Wait wait) {
    for (nfds_t at = 0; at < count; ++at) {
        if (DeviceState* device = device_of(fds[at].fd)) {
            ++device->polls;
            ++device->polls_since_open;
        }
    }
    for (;;) {
        std::array<short, kMaxPolled> pending{};
        bool at_once = false;
        for (nfds_t at = 0; at < count; ++at) {
            if (DeviceState* device = device_of(fds[at].fd)) {
                pending[at] = take_pending(*device, fds[at].events);
                at_once = at_once || pending[at] != 0;
            }
        }
        Widened set = widen(fds, count);
        const int result = wait(set.entries.data(), set.count, at_once);
        if (result < 0) {
            return result;
        }
        bool woken = false;
        for (nfds_t at = count; at < set.count; ++at) {
            if (set.entries[at].revents != 0) {
                drain(set.entries[at].fd);
                woken = true;
            }
        }
        int spoke = 0;
        for (nfds_t at = 0; at < count; ++at) {
            fds[at].revents = static_cast<short>(set.entries[at].revents | pending[at]);
            spoke += fds[at].revents != 0 ? 1 : 0;
            if (const DeviceState* device = device_of(fds[at].fd)) {
                bench::record_poll(index_of(device), fds[at].revents);
            }
        }
        if (spoke != 0 || !woken) {
            return spoke;
        }
    }
}

ssize_t write_device(DeviceState& device, int fd, const void* buffer, std::size_t size) {
    ++device.write_calls;
    if (take_fault(device.write_refusals)) {
        return fail(device.write_error.load());
    }
    const std::uint32_t limit = device.write_limit.load();
    const std::size_t taken = limit == 0 ? size : std::min<std::size_t>(size, limit);
    const ssize_t sent = NEXT(send)(fd, buffer, taken, MSG_NOSIGNAL);
    if (sent >= 0 || errno != ENOTSOCK) {
        return sent;
    }
    return NEXT(write)(fd, buffer, taken);
}

__attribute__((constructor)) void enter() {
    unsetenv("LD_PRELOAD");  // shells and other children are none of the module's business
    bench::begin_recording();
    bench::begin_pauses();
    setvbuf(stdout, nullptr, _IOLBF, 0);
    bench::find_modes();
    for (std::size_t index = 0; index < g_wake.size(); ++index) {
        std::array<char, 64> path;
        snprintf(path.data(), path.size(), "%s%zu", bench::kWakePrefix, index);
        g_wake[index] = NEXT(open)(path.data(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    }
    const int fd = NEXT(open)(bench::kStatePath, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    void* mapped =
        mmap(nullptr, sizeof(bench::ModuleState), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    NEXT(close)(fd);
    if (mapped != MAP_FAILED) {
        g_state = static_cast<bench::ModuleState*>(mapped);
    }
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_argument(flags, arguments);
    va_end(arguments);
    return open_device(path, flags, [&] { return NEXT(open)(path, flags, mode); });
}

int open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_argument(flags, arguments);
    va_end(arguments);
    return open_device(path, flags, [&] { return NEXT(open64)(path, flags, mode); });
}

int __open_2(const char* path, int flags) {
    return open(path, flags);
}
int __open64_2(const char* path, int flags) {
    return open64(path, flags);
}

int openat(int folder, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_argument(flags, arguments);
    va_end(arguments);
    return open_device(path, flags, [&] { return NEXT(openat)(folder, path, flags, mode); });
}

int close(int fd) {
    const bench::RandomPauses pauses;
    if (DeviceState* device = device_of(fd)) {
        if (!is_copy(fd)) {
            ++device->closes;
            bench::record_close(index_of(device));
        }
        remember(fd, kNoDevice);
    }
    bench::close_connection(fd);
    return NEXT(close)(fd);
}

int dup(int fd) noexcept {
    const int copy = NEXT(dup)(fd);
    copy_tag(fd, copy);
    return copy;
}

int dup2(int fd, int to) noexcept {
    const int copy = NEXT(dup2)(fd, to);
    copy_tag(fd, copy);
    return copy;
}

int dup3(int fd, int to, int flags) noexcept {
    const int copy = NEXT(dup3)(fd, to, flags);
    copy_tag(fd, copy);
    return copy;
}

int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    DeviceState* device = device_of(fd);
    const bool ours = request == TIOCMGET || request == TIOCMSET || request == kQueueReceiveIntent;
    if (device != nullptr && ours) {
        return control_device(*device, request, argument);
    }
    return NEXT(ioctl)(fd, request, argument);
}

int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    DeviceState* device = device_of(fd);
    if (device != nullptr && command == F_SETFL && take_fault(device->control_refusals)) {
        return fail(device->control_error.load());
    }
    const int result = NEXT(fcntl)(fd, command, argument);
    if (command == F_DUPFD || command == F_DUPFD_CLOEXEC) {
        copy_tag(fd, result);
    }
    return result;
}

int fcntl64(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return fcntl(fd, command, argument);
}

int poll(pollfd* fds, nfds_t count, int timeout) {
    const bench::RandomPauses pauses;
    bench::publish_modes();
    if (g_state == nullptr || count > kMaxPolled || !has_device(fds, count)) {
        const int spoke = NEXT(poll)(fds, count, timeout);
        if (spoke > 0 && bench::is_recording()) {
            bench::record_hang_ups(fds, count);
        }
        return spoke;
    }
    return poll_devices(fds, count, [timeout](pollfd* set, nfds_t size, bool at_once) {
        return NEXT(poll)(set, size, at_once ? 0 : timeout);
    });
}

int __poll_chk(pollfd* fds, nfds_t count, int timeout, std::size_t /*bytes*/) {
    return poll(fds, count, timeout);
}

int ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask) {
    const bench::RandomPauses pauses;
    if (g_state == nullptr || count > kMaxPolled || !has_device(fds, count)) {
        return NEXT(ppoll)(fds, count, timeout, mask);
    }
    return poll_devices(fds, count, [&](pollfd* set, nfds_t size, bool at_once) {
        const timespec none{};
        return NEXT(ppoll)(set, size, at_once ? &none : timeout, mask);
    });
}

int __ppoll_chk(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask,
                std::size_t /*bytes*/) {
    return ppoll(fds, count, timeout, mask);
}

ssize_t read(int fd, void* buffer, std::size_t size) {
    const bench::RandomPauses pauses;
    DeviceState* device = device_of(fd);
    if (device == nullptr) {
        return NEXT(read)(fd, buffer, size);
    }
    const ssize_t got = take_fault(device->read_refusals) ? fail(device->read_error.load())
                                                          : NEXT(read)(fd, buffer, size);
    bench::record_read(index_of(device), buffer, got);
    return got;
}

ssize_t __read_chk(int fd, void* buffer, std::size_t size, std::size_t /*bytes*/) {
    return read(fd, buffer, size);
}

ssize_t write(int fd, const void* buffer, std::size_t size) {
    const bench::RandomPauses pauses;
    DeviceState* device = device_of(fd);
    if (device == nullptr) {
        return NEXT(write)(fd, buffer, size);
    }
    bench::publish_modes();
    const bench::RecordedSend call;
    const ssize_t sent = write_device(*device, fd, buffer, size);
    bench::record_write(index_of(device), call.begun(), buffer, size, sent);
    return sent;
}

ssize_t writev(int fd, const iovec* parts, int count) {
    if (device_of(fd) == nullptr || count == 0) {
        return NEXT(writev)(fd, parts, count);
    }
    return write(fd, parts[0].iov_base, parts[0].iov_len);  // a short write is allowed
}

int tcsetattr(int fd, int when, const termios* settings) noexcept {
    DeviceState* device = device_of(fd);
    if (device != nullptr && take_fault(device->settings_refusals)) {
        return fail(device->settings_error.load());
    }
    const int result = NEXT(tcsetattr)(fd, when, settings);
    if (device != nullptr && result == 0) {
        device->last_settings_speed = cfgetospeed(settings);
        ++device->settings;
        bench::record_settings(index_of(device), cfgetospeed(settings));
    }
    return result;
}

}  // extern "C"
