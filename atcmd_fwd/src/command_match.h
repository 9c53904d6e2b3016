// What kind of line the host typed: predicates over a line and its length. All are safe from any
// thread and take no lock. Those that compare the line's name set S3, S4 and S5 from an "ATSn="
// line on the way; hijack_atcmd_to_app_platform also switches the diagnostics log.
#pragma once

// Length of the command name at the start of the line; -1 for null, 0 for an empty line.
int get_input_at_prefix_len(const char* at_cmd);
// 1 when the line's name is the table string, ignoring case; else 0.
int vexa_strmatch(const char* inputAtBuf, const char* tableMatchStr);

int hijack_atcmd_to_app_platform(const char* at_buf, int buf_len);
int forward_exc_atcmd_to_cp_too(const char* at_buf, int buf_len);
int is_input_sms_atcmd(const char* at_buf, int buf_len);
int is_input_hex_atcmd(const char* at_buf, int buf_len);
int is_input_cmux_cmd(const char* at_buf, int buf_len);
int is_input_ppp_atcmd(const char* at_buf, int buf_len);

int is_input_at_finished(const char* at_buf, int buf_len);
int is_input_at_legal(const char* at_buf, int buf_len);
int is_input_combine_atcmd(const char* at_buf, int buf_len);
int is_input_sms_finished(const char* at_buf, int buf_len);
int is_input_hex_finished(const char* at_buf, int buf_len);
int is_enter_sms_mode(const char* at_buf, int buf_len);
int is_exit_sms_mode(const char* at_buf, int buf_len);
int is_enter_ppp_mode(const char* at_buf, int buf_len, const char* last_at_buf);
int is_exit_ppp_mode(const char* at_buf, int buf_len);
int is_enter_hex_mode(const char* at_buf, int buf_len);
int is_enter_data_mode(const char* at_buf, int buf_len);
int is_enter_hex_mode_baseon_para(const char* at_buf, int buf_len);
int is_enter_sms_mode_base_on_para(const char* at_buf, int buf_len);

// Whether the command is one of the platform's worth waiting for (ght_at_table). 1 or 0.
int is_ght_atcmd(const char* at_buf);
