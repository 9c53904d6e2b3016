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

int vexa_os_mutex_lock(pthread_mutex_t* mutex) {
    const int error = pthread_mutex_lock(mutex);
    if (error == 0)
        return 1;
    VEXA_LOG("Error while trying to lock mutex: %d,%d,%d\r\n", error, 0, 0);
    return 0;
}

int vexa_os_mutex_init(pthread_mutex_t* mutex) {
    return pthread_mutex_init(mutex, nullptr);
}
