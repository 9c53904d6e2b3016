#include "mutex_guard.h"

#include <cstring>

#include "log.h"

MutexGuard::MutexGuard(pthread_mutex_t* mutex) : mutex_(mutex), locked_(false) {
    const int error = pthread_mutex_lock(mutex_);
    locked_ = error == 0;
    if (!locked_)
        VEXA_LOG("mutex lock failed [0x%p] %s\r\n", mutex_, strerror(error));
}

MutexGuard::~MutexGuard() {
    if (!locked_)
        return;
    const int error = pthread_mutex_unlock(mutex_);
    if (error != 0)
        VEXA_LOG("mutex unlock failed [0x%p] %s\r\n", mutex_, strerror(error));
}
