// Host input on the UART port while the multiplexer runs.
#pragma once

// Takes a chunk in USB_PORT_CMUX_MODE: gathers frames, answers set-ups, and hands payloads to
// dispatch as lines of the modem or the UART port. Always 1: the chunk has been dealt with. Only
// the UART host reader's thread, without any lock.
int handle_mux_input(const char* buf, int num_read);
// Forgets a frame that was begun; the UART's host reader calls it after opening the port anew.
void reset_mux_input();
