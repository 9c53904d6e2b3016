// Whose command is on its way: one at a time, in the order of asking.
#pragma once

#include <pthread.h>

// First come, first served: a plain mutex would go to whoever asks again at once, so that a client
// that sends without pause would keep the port's other sources from being served. Any thread; a
// thread that has the turn must not ask for another.
class CommandTurn {
  public:
    constexpr CommandTurn() = default;
    CommandTurn(const CommandTurn&) = delete;
    CommandTurn& operator=(const CommandTurn&) = delete;

    // Waits until everybody who asked before has given it back.
    void take();
    void give_back();
    // Threads that have the turn or wait for it.
    unsigned asked();

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;  // guards both numbers
    pthread_cond_t moved_ = PTHREAD_COND_INITIALIZER;
    unsigned next_ = 0;     // number of the next who asks
    unsigned serving_ = 0;  // number of whoever has the turn
};

// The turn for the length of a block.
class CommandTurnGuard {
  public:
    explicit CommandTurnGuard(CommandTurn& turn) : turn_(turn) { turn_.take(); }
    ~CommandTurnGuard() { turn_.give_back(); }
    CommandTurnGuard(const CommandTurnGuard&) = delete;
    CommandTurnGuard& operator=(const CommandTurnGuard&) = delete;

  private:
    CommandTurn& turn_;
};
