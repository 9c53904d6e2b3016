// S-registers, echo and verbose switches: one setting serves all host ports.
#pragma once

#include <cstdint>

// ITU-T V.250 6.2: S3 ends a command line, S4 formats responses, S5 edits the line. Bytes that
// several threads share: read and written through shared_int.h.
extern uint8_t g_ats3_carriage_return_char;
extern uint8_t g_ats4_line_feed_char;
extern uint8_t g_ats5_cmd_line_edit_char;
extern int g_client_ate_status;  // -99 echo on, 99 echo off
extern int g_client_atv_status;  // 1 verbose, 0 not

inline constexpr int kEchoOn = -99;
inline constexpr int kEchoOff = 99;

uint8_t s3_char();
uint8_t s4_char();
bool is_echo_on();

// Whether a digit belongs to the command's name (0) or ends it (-1); sets S3, S4 or S5 from an
// "ATSn=value" line on the way.
int vexa_check_specialstring(const char* str);

// How an "ATSn=value" line reads with one S3.
struct SRegisterLine {
    enum class Kind { incomplete, too_long, whole } kind;
    int distance;      // from "=" to the terminator
    uint8_t* setting;  // null: changes nothing
    uint8_t value;
};

// Answers vexa_check_specialstring() for one line as often as its name has digits, without reading
// the line again for each. The line outlives it and stays as it is.
class SpecialLine {
  public:
    explicit SpecialLine(const char* line) : line_(line) {}
    int check();

  private:
    enum class Kind { unknown, ordinary, digits_in_name, s_register };
    static Kind kind_of(const char* line);

    const char* line_;
    Kind kind_ = Kind::unknown;
    int read_with_s3_ = -1;
    SRegisterLine s_register_{};
};

// Records ATE and ATV of the line that the calling thread's input source is sending.
int set_atevq_status_flag(void);
// The line without spaces outside quotes, up to and with its first S3 character. `at_buf_no_sb`
// holds at_buf_len + 1 bytes and a NUL. 0, or -1 for nulls and no length.
int input_atcmd_ignore_spaceback(const char* at_buf, int at_buf_len, char* at_buf_no_sb,
                                 int* len_without_spaceback);
