// What the log's own formatter makes of a message is what the C library's would make of it.
#include "log_text.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <string>

#include "vexa_common_def.h"

namespace {

std::string formatted(const char* format, ...) {
    char* text = nullptr;
    std::size_t size = 0;
    FILE* stream = open_memstream(&text, &size);
    va_list arguments;
    va_start(arguments, format);
    LogText(stream).add_formatted(format, arguments);
    va_end(arguments);
    fclose(stream);
    std::string result(text, size);
    free(text);
    return result;
}

template <typename... Arguments>
std::string by_the_library(const char* format, Arguments... arguments) {
    std::string text(40000, '\0');
    const int length = snprintf(text.data(), text.size(), format, arguments...);
    text.resize(static_cast<std::size_t>(length));
    return text;
}

#define EXPECT_LIKE_PRINTF(...)                                         \
    do {                                                                \
        EXPECT_EQ(formatted(__VA_ARGS__), by_the_library(__VA_ARGS__)); \
    } while (false)

#ifndef __clang__
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-overflow"
#pragma GCC diagnostic ignored "-Wformat-truncation"
#endif

TEST(LogText, NumbersAtTheirEdges) {
    for (const int value : {0, 1, 9, 10, 99, 100, -1, -9, -10, 16384, INT_MAX, INT_MIN}) {
        EXPECT_LIKE_PRINTF("<%d> <%i>", value, value);
        EXPECT_LIKE_PRINTF("<%u> <%x> <%0x>", static_cast<unsigned>(value),
                           static_cast<unsigned>(value), static_cast<unsigned>(value));
    }
    for (const std::size_t value : {std::size_t{0}, std::size_t{131072}, SIZE_MAX})
        EXPECT_LIKE_PRINTF("<%zu>", value);
}

TEST(LogText, TextCharactersAndPointers) {
    const char* const null_text = nullptr;
    EXPECT_LIKE_PRINTF("%s|%s|%s", "", "one", null_text);
    EXPECT_LIKE_PRINTF("%c%c", 'a', '%');
    EXPECT_LIKE_PRINTF("%p %p", static_cast<void*>(nullptr), static_cast<void*>(&g_qxdm_log));
    EXPECT_LIKE_PRINTF("100%%, %d%%", 5);
    EXPECT_LIKE_PRINTF("nothing to convert\r\n", 0);
}

// Both sides of the area's end, and far behind it: nothing is lost, doubled or moved.
TEST(LogText, LongMessagesComeWhole) {
    for (const std::size_t size : {1U, 505U, 510U, 511U, 512U, 513U, 1024U, 16384U}) {
        const std::string text(size, 'x');
        EXPECT_LIKE_PRINTF("%s", text.c_str());
        EXPECT_LIKE_PRINTF("<%s>, %d\r\n", text.c_str(), 123456);
        EXPECT_LIKE_PRINTF("%s%c%s%d", text.c_str(), 'y', text.c_str(), -1);
    }
}

TEST(LogText, AFormatIsKnownOrDoesNotCompile) {
    static_assert(is_log_format("%d %i %u %x %0x %c %s %p %zu %%, the rest"));
    static_assert(is_log_format(""));
}

}  // namespace
