#include "shared_device.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "device_io.h"
#include "log.h"
#include "mutex_guard.h"
#include "shared_int.h"
#include "vexa_common_def.h"

DeviceEnd source_of(const thread_info_t& info) {
    return {info.from_file_path, info.from_fd, info.from_mutex};
}

DeviceEnd destination_of(const thread_info_t& info) {
    return {info.to_file_path, info.to_fd, info.to_mutex};
}

DeviceEnd pipe_of(const thread_info_t& info) {
    return {info.to_file_path_pcie, info.to_fd_pcie, info.to_mutex};
}

int open_device(const char* path) {
    // Never the controlling terminal: a host that hangs up would end the daemon with SIGHUP.
    return open(path, O_RDWR | O_NOCTTY | O_CLOEXEC);
}

void store_device(const DeviceEnd& device, int fd) {
    const MutexGuard guard(device.mutex);
    store_shared(*device.slot, fd);  // some log lines name the number without the lock
}

int load_device(const int* slot, pthread_mutex_t* mutex) {
    const MutexGuard guard(mutex);
    return *slot;
}

int load_device(const DeviceEnd& device) {
    return load_device(device.slot, device.mutex);
}

int read_device(const DeviceEnd& device, int polled_fd, char* buffer) {
    const MutexGuard guard(device.mutex);
    if (*device.slot != polled_fd)
        return kDeviceGone;
    const ssize_t num_read = read(polled_fd, buffer, kDeviceReadSize);
    return num_read < 0 ? -1 : static_cast<int>(num_read);
}

void get_control_lines(const DeviceEnd& device, int& word) {
    int result = 0;
    {
        const MutexGuard guard(device.mutex);
        result = ioctl(*device.slot, TIOCMGET, &word);
    }
    char text[64];
    construct_signal_string(text, sizeof(text), word);
    VEXA_LOG("TIOCMGET on '%s' returned %i, signals=0x%x (%s)\r\n", device.path, result,
             static_cast<unsigned>(word), text);
}

int set_control_lines(const DeviceEnd& device, int word) {
    int result = 0;
    int error = 0;
    {
        const MutexGuard guard(device.mutex);
        result = ioctl(*device.slot, TIOCMSET, &word);
        error = result < 0 ? errno : 0;
    }
    char text[64];
    construct_signal_string(text, sizeof(text), word);
    VEXA_LOG("TIOCMSET on '%s' returned %i, signals=0x%x (%s)\r\n", device.path, result,
             static_cast<unsigned>(word), text);
    return error;
}
