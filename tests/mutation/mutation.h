// Put before every source of the daemon in the scratch copy of script/mutate, never elsewhere.
// Each switched mutant is a number; VEXA_MUTANT names the one that is on, and in the file of
// VEXA_MUTANT_MAP the byte of each number that was come by becomes 1.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace mutation {

inline constexpr int kMost = 8192;

inline int chosen() {
    static const int number = [] {
        const char* text = getenv("VEXA_MUTANT");
        return text == nullptr ? -1 : atoi(text);
    }();
    return number;
}

inline char* map_area() {
    static char* const area = []() -> char* {
        const char* path = getenv("VEXA_MUTANT_MAP");
        if (path == nullptr)
            return nullptr;
        const int fd = open(path, O_RDWR | O_CLOEXEC);
        if (fd < 0)
            return nullptr;
        void* found = mmap(nullptr, kMost, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        return found == MAP_FAILED ? nullptr : static_cast<char*>(found);
    }();
    return area;
}

inline bool is_on_now(int number) {
    const int before = errno;
    if (char* area = map_area(); area != nullptr)
        __atomic_store_n(area + number, 1, __ATOMIC_RELAXED);
    const bool is_on = chosen() == number;
    errno = before;
    return is_on;
}

constexpr bool is_on(int number) {
    return std::is_constant_evaluated() ? false : is_on_now(number);
}

constexpr void come_by(int number) {
    (void)is_on(number);
}

// `a == b` is written `a == At{7} == b`: the same precedence, whatever a and b are.
struct At {
    int number;
};
template <typename Left>
struct Held {
    const Left& left;
    int number;
};

#define MUTATION_OPERATOR(sign, neighbour)                                       \
    template <typename Left>                                                     \
    constexpr Held<Left> operator sign(const Left& left, At at) {                \
        return {left, at.number};                                                \
    }                                                                            \
    template <typename Left, typename Right>                                     \
    constexpr bool operator sign(Held<Left> held, const Right& right) {          \
        return is_on(held.number) ? static_cast<bool>(held.left neighbour right) \
                                  : static_cast<bool>(held.left sign right);     \
    }
MUTATION_OPERATOR(==, !=)
MUTATION_OPERATOR(!=, ==)
MUTATION_OPERATOR(<, <=)
MUTATION_OPERATOR(<=, <)
MUTATION_OPERATOR(>, >=)
MUTATION_OPERATOR(>=, >)
#undef MUTATION_OPERATOR

// `!a` is written `Not{7}->*a`.
struct Not {
    int number;
};
template <typename Value>
constexpr bool operator->*(Not at, const Value& value) {
    return is_on(at.number) ? static_cast<bool>(value) : !static_cast<bool>(value);
}

inline bool is_letter(char character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

// The format with its last letter changed that is no conversion's.
inline const char* text(int number, const char* format) {
    if (!is_on(number))
        return format;
    static char changed[1024];
    const std::size_t length = strlen(format);
    std::size_t last = length;
    for (std::size_t i = 0; i < length; ++i) {
        if (format[i] != '%') {
            if (is_letter(format[i]))
                last = i;
            continue;
        }
        ++i;
        while (format[i] == '0' || format[i] == 'z') ++i;
    }
    memcpy(changed, format, length + 1);
    if (last < length)
        changed[last] = static_cast<char>(
            format[last] == 'z' || format[last] == 'Z' ? format[last] - 1 : format[last] + 1);
    return changed;
}

}  // namespace mutation

#define VEXA_DIAG_AT(number, format, ...)                                        \
    do {                                                                         \
        static constexpr auto vexa_diag_text = diag_format("%s(): " format);     \
        const vexa_diag_message vexa_diag_site = {                               \
            static_cast<uint16_t>(__LINE__), kDiagSubsystem, kDiagLevel,         \
            mutation::text(number, vexa_diag_text.data()), __FILE__};            \
        send_diag_message(&vexa_diag_site, __func__ __VA_OPT__(, ) __VA_ARGS__); \
    } while (false)
#define VEXA_LOG_AT(number, format, ...)                                               \
    do {                                                                               \
        static_assert(is_log_format(format));                                          \
        if (log_goes_to_diag())                                                        \
            VEXA_DIAG_AT(number, format __VA_OPT__(, ) __VA_ARGS__);                   \
        else                                                                           \
            print_log_line(__func__, __LINE__,                                         \
                           mutation::text(number, format) __VA_OPT__(, ) __VA_ARGS__); \
    } while (false)
#define VEXA_PRINT_AT(number, format, ...) \
    print_plain_text(mutation::text(number, format) __VA_OPT__(, ) __VA_ARGS__)
#define START_TRACE_ERROR_AT(number, format, ...) \
    START_TRACE_AT(number, "(ERROR):   ", format, __VA_ARGS__)
#define START_TRACE_INFO_AT(number, format, ...) \
    START_TRACE_AT(number, "(INFO):    ", format, __VA_ARGS__)
#define START_TRACE_AT(number, kind, format, ...)                                         \
    do {                                                                                  \
        if (port_bridge_log_enabled)                                                      \
            write_start_trace(kind, __func__, __LINE__,                                   \
                              mutation::text(number, format) __VA_OPT__(, ) __VA_ARGS__); \
    } while (false)
