// The shared device descriptors: opened by the reader of the device, used by everybody.
#pragma once

#include <pthread.h>

// -1 means closed. A descriptor's mutex is held for each system call on it, or one whole write: by
// its reader (store after open, read, TIOCMGET), by whoever writes to it or sets its modem-control
// lines, and by close_fd_mutexed (device_io.h). Never held across a poll; never two of them at
// once.
extern int mdm_fd;              // modem side of the main pair
extern int usb_fd;              // host side of the main pair
extern int mdm_atport_fd;       // /dev/smd7
extern int usb_atport_fd;       // /dev/at_usb1
extern int usb_atport_fd_pcie;  // /dev/mhi_pipe_32, shares usb_atport_mutex
extern int mdm_uartport_fd;     // /dev/smd8
extern int usb_uartport_fd;     // /dev/ttyMSM1

extern pthread_mutex_t mdm_mutex;
extern pthread_mutex_t usb_mutex;
extern pthread_mutex_t mdm_atport_mutex;
extern pthread_mutex_t usb_atport_mutex;
extern pthread_mutex_t mdm_uartport_mutex;
extern pthread_mutex_t usb_uartport_mutex;

extern const char* const usb_file_path;    // /dev/at_usb0
extern const char* const mhi_file_path;    // /dev/mhi_pipe_32
extern const char* const glink_file_path;  // /dev/at_mdm0

inline constexpr const char* kUsbAtPortPath = "/dev/at_usb1";
inline constexpr const char* kAtChannelPath = "/dev/smd7";
inline constexpr const char* kUartChannelPath = "/dev/smd8";
inline constexpr const char* kUartPath = "/dev/ttyMSM1";

// What poll_shared_device() saw.
struct DevicePoll {
    int result;     // of poll(2) for the device; 0 when only the wake-up came
    short revents;  // of the device
    int fd;         // the number that was polled; compare with *slot under the mutex before reading
    bool closed;    // the slot was closed by somebody else meanwhile: begin the next pass
};

// Waits for events on the device in `*slot` or for its being closed by another thread
// (close_fd_mutexed wakes it: Linux does not wake a poll whose descriptor was closed elsewhere);
// -1 ms waits for ever. Called by the device's one reader only, without any lock.
DevicePoll poll_shared_device(const int* slot, pthread_mutex_t* mutex, short events,
                              int timeout_ms = -1);
// Makes the poll of `slot`'s reader return. Called by close_fd_mutexed with the slot's mutex held.
void wake_device_reader(const int* slot);

// A host that hung up is noticed by whoever closes the port first, and its reader has to tell the
// modem. note_hang_up is called by close_fd_mutexed before it closes, with the slot's mutex held;
// take_hang_up answers once whether a descriptor closed since the last call was hung up.
void note_hang_up(const int* slot);
bool take_hang_up(const int* slot, pthread_mutex_t* mutex);
