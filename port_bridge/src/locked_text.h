// A text area that one thread writes and others read.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <string_view>

#include "vexa_common_def.h"

// NUL-terminated text of at most kDeviceReadSize characters. Its lock guards the text and its
// length, is held only for the length of one call, and is the innermost lock of all: nothing is
// called, waited for or written while it is held. The thread that owns the text may look at it
// without the lock (text()), because nobody else changes it.
class LockedText {
  public:
    constexpr LockedText() = default;
    LockedText(const LockedText&) = delete;
    LockedText& operator=(const LockedText&) = delete;

    // Longer text is cut to what fits; a NUL ends it. Any thread.
    void assign(std::string_view text);
    // False, and nothing changed, when it does not fit. Any thread.
    [[nodiscard]] bool append(std::string_view text);
    void clear() { assign({}); }
    void remove_last();
    // Copies text and NUL into `area`, cut to its size; returns the characters copied. Any thread.
    std::size_t copy_to(char* area, std::size_t area_size) const;

    // Owner's thread only.
    [[nodiscard]] const char* text() const { return text_; }
    [[nodiscard]] std::size_t length() const { return length_; }

  private:
    mutable pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    std::size_t length_ = 0;
    char text_[kTextAreaSize] = {};
};
