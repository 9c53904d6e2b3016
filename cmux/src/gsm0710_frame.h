// Frames of the basic option of 3GPP TS 27.010 (5.2.1), as this daemon writes them:
//
//   0      1         2         3        4               4+n   5+n
//   | flag | address | control | length | information n | FCS | flag |
//   | F9   | DLCI C/R EA       | 2n+1   |                     | F9   |
#pragma once

#include <array>

#include "at_mux.h"

inline constexpr UINT8 kMuxFlag = 0xF9;
inline constexpr UINT8 kMuxControlUih = 0xEF;
inline constexpr UINT8 kMuxControlSabm = 0x2F;       // P bit cleared
inline constexpr UINT8 kMuxControlWithoutPf = 0xEF;  // mask: everything but the P/F bit
inline constexpr int kMuxHeadLength = 4;             // flag, address, control, one length byte
inline constexpr int kMuxTailLength = 2;             // FCS, flag
inline constexpr int kMuxMinFrame = kMuxHeadLength + kMuxTailLength;
// The largest information field of one UIH frame (one length byte, 5.2.1.5).
inline constexpr int kMuxMaxInformation = 127;
// The frame builders clear this much of their output.
inline constexpr int kMuxAnswerArea = 4096;

// The reversed CRC of x^8 + x^2 + x + 1 (5.2.1.6, annex B), one entry per register value.
constexpr UINT8 mux_crc_of(UINT8 value) {
    unsigned bits = value;
    for (int i = 0; i < 8; ++i) bits = (bits & 1) != 0 ? (bits >> 1) ^ 0xE0U : bits >> 1;
    return static_cast<UINT8>(bits);
}

// Built by halves: the CRC is linear, so an entry is the combination of its bits' entries.
constexpr std::array<UINT8, 256> make_mux_crc_table() {
    std::array<UINT8, 256> table{};
    for (unsigned bit = 1; bit < 256; bit <<= 1) {
        table[bit] = mux_crc_of(static_cast<UINT8>(bit));
        for (unsigned low = 1; low < bit; ++low) table[bit + low] = table[bit] ^ table[low];
    }
    return table;
}

inline constexpr std::array<UINT8, 256> r_crctable = make_mux_crc_table();

constexpr UINT8 make_fcs(const UINT8* input, UINT8 count) {
    if (count == 0)
        return 0;
    UINT8 fcs = 0xFF;
    for (unsigned i = 0; i < count; ++i) fcs = r_crctable[fcs ^ input[i]];
    return static_cast<UINT8>(~fcs);
}

// Copies with the byte stuffing of the advanced option (7D and 7E become 7D, byte XOR 20) and
// returns the bytes written, at most twice `cbData`. The session's frames go without it.
UINT32 WriteFrame(UINT8* pFrame, const UINT8* pData, UINT32 cbData);
// The acknowledgement of set-up 0..3 into 4096 bytes; *resp_buf_len is 6. Always 1; for another
// index the area is only cleared.
int assemble_ua_ack_packet(int dlc_index, char* resp_buf, int* resp_buf_len);
// One UIH frame on the complete address byte `dlc_index` into `out_buf`, which holds 4096 bytes
// and resp_buf_len + 6. 1, or -1 on bad arguments with the outputs untouched. A length over
// kMuxMaxInformation wraps in the length byte: callers split before.
int assemble_uih_respone_packet(int dlc_index, const char* resp_buf, int resp_buf_len,
                                char* out_buf, int* out_len);

// Send and receive areas that belong to the codec's names; no path of the daemon uses them.
extern UINT8 m_pSend[5120];
extern UINT8 m_pReceive[512];
extern UINT32 m_nReceiveLen;
extern UINT8 m_bAddress;
