#include "recorded_sleeps.h"

#include <unistd.h>

#include <ctime>
#include <utility>

namespace {
thread_local RecordedSleeps* t_current = nullptr;
}

RecordedSleeps::RecordedSleeps(std::function<void()> what) : instead(std::move(what)) {
    t_current = this;
}

RecordedSleeps::~RecordedSleeps() {
    t_current = nullptr;
}

// Takes the place of the C library's for the whole program; every other caller sleeps as usual.
extern "C" unsigned sleep(unsigned seconds) {
    RecordedSleeps* recorded = t_current;
    if (recorded == nullptr) {
        timespec left = {static_cast<time_t>(seconds), 0};
        return nanosleep(&left, &left) == 0 ? 0 : static_cast<unsigned>(left.tv_sec) + 1;
    }
    recorded->seconds.push_back(seconds);
    recorded->instead();
    return 0;
}
