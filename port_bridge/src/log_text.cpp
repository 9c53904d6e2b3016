#include "log_text.h"

#include <cstdint>

namespace {

constexpr std::string_view kDigits = "0123456789abcdef";

// A number's digits, from the last to the first.
template <std::size_t base>
class Digits {
  public:
    explicit Digits(std::size_t value) {
        do {
            text_[--first_] = kDigits[value % base];
            value /= base;
        } while (value != 0);
    }
    [[nodiscard]] std::string_view text() const { return {&text_[first_], kMost - first_}; }

  private:
    static constexpr std::size_t kMost = 20;  // of 64 bits in base 10
    char text_[kMost];
    std::size_t first_ = kMost;
};

}  // namespace

void LogText::hand_over() {
    if (length_ > 0)
        fwrite(area_.data(), 1, length_, stream_);
    length_ = 0;
}

bool LogText::make_room_for(std::string_view text) {
    hand_over();
    if (text.size() <= area_.size())
        return true;
    fwrite(text.data(), 1, text.size(), stream_);
    return false;
}

void LogText::add_decimal(std::size_t value) {
    if (value < 10)
        add(kDigits[value]);
    else
        add(Digits<10>(value).text());
}

void LogText::add_signed(int value) {
    const int64_t wide = value;
    if (wide < 0)
        add('-');
    add_decimal(static_cast<std::size_t>(wide < 0 ? -wide : wide));
}

void LogText::add_hexadecimal(std::size_t value) {
    add(Digits<16>(value).text());
}

void LogText::add_pointer(const void* pointer) {
    if (pointer == nullptr) {
        add("(nil)");
        return;
    }
    add("0x");
    add_hexadecimal(reinterpret_cast<std::uintptr_t>(pointer));
}

void LogText::add_formatted(const char* format, va_list arguments) {
    while (true) {
        const char* conversion = strchrnul(format, '%');
        add({format, static_cast<std::size_t>(conversion - format)});
        if (*conversion == '\0')
            return;
        ++conversion;
        if (*conversion == '0')
            ++conversion;  // without a width it fills nothing
        const bool is_size = *conversion == 'z';
        if (is_size)
            ++conversion;
        switch (*conversion) {
            case 'd':
            case 'i':
                add_signed(va_arg(arguments, int));
                break;
            case 'u':
                add_decimal(is_size ? va_arg(arguments, std::size_t) : va_arg(arguments, unsigned));
                break;
            case 'x':
                add_hexadecimal(va_arg(arguments, unsigned));
                break;
            case 'c':
                add(static_cast<char>(va_arg(arguments, int)));
                break;
            case 's':
                if (const char* text = va_arg(arguments, const char*))
                    add(text);
                else
                    add("(null)");
                break;
            case 'p':
                add_pointer(va_arg(arguments, const void*));
                break;
            default:
                add('%');
                break;
        }
        format = conversion + 1;
    }
}
