// Wire records, enums and sizes shared by several rooms.
#pragma once

#include <cstddef>
#include <cstdint>

// Where log lines go: 1 the diagnostic channel, anything else standard output.
// Read and written by every thread through load_shared()/store_shared() (shared_int.h).
extern int g_qxdm_log;

// A device read asks for at most this many bytes; a line of text holds at most as many.
inline constexpr int kDeviceReadSize = 16384;
// A text area: kDeviceReadSize characters and a NUL.
inline constexpr int kTextAreaSize = kDeviceReadSize + 1;
// Answer area of one command, filled with the "not running" text before the platform answers.
inline constexpr int kAnswerAreaSize = 4096;

// The mode of a host port: what its next bytes mean.
enum usb_port_mode_type : int {
    USB_PORT_ATCMD_MODE = 0,
    USB_PORT_HEX_MODE = 1,
    USB_PORT_SMS_MODE = 2,
    USB_PORT_PPP_MODE = 3,
    USB_PORT_DATA_MODE = 4,
    USB_PORT_CMUX_MODE = 5,
};

enum cmd_enum_type : int32_t {
    CMD_INVALID = -1,
    CMD_IND = 0,
    CMD_AT_CMD = 1,
    CMD_AT_DATA = 2,
    CMD_AT_ONLINE_CMD = 3,
    CMD_PORT_REPORT = 4,
    CMD_MAX = 5,
};

enum msg_enum_type : int32_t { MSG_SYNC = 0, MSG_ASYNC = 1, MSG_IND = 2, MSG_MAX = 3 };

enum port_name_enum_type : int32_t {
    PORT_INVALID = -1,
    PORT_AT0 = 0,
    PORT_AT1 = 1,
    PORT_NAMEA = 2,
    PORT_MBIM = 3,
    PORT_UART = 4,
    PORT_MAX = 5,
};

enum e_vexa_cust_flag_type : int32_t {
    E_CUST_DEFAULT = 0,
    E_CUST_EE_DEVINFO = 1,
    E_CUST_JSON_RESTORE = 2,
};

// One message between the daemon and the app platform, in the machine's byte order:
//
//   0        8               20                       44
//   | pack   | msg           | sock (command)         | payload ...
//
struct vexa_pack_head_t {
    uint32_t pack_head;  // "kcap"
    uint32_t pack_len;   // bytes of the whole pack, heads included
};

struct vexa_msg_head_t {
    uint32_t txn_id;
    msg_enum_type msg_type;
    int32_t msg_not_finish;
};

struct vexa_sock_head_t {
    cmd_enum_type cmd_type;
    e_vexa_cust_flag_type cust_flag;
    int32_t error_code;
    uint32_t usr_p;
    uint32_t content_len;
    uint8_t data_start;
    uint8_t data_complete;
    uint8_t padding[2];
};

static_assert(sizeof(vexa_pack_head_t) == 8);
static_assert(sizeof(vexa_msg_head_t) == 12);
static_assert(sizeof(vexa_sock_head_t) == 24);
static_assert(offsetof(vexa_sock_head_t, content_len) == 16);
static_assert(offsetof(vexa_sock_head_t, data_start) == 20);
static_assert(offsetof(vexa_sock_head_t, data_complete) == 21);

// Goes beside a send and a receive, never on the wire.
struct vexa_ext_info {
    msg_enum_type m_type;
    int32_t cmd_type;  // send: the port's mode; receive: the answer's cmd_enum_type
    int32_t data_len;  // payload bytes
};
