// Plain integers that several threads read and write.
#pragma once

#include <atomic>
#include <cstdint>

static_assert(std::atomic_ref<int>::is_always_lock_free);
static_assert(std::atomic_ref<uint8_t>::is_always_lock_free);

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

// The same for a byte that several threads share.
[[nodiscard]] inline uint8_t load_shared(const uint8_t& value) {
    return std::atomic_ref<uint8_t>(const_cast<uint8_t&>(value)).load(std::memory_order_acquire);
}

inline void store_shared(uint8_t& value, uint8_t wanted) {
    std::atomic_ref<uint8_t>(value).store(wanted, std::memory_order_release);
}

// The same for a pointer that one thread publishes to others.
template <typename T>
[[nodiscard]] T* load_shared(T* const& value) {
    return std::atomic_ref<T*>(const_cast<T*&>(value)).load(std::memory_order_acquire);
}

template <typename T>
void store_shared(T*& value, T* wanted) {
    std::atomic_ref<T*>(value).store(wanted, std::memory_order_release);
}
