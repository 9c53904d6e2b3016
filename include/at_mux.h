// Records of the 3GPP TS 27.010 multiplexer on the UART port.
#pragma once

#include <cstdint>

using UINT8 = uint8_t;
using UINT16 = uint16_t;
using UINT32 = uint32_t;
using DWORD = uint32_t;
using BYTE = uint8_t;
using BOOL = int32_t;

// The +CMUX parameters (3GPP TS 27.007 5.7): stored and reported only.
struct tMuxConfig {
    UINT8 nMode;
    UINT8 nSubSet;
    UINT8 nPortSpeed;
    UINT32 nN1;  // frame size
    UINT16 nT1;
    UINT16 nN2;
    UINT16 nT2;
    UINT16 nT3;
    UINT16 nK;
};

struct GSM0710_Frame {
    UINT8 channel;
    UINT8 control;
    UINT16 data_length;
    UINT8 data[1000];
    UINT8 crc;
};

struct GSM0710_Pack {
    UINT8 headFlag;
    GSM0710_Frame frame;
    UINT8 tailFlag;
};

enum eParsePackCurState : int {
    CUR_STATE_MUX_IDLE = 0,
    CUR_STATE_DLC0_ESTBLISH = 1,
    CUR_STATE_DLC1_ESTBLISH = 2,
    CUR_STATE_DLC2_ESTBLISH = 3,
    CUR_STATE_DLC3_ESTBLISH = 4,
    CUR_STATE_DATA_DONE = 5,
    CUR_STATE_MUX_DESTRYOY = 6,
    CUR_STATE_ERROR = 7,
};

extern BOOL bMuxActiveStatus;  // declared for users of this header; the session does not use it
