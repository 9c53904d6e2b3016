// The timed wait for an answer's signal.
#include "signal_wait.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>

#include "monotonic_clock.h"
#include "system_calls.h"

namespace {

constexpr int64_t kNsInSecond = 1'000'000'000;

// A network that sets the machine's clock must neither end a wait nor make it hours long, so the
// deadline is on the clock that nobody sets.
TEST(SignalWait, LastsTheSecondsThatPassWhateverTheMachinesClockIsSetTo) {
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    for (const int seconds : {5, 10}) {
        int waits = 0;
        TakenCalls calls;
        const int64_t before = monotonic_ns();
        calls.pthread_cond_clockwait = [&](pthread_cond_t* its_cond, pthread_mutex_t* its_mutex,
                                           clockid_t clock, const timespec* deadline) {
            ++waits;
            EXPECT_EQ(its_cond, &cond);
            EXPECT_EQ(its_mutex, &mutex);
            EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY) << "the caller of a wait holds it";
            EXPECT_EQ(clock, CLOCK_MONOTONIC);
            const int64_t at = deadline->tv_sec * kNsInSecond + deadline->tv_nsec;
            EXPECT_GE(at, before + seconds * kNsInSecond);
            EXPECT_LE(at, monotonic_ns() + seconds * kNsInSecond);
            EXPECT_LT(deadline->tv_nsec, kNsInSecond);
            return ETIMEDOUT;
        };
        wait_for_signal(&cond, &mutex, seconds);
        EXPECT_EQ(waits, 1) << "without a predicate";
        EXPECT_EQ(pthread_mutex_trylock(&mutex), 0) << "given back";
        pthread_mutex_unlock(&mutex);
    }
}

}  // namespace
