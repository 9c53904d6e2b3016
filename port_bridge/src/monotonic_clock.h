// The time that passes while the machine is awake, whatever is done to its clock.
#pragma once

#include <cstdint>
#include <ctime>

[[nodiscard]] inline int64_t monotonic_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

[[nodiscard]] inline int64_t monotonic_ms() {
    return monotonic_ns() / 1'000'000;
}
