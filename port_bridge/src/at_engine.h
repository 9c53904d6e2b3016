// The one entry through which every chunk that a host sends enters the AT engine.
#pragma once

#include <pthread.h>

#include "thread_info.h"

// `socketfd` is the port's platform socket, `port_type` its mode variable, `mutex` and `cond` its
// response wait, `tinfo` its host-to-CP direction. Writes a NUL at buf[num_read], so the buffer
// needs one spare byte. 1: the chunk has been dealt with; 0: the line is not complete, was
// dropped, was a +CMUX command, or could not be written to CP. Called by the reader threads and
// the UDP server without any lock; may block for the answer (dispatch.h says how long).
//
// The line being assembled belongs to the calling thread's input source (input_source.h).
int common_input_atcmd_proc(int socketfd, char* buf, int num_read, int* port_type,
                            pthread_mutex_t* mutex, pthread_cond_t* cond, thread_info_t* tinfo);
