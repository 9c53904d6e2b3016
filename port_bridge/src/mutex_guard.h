// A lock for the length of a block. Any thread.
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
