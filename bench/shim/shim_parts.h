// What the parts of the shim share.
#pragma once

#include <dlfcn.h>

#include <atomic>
#include <cstdint>

#include "device_state.h"
#include "shim_record.h"

namespace bench {

inline constexpr int kMaxDescriptors = 4096;

// Shared with the bench; null outside a module.
extern ModuleState* g_state;

// The next definition of a libc function; looked up once, also before any constructor has run.
template <typename Function>
Function* next(std::atomic<void*>& cache, const char* name) {
    void* found = cache.load(std::memory_order_acquire);
    if (found == nullptr) {
        found = dlsym(RTLD_NEXT, name);
        cache.store(found, std::memory_order_release);
    }
    return reinterpret_cast<Function*>(found);
}

// A call that sends, from its begin to its line in the recording.
class RecordedSend {
  public:
    RecordedSend() : begun_(record_time()) {
        if (is_counted()) {
            ++g_state->sends_begun;
        }
    }
    ~RecordedSend() {
        if (is_counted()) {
            ++g_state->sends_recorded;
        }
    }
    RecordedSend(const RecordedSend&) = delete;
    RecordedSend& operator=(const RecordedSend&) = delete;
    std::int64_t begun() const { return begun_; }

  private:
    static bool is_counted() { return is_recording() && g_state != nullptr; }

    std::int64_t begun_;
};

}  // namespace bench

#define NEXT(name)                                          \
    ([]() {                                                 \
        static std::atomic<void*> cache{nullptr};           \
        return bench::next<decltype(::name)>(cache, #name); \
    }())
