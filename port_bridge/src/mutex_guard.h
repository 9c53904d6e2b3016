// Mutexes: a lock for the length of a block, and the two calls by their own names. Any thread.
#pragma once

#include <pthread.h>

// Holds a mutex for the length of a block. A mutex that cannot be locked is traced
// and the block runs all the same: that is this system's rule for every
// guarded system call except closing.
class MutexGuard {
  public:
    explicit MutexGuard(pthread_mutex_t* mutex);
    ~MutexGuard();
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

  private:
    pthread_mutex_t* mutex_;
    bool locked_;
};

// 1 when locked, 0 (logged) on failure.
int vexa_os_mutex_lock(pthread_mutex_t* mutex);
// With default attributes: 0, or an error number.
int vexa_os_mutex_init(pthread_mutex_t* mutex);
