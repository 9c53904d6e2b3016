// The pause between an answer and the signal for it.
#include "signal_pause.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <thread>

namespace {

// The kernel's default would let the pause last 50 us longer: 5 % of what every answer waits for.
TEST(SignalPause, IsPunctualInEachThreadThatPauses) {
    std::thread([] {
        const int before = prctl(PR_GET_TIMERSLACK);
        EXPECT_GT(before, 1);
        pause_before_signal();
        EXPECT_EQ(prctl(PR_GET_TIMERSLACK), 1);
        prctl(PR_SET_TIMERSLACK, 7);
        pause_before_signal();
        EXPECT_EQ(prctl(PR_GET_TIMERSLACK), 7) << "set once, not before each pause";
    }).join();
}

}  // namespace
