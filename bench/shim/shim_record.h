// What the shim writes into a recording: the daemon's calls, in the words of docs/recording.md.
// Without a recording every function here returns at once. Any thread; errno is kept.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <termios.h>

#include <cstddef>
#include <cstdint>

namespace bench {

// Opens the recording that the bench began, when there is one.
void begin_recording();
bool is_recording();

// Time to give to the functions below: taken before a write, after a read. 0 without a recording.
std::int64_t record_time();

// `device` is an index of kDevicePaths; `result` what the call returned, with errno behind it.
void record_open(std::size_t device, std::int64_t time, int result);
void record_close(std::size_t device);
void record_read(std::size_t device, const void* bytes, std::int64_t result);
void record_write(std::size_t device, std::int64_t time, const void* bytes, std::size_t asked,
                  std::int64_t result);
void record_lines(std::size_t device, bool is_set, std::uint32_t bits);
void record_intent(std::size_t device, std::uint32_t size, int result);
void record_settings(std::size_t device, speed_t speed);
void record_poll(std::size_t device, short revents);

// Of the connections to the app platform; `number` counts them from 1.
void record_platform_event(int number, std::int64_t time, const char* what, int result);
void record_platform_sent(int number, std::int64_t time, const void* bytes, std::size_t asked,
                          std::int64_t result);
void record_platform_received(int number, const void* bytes, std::int64_t result);

void record_datagram_sent(std::int64_t time, const sockaddr_in& peer, const void* bytes,
                          std::size_t asked, std::int64_t result);
void record_datagram_received(const sockaddr_in& peer, const void* bytes, std::int64_t result);
void record_uevent(const void* bytes, std::int64_t result);

// `mode` as the daemon numbers them.
void record_mode(std::size_t device, int mode);

}  // namespace bench
