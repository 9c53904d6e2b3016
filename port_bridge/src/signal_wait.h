// The wait for the signal that an answer is through.
#pragma once

#include <pthread.h>

// Waits under `mutex`, which it locks itself, until `cond` is signalled or `seconds` have passed.
// Without a predicate: whoever signals first ends the wait, and a signal that came before it is
// lost. The time is the one that passes while the module is awake: a network that sets its clock
// meanwhile neither ends the wait nor makes it longer.
void wait_for_signal(pthread_cond_t* cond, pthread_mutex_t* mutex, int seconds);
