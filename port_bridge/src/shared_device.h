// What the readers of a shared descriptor do with it: open, read, and carry its control lines. Each
// takes the device's mutex itself, but open_device, which needs none.
#pragma once

#include <pthread.h>

#include "descriptors.h"
#include "thread_info.h"

// One end of a bridge direction, as a thread_info_t names it.
struct DeviceEnd {
    const char* path;
    int* slot;
    pthread_mutex_t* mutex;
};

[[nodiscard]] DeviceEnd source_of(const thread_info_t& info);
[[nodiscard]] DeviceEnd destination_of(const thread_info_t& info);
// The second destination on PCIe; only of a record that has one.
[[nodiscard]] DeviceEnd pipe_of(const thread_info_t& info);

// Opens the device read-write; the descriptor or -1 with errno. The caller stores it.
int open_device(const char* path);
// Stores a newly opened descriptor. The device's reader only.
void store_device(const DeviceEnd& device, int fd);
[[nodiscard]] int load_device(const int* slot, pthread_mutex_t* mutex);
[[nodiscard]] int load_device(const DeviceEnd& device);

// What read_device returns when the slot no longer holds the descriptor that was polled.
inline constexpr int kDeviceGone = -2;
// One read of at most kDeviceReadSize bytes from the descriptor that was polled: the count, -1 on
// an error, kDeviceGone.
int read_device(const DeviceEnd& device, int polled_fd, char* buffer);

// The modem-control word (TIOCM bits) of a device. A failure is traced; `word` then stays as it is.
void get_control_lines(const DeviceEnd& device, int& word);
// 0, or the errno of the failure.
int set_control_lines(const DeviceEnd& device, int word);
