// Where a thread's command bytes come from. Each source assembles lines of its own.
#pragma once

#include "locked_text.h"
#include "vexa_common_def.h"

enum class InputSource : int { modem_port, at_port, uart_port, pcie_pipe, udp_server };
inline constexpr int kInputSourceCount = 5;

// The command line being assembled, per source; written only by the source's thread.
extern LockedText g_at_buf_cache[kInputSourceCount];

// Binds the calling thread to a source for its life; the host readers and the UDP server call it
// at their start. A thread that never did is the modem port's.
void bind_input_source(InputSource source);
InputSource current_input_source();
LockedText& current_line();
