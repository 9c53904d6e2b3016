// One message on its way to a stream, put together without the C library's formatter, which takes
// several times as long. Any thread; an object belongs to one.
#pragma once

#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

// Not constexpr on purpose: to reach it makes a message fail to compile. Its format has a
// conversion that add_formatted() does not know.
void log_text_knows_no_such_conversion();

// The conversions are those that this daemon's messages need: %d %i %u %x %0x %c %s %p %zu %%.
template <std::size_t size>
consteval bool is_log_format(const char (&format)[size]) {
    constexpr std::string_view kKnown[] = {"d", "i", "u", "x", "0x", "c", "s", "p", "zu", "%"};
    const std::string_view text(format, size - 1);
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%')
            continue;
        std::size_t length = 0;
        for (const std::string_view known : kKnown)
            if (text.substr(i + 1).starts_with(known))
                length = known.size();
        if (length == 0)
            log_text_knows_no_such_conversion();
        i += length;
    }
    return true;
}

// Gathers a message and hands it to the stream in one piece, or in several when it is long.
class LogText {
  public:
    explicit LogText(FILE* stream) : stream_(stream) {}
    ~LogText() { hand_over(); }
    LogText(const LogText&) = delete;
    LogText& operator=(const LogText&) = delete;

    void add(std::string_view text) {
        if (text.size() > room() && !make_room_for(text))
            return;
        memcpy(&area_[length_], text.data(), text.size());
        length_ += text.size();
    }
    void add(char character) {
        if (room() == 0)
            hand_over();
        area_[length_++] = character;
    }
    void add_decimal(std::size_t value);
    // As printf would, for a format that is_log_format().
    void add_formatted(const char* format, va_list arguments);
    // What was gathered goes to the stream now.
    void hand_over();

  private:
    [[nodiscard]] std::size_t room() const { return area_.size() - length_; }
    // False when the text went to the stream at once, because the area will never hold it.
    bool make_room_for(std::string_view text);
    void add_signed(int value);
    void add_hexadecimal(std::size_t value);
    void add_pointer(const void* pointer);

    FILE* stream_;
    std::size_t length_ = 0;
    std::array<char, 512> area_;  // most messages fit; written as far as length_ says
};
