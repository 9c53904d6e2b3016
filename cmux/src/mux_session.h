// The multiplexer session on the UART port: +CMUX, set-up, and the road of the payloads.
#pragma once

#include <string_view>

#include "at_mux.h"
#include "gsm0710_frame.h"

extern tMuxConfig g_MuxCfg;                      // only the UART host reader's thread
extern eParsePackCurState g_cur_mux_proc_state;  // only the UART host reader's thread

// Set by the UART host reader's thread, read by whoever writes answers; through shared_int.h.
extern int g_uart_port_status;  // 1 once +CMUX was accepted, never set back
extern UINT8 g_mux_atcmd_dlc;   // address byte of the last AT payload, 0 before one came
extern UINT8 g_mux_ppp_dlc;     // address byte of the last dial payload, 0 before one came

// Host input on the UART port: the +CMUX line, or one whole frame. resp_buf holds 4096 bytes.
// *resp_direction 0: resp_buf goes back to the UART; 1: it is a payload, host input.
// 0, or -1 when refused. Only the UART host reader's thread.
int proc_host_to_ue_cmux_atcmd(const char* at_buf, int buf_len, char* resp_buf, int* resp_buf_len,
                               int* resp_direction);
int SA_DefaultCmdHandler_CMUX(const char* at_buf, int buf_len, char* resp_buf, int* resp_buf_len,
                              int* resp_direction);
int SA_DefaultMuxDataHandler_CMUX(const char* at_buf, int buf_len, char* resp_buf,
                                  int* resp_buf_len, int* resp_direction);
// Wraps an answer into one UIH frame on address dlc - 2; out_buf holds at least 4096 bytes and
// resp_buf_len + 6. Always -1; the caller judges by *out_len. Any thread.
int proc_ue_to_host_cmux_response(int dlc, const char* resp_buf, int resp_buf_len, char* out_buf,
                                  int* out_len);
int get_para_counts(const char* at_buf, int buf_len);
// What decides a payload's road: a dial command starts the data call of the modem port.
bool is_mux_dial_payload(std::string_view payload);
