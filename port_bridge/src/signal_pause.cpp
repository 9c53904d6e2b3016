#include "signal_pause.h"

#include <sys/prctl.h>
#include <unistd.h>

namespace {

constexpr useconds_t kPauseUs = 1000;
// The kernel may end a sleep 50 us late to save wake-ups: 5 % of a pause that every answer waits
// for. 1 ns is the least; 0 would mean the default.
constexpr unsigned long kTimerSlackNs = 1;

thread_local constinit bool t_is_punctual = false;

}  // namespace

void pause_before_signal() {
    if (!t_is_punctual)
        prctl(PR_SET_TIMERSLACK, kTimerSlackNs);
    t_is_punctual = true;
    usleep(kPauseUs);
}
