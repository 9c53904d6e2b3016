// Plain integers that several threads read and write.
#pragma once

#include <atomic>

static_assert(std::atomic_ref<int>::is_always_lock_free);

[[nodiscard]] inline int load_shared(const int& value) {
    // atomic_ref of a const type is not allowed before C++26; loading does not write.
    return std::atomic_ref<int>(const_cast<int&>(value)).load(std::memory_order_acquire);
}

inline void store_shared(int& value, int wanted) {
    std::atomic_ref<int>(value).store(wanted, std::memory_order_release);
}

// Moves `value` from `expected` to `wanted`; false (and no change) when it held something else.
inline bool move_shared(int& value, int expected, int wanted) {
    return std::atomic_ref<int>(value).compare_exchange_strong(expected, wanted);
}
