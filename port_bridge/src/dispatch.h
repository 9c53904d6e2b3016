// Where a complete command line goes, and the wait for its answer.
#pragma once

#include <pthread.h>

#include "thread_info.h"

// Arguments as in common_input_atcmd_proc (at_engine.h). Called on an input source's thread,
// without any lock; blocks up to 5 s for the platform, 10 s for CP.
int send_atcmd_to_plat_or_cp(int socketfd, const char* buf, int at_buf_len, int* port_type,
                             pthread_mutex_t* mutex, pthread_cond_t* cond, thread_info_t* tinfo);
// 0 after a write, whether or not an answer came; -1 when the write failed.
int send_atcmd_to_cp(int socketfd, const char* buf, int at_buf_len, int* port_type,
                     pthread_mutex_t* mutex, pthread_cond_t* cond, thread_info_t* tinfo);
