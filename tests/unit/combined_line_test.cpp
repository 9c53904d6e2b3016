#include "combined_line.h"

namespace {

TEST(CombinedLine, Splits) {
    struct {
        const char* line;
        std::vector<std::string> commands;
        const char* why;
    } const rows[] = {
        {"ATE0\r\n", {}, "six characters are one command"},
        {"ATE0V1\r", {"ATE0\r\n", "ATV1\r\n"}, "seven"},
        {"atE0v1\r\n", {"atE0\r\n", "ATv1\r\n"}, "eight; of two the first keeps the line's own AT"},
        {"ATE0V1Q0\r", {"ATE0\r\n", "ATV1\r\n", "ATQ0\r\n"}, "nine"},
        {"ATQ0E0V1\r\n", {"ATQ0\r\n", "ATE0\r\n", "ATV1\r\n"}, "ten"},
        {"ate0v1q0\r", {"ATe0\r\n", "ATv1\r\n", "ATq0\r\n"}, "of three each has an AT of its own"},
        {"ATE0V1Q0X\r\n", {}, "eleven"},
        {"", {}, "nothing"},
    };
    for (const auto& row : rows) {
        const CombinedLine combined = split_combined_line(row.line);
        const std::vector<std::string> commands(combined.commands,
                                                combined.commands + combined.count);
        EXPECT_EQ(commands, row.commands) << row.line << ": " << row.why;
        for (const std::string& command : commands)
            EXPECT_EQ(command.size(), static_cast<std::size_t>(kCombinedCommandLength));
    }
}

}  // namespace
