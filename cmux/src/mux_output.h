// Answers on their way to the host while the multiplexer runs.
#pragma once

#include "thread_info.h"

// Writes `length` bytes of an answer to the UART host port as UIH frames of at most
// kMuxMaxInformation bytes each, all of them under one hold of the port's mutex. `dlc` is the
// address byte of the host's last payload of that kind; with 0 (none came yet) nothing is written
// and the result is 0. Otherwise the result of the writes, negative on failure. The caller holds
// no device mutex.
int write_mux_answer(int dlc, const char* answer, int length, int* host_fd, const char* host_path,
                     pthread_mutex_t* host_mutex);
