// One command at a time on a port, and nobody overtakes.
#include "command_turn.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

void wait_until_asked(CommandTurn& turn, unsigned count) {
    while (turn.asked() < count) {
        std::this_thread::yield();
    }
}

TEST(CommandTurn, IsTakenInTheOrderOfAsking) {
    CommandTurn turn;
    std::string order;  // guarded by the turn
    turn.take();
    std::vector<std::thread> askers;
    for (unsigned asker = 0; asker < 4; ++asker) {
        askers.emplace_back([&turn, &order, asker] {
            const CommandTurnGuard guard(turn);
            order += static_cast<char>('a' + asker);
        });
        wait_until_asked(turn, asker + 2);
    }
    turn.give_back();
    for (std::thread& asker : askers) {
        asker.join();
    }
    EXPECT_EQ(order, "abcd");
}

TEST(CommandTurn, WhoAsksAgainAtOnceWaitsForTheOthers) {
    for (int round = 0; round < 200; ++round) {  // an unfair lock is unfair now and then
        CommandTurn turn;
        std::string order;
        turn.take();
        std::thread other([&] {
            const CommandTurnGuard guard(turn);
            order += "other ";
        });
        wait_until_asked(turn, 2);
        turn.give_back();
        turn.take();
        order += "again";
        turn.give_back();
        other.join();
        ASSERT_EQ(order, "other again");
    }
}

TEST(CommandTurn, FreeTurnIsTakenAtOnce) {
    CommandTurn turn;
    EXPECT_EQ(turn.asked(), 0u);
    turn.take();
    EXPECT_EQ(turn.asked(), 1u);
    turn.give_back();
    EXPECT_EQ(turn.asked(), 0u);
}

}  // namespace
