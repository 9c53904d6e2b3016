// Writing to, closing and describing devices.
#pragma once

#include <pthread.h>

#include <cstddef>

// Writes all of `buffer`. 0 when everything was written (also for 0 bytes), -1 on failure. While
// AT-port traffic is served for a UDP client, bytes for the USB AT port go there instead and the
// result is that of the send. The caller holds the destination's mutex; on EAGAIN it sleeps
// 1 to 5 s (15 s in all) with it.
int write_to_device(int to_fd, const char* to_filename, int bytes_to_write, const char* buffer);

// Closes a shared descriptor under its mutex, stores -1 and wakes its reader. A mutex that fails
// ends the process with status 1. The caller does not hold the mutex.
void close_fd_mutexed(const char* file_path, const volatile int* fd, pthread_mutex_t* mutex);

// "0x1 | DTR | CD | RTS" for TIOCM bits, at most size - 1 characters.
void construct_signal_string(char* str, std::size_t size, int bits);
