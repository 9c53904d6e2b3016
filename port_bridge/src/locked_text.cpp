#include "locked_text.h"

#include <algorithm>
#include <cstring>

#include "text_part.h"

namespace {

// Not a MutexGuard: nothing is called while this lock is held, the log included.
class TextLock {
  public:
    explicit TextLock(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~TextLock() { pthread_mutex_unlock(&mutex_); }
    TextLock(const TextLock&) = delete;
    TextLock& operator=(const TextLock&) = delete;

  private:
    pthread_mutex_t& mutex_;
};

// Text handling ends at a NUL everywhere in command mode.
std::string_view up_to_nul(std::string_view text) {
    return text_part(text, 0, text.find('\0'));
}

}  // namespace

void LockedText::assign(std::string_view text) {
    text = text_part(up_to_nul(text), 0, kDeviceReadSize);
    const TextLock lock(mutex_);
    if (!text.empty())
        memmove(text_, text.data(), text.size());
    text_[text.size()] = '\0';
    length_ = text.size();
}

bool LockedText::append(std::string_view text) {
    text = up_to_nul(text);
    const TextLock lock(mutex_);
    if (text.size() > kDeviceReadSize - length_)
        return false;
    if (!text.empty())
        memcpy(text_ + length_, text.data(), text.size());
    length_ += text.size();
    text_[length_] = '\0';
    return true;
}

void LockedText::remove_last() {
    const TextLock lock(mutex_);
    if (length_ > 0)
        text_[--length_] = '\0';
}

std::size_t LockedText::copy_to(char* area, std::size_t area_size) const {
    if (area_size == 0)
        return 0;
    const TextLock lock(mutex_);
    const std::size_t count = std::min(length_, area_size - 1);
    memcpy(area, text_, count);
    area[count] = '\0';
    return count;
}
