// A mutex that its own thread holds already: whoever locks it is refused and says which it was.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdio>
#include <functional>
#include <string>

// Makes the mutex one that this thread holds, until the end; then it is an ordinary free one.
class RefusingMutex {
  public:
    explicit RefusingMutex(pthread_mutex_t& mutex) : mutex_(mutex) {
        pthread_mutexattr_t kind;
        pthread_mutexattr_init(&kind);
        pthread_mutexattr_settype(&kind, PTHREAD_MUTEX_ERRORCHECK);
        pthread_mutex_destroy(&mutex_);
        pthread_mutex_init(&mutex_, &kind);
        pthread_mutexattr_destroy(&kind);
        pthread_mutex_lock(&mutex_);
    }
    ~RefusingMutex() {
        pthread_mutex_unlock(&mutex_);
        pthread_mutex_destroy(&mutex_);
        pthread_mutex_init(&mutex_, nullptr);
    }
    RefusingMutex(const RefusingMutex&) = delete;
    RefusingMutex& operator=(const RefusingMutex&) = delete;

    // How often `call` tried to lock it. A guarded call is made all the same.
    int tries_of(const std::function<void()>& call) const {
        testing::internal::CaptureStdout();
        call();
        const std::string log = testing::internal::GetCapturedStdout();
        char refusal[64];
        snprintf(refusal, sizeof refusal, "mutex lock failed [0x%p]", static_cast<void*>(&mutex_));
        int tries = 0;
        for (auto at = log.find(refusal); at != log.npos; at = log.find(refusal, at + 1)) ++tries;
        return tries;
    }

  private:
    pthread_mutex_t& mutex_;
};
