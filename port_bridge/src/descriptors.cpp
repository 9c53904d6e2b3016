#include "descriptors.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "mutex_guard.h"

int mdm_fd = -1;
int usb_fd = -1;
int mdm_atport_fd = -1;
int usb_atport_fd = -1;
int usb_atport_fd_pcie = -1;
int mdm_uartport_fd = -1;
int usb_uartport_fd = -1;

pthread_mutex_t mdm_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t usb_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t mdm_atport_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t usb_atport_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t mdm_uartport_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t usb_uartport_mutex = PTHREAD_MUTEX_INITIALIZER;

const char* const usb_file_path = "/dev/at_usb0";
const char* const mhi_file_path = "/dev/mhi_pipe_32";
const char* const glink_file_path = "/dev/at_mdm0";

namespace {

// `wake_fd` is an eventfd made at the reader's first poll; `is_woken` while there is something in
// it. All are guarded by the slot's own mutex, like the slot.
struct DeviceWake {
    const int* slot;
    int wake_fd;
    bool is_woken;
    bool was_hung_up;
};
constinit std::array<DeviceWake, 7> g_wakes = {{
    {&mdm_fd, -1, false, false},
    {&usb_fd, -1, false, false},
    {&mdm_atport_fd, -1, false, false},
    {&usb_atport_fd, -1, false, false},
    {&usb_atport_fd_pcie, -1, false, false},
    {&mdm_uartport_fd, -1, false, false},
    {&usb_uartport_fd, -1, false, false},
}};

DeviceWake* find_wake(const int* slot) {
    for (DeviceWake& wake : g_wakes)
        if (wake.slot == slot)
            return &wake;
    return nullptr;
}

// The slot's wake-up descriptor with nothing pending in it. A wake-up that came before the slot
// held its present number speaks of an earlier one. -1, which poll ignores, without one.
int armed_wake_fd(const int* slot) {
    DeviceWake* wake = find_wake(slot);
    if (wake == nullptr)
        return -1;
    if (wake->wake_fd < 0)
        wake->wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    eventfd_t earlier = 0;
    if (std::exchange(wake->is_woken, false))
        eventfd_read(wake->wake_fd, &earlier);
    return wake->wake_fd;
}

}  // namespace

DevicePoll poll_shared_device(const int* slot, pthread_mutex_t* mutex, short events,
                              int timeout_ms) {
    std::array<pollfd, 2> polled{};
    {
        const MutexGuard guard(mutex);
        if (*slot < 0)
            return {0, 0, -1, true};
        polled[0] = {*slot, events, 0};
        polled[1] = {armed_wake_fd(slot), POLLIN, 0};
    }
    const int result = poll(polled.data(), polled.size(), timeout_ms);
    const int error = errno;
    const MutexGuard guard(mutex);
    // Only the slot's reader, the caller, ever stores a new number: an equal one is the same file.
    const bool closed = *slot != polled[0].fd;
    errno = error;
    if (result < 0)
        return {result, 0, polled[0].fd, closed};
    return {polled[0].revents != 0 ? 1 : 0, polled[0].revents, polled[0].fd, closed};
}

void wake_device_reader(const int* slot) {
    DeviceWake* wake = find_wake(slot);
    if (wake == nullptr || wake->wake_fd < 0)
        return;
    wake->is_woken = true;
    eventfd_write(wake->wake_fd, 1);
}

void note_hang_up(const int* slot) {
    DeviceWake* wake = find_wake(slot);
    if (wake == nullptr)
        return;
    pollfd polled = {*slot, 0, 0};
    if (poll(&polled, 1, 0) > 0 && (polled.revents & (POLLERR | POLLHUP)) != 0)
        wake->was_hung_up = true;
}

bool take_hang_up(const int* slot, pthread_mutex_t* mutex) {
    const MutexGuard guard(mutex);
    DeviceWake* wake = find_wake(slot);
    return wake != nullptr && std::exchange(wake->was_hung_up, false);
}
