// A line of two or three basic commands, such as "ATE0V1Q0" (ITU-T V.250 5.4.1).
#pragma once

#include <string_view>

inline constexpr int kMostCombinedCommands = 3;
inline constexpr int kCombinedCommandLength = 6;  // "AT", letter, digit, CR LF

struct CombinedLine {
    int count;  // 0: the line's length is not that of a combination
    char commands[kMostCombinedCommands][64];
};

// The commands of a line of 7 to 10 characters, its end counted: each "AT", two characters, CR LF.
// Of two the first keeps the line's own "AT", as it was typed.
CombinedLine split_combined_line(std::string_view line);
