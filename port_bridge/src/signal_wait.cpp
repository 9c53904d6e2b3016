#include "signal_wait.h"

#include <ctime>

#include "mutex_guard.h"

void wait_for_signal(pthread_cond_t* cond, pthread_mutex_t* mutex, int seconds) {
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += seconds;
    const MutexGuard guard(mutex);
    pthread_cond_clockwait(cond, mutex, CLOCK_MONOTONIC, &deadline);
}
