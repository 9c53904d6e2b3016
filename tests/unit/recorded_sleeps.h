// The pauses of the code under test, recorded instead of slept.
#pragma once

#include <functional>
#include <vector>

// While one lives, the pauses of this thread are recorded and handed to `instead`, not slept.
struct RecordedSleeps {
    explicit RecordedSleeps(std::function<void()> what = [] {});
    ~RecordedSleeps();
    RecordedSleeps(const RecordedSleeps&) = delete;
    RecordedSleeps& operator=(const RecordedSleeps&) = delete;

    std::function<void()> instead;
    std::vector<unsigned> seconds;
};
