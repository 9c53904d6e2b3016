// The multiplexer session on the UART port: +CMUX, set-up, and the road of the payloads.
#pragma once

#include "at_mux.h"

extern tMuxConfig g_MuxCfg;
extern int g_cur_mux_proc_state;  // eParsePackCurState
extern int g_uart_port_status;    // 1 once +CMUX was accepted, never set back; shared_int.h
extern int g_mux_atcmd_dlc;       // address byte of the last AT payload, 0 before one came
extern int g_mux_ppp_dlc;         // address byte of the last dial payload, 0 before one came

// The largest information field of one UIH frame (one length byte, 3GPP TS 27.010 5.2.1.5).
inline constexpr int kMuxMaxInformation = 127;

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
