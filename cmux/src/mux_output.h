// Answers on their way to the host while the multiplexer runs.
#pragma once

#include "thread_info.h"

// Writes `length` bytes of an answer as UIH frames of at most kMuxMaxInformation bytes each to the
// UART host port of `uart` (g_uart_tinfo_for_mux's from side or a bridge record's to side, see the
// two callers), under the port's mutex. An answer for a channel that has no address yet (dlc 0) is
// logged and not written; 0. Otherwise the result of the writes. No device mutex held.
int write_mux_answer(int dlc, const char* answer, int length, int* host_fd, const char* host_path,
                     pthread_mutex_t* host_mutex);
