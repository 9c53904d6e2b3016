// A part of a text, for code that does not throw: std::string_view::substr carries the run-time's
// exceptions into the program.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

// At most `count` characters from `from` on; what lies behind the text is left out.
constexpr std::string_view text_part(std::string_view text, std::size_t from,
                                     std::size_t count = std::string_view::npos) {
    const std::size_t begin = std::min(from, text.size());
    return {text.data() + begin, std::min(count, text.size() - begin)};
}
