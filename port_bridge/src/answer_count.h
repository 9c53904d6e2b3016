// CP answers that come too late, in a row.
#pragma once

#include <cstdint>

inline constexpr int64_t kSlowAnswerNs = 3'000'000'000;  // an answer of exactly 3 s is in time
inline constexpr int kMostSlowAnswers = 5;

// The count after an answer that took `elapsed_ns`; only one in time sets it back.
constexpr int slow_answers_after(int count, int64_t elapsed_ns) {
    return elapsed_ns <= kSlowAnswerNs ? 0 : count + 1;
}

// Whether the count is worth a message, at this answer and at every further slow one.
constexpr bool is_cp_given_up(int count) {
    return count > kMostSlowAnswers;
}
