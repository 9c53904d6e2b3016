#include "command_turn.h"

#include "mutex_guard.h"

void CommandTurn::take() {
    const MutexGuard guard(&mutex_);
    const unsigned own = next_++;
    while (own != serving_) pthread_cond_wait(&moved_, &mutex_);
}

void CommandTurn::give_back() {
    const MutexGuard guard(&mutex_);
    ++serving_;
    pthread_cond_broadcast(&moved_);
}

unsigned CommandTurn::asked() {
    const MutexGuard guard(&mutex_);
    return next_ - serving_;
}
