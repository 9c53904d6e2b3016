// Where a complete command line goes, and the wait for its answer.
#pragma once

#include <pthread.h>

#include "thread_info.h"

// Arguments as in common_input_atcmd_proc (at_engine.h). Called on an input source's thread,
// without any lock. Blocks for the port's turn, then up to 5 s for the platform or 10 s for CP,
// beside up to 5 s of retries and whatever a stalled write takes.
int send_atcmd_to_plat_or_cp(int socketfd, const char* buf, int at_buf_len, int* port_type,
                             pthread_mutex_t* mutex, pthread_cond_t* cond, thread_info_t* tinfo);
// The same for CP alone, and without taking the turn. 0 after a write, whether or not an answer
// came; -1 when the write failed.
int send_atcmd_to_cp(int socketfd, const char* buf, int at_buf_len, int* port_type,
                     pthread_mutex_t* mutex, pthread_cond_t* cond, thread_info_t* tinfo);
