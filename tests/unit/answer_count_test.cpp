#include "answer_count.h"

namespace {

TEST(AnswerCount, OnlyAnAnswerWithinThreeSecondsSetsItBack) {
    struct {
        int before;
        int64_t elapsed_ns;
        int after;
        bool given_up;
        const char* why;
    } const rows[] = {
        {0, 0, 0, false, "at once"},
        {4, 3'000'000'000, 0, false, "exactly three seconds are in time"},
        {0, 3'000'000'001, 1, false, "one nanosecond late"},
        {4, 10'000'000'000, 5, false, "the fifth in a row is not yet worth a message"},
        {5, 10'000'000'000, 6, true, "the sixth is"},
        {6, 4'000'000'000, 7, true, "and so is every further one"},
        {7, 2'999'999'999, 0, false, "one quick answer forgives all"},
    };
    for (const auto& row : rows) {
        const int after = slow_answers_after(row.before, row.elapsed_ns);
        EXPECT_EQ(after, row.after) << row.why;
        EXPECT_EQ(is_cp_given_up(after), row.given_up) << row.why;
    }
}

}  // namespace
