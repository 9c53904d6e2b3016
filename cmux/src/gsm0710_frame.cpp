#include "gsm0710_frame.h"

#include <cstring>

#include "log.h"

UINT8 m_pSend[5120];
UINT8 m_pReceive[512];
UINT32 m_nReceiveLen;
UINT8 m_bAddress;
BOOL bMuxActiveStatus;

namespace {

constexpr bool table_matches_definition() {
    for (unsigned i = 0; i < r_crctable.size(); ++i)
        if (r_crctable[i] != mux_crc_of(static_cast<UINT8>(i)))
            return false;
    return true;
}

constexpr UINT8 fcs_of(std::array<UINT8, 3> head) {
    return make_fcs(head.data(), static_cast<UINT8>(head.size()));
}

static_assert(table_matches_definition());
static_assert(r_crctable[0] == 0x00 && r_crctable[1] == 0x91 && r_crctable[2] == 0xE3 &&
              r_crctable[3] == 0x72 && r_crctable[255] == 0xCF);
static_assert(fcs_of({0x03, 0x3F, 0x01}) == 0x1C, "SABM on DLCI 0");
static_assert(fcs_of({0x03, 0x73, 0x01}) == 0xD7, "UA on DLCI 0");
static_assert(fcs_of({0x09, 0xEF, 0x05}) == 0xD6, "two bytes of UIH on DLCI 2");

using UaFrame = std::array<UINT8, kMuxMinFrame>;

constexpr std::array<UaFrame, 4> kUaFrames = {{
    {0xF9, 0x03, 0x73, 0x01, 0xD7, 0xF9},  // UA on DLCI 0
    {0xF9, 0x07, 0x73, 0x01, 0x15, 0xF9},  // UA on DLCI 1
    {0xF9, 0x0B, 0x73, 0x01, 0x92, 0xF9},  // UA on DLCI 2
    // DLCI 4: hosts of this module expect SABM's control byte back with the FCS of a UA.
    {0xF9, 0x13, 0x3F, 0x01, 0x5D, 0xF9},
}};

static_assert(fcs_of({0x07, 0x73, 0x01}) == kUaFrames[1][4]);
static_assert(fcs_of({0x0B, 0x73, 0x01}) == kUaFrames[2][4]);
static_assert(fcs_of({0x13, 0x73, 0x01}) == kUaFrames[3][4]);

}  // namespace

UINT32 WriteFrame(UINT8* pFrame, const UINT8* pData, UINT32 cbData) {
    constexpr UINT8 kEscape = 0x7D;
    constexpr UINT8 kStuffedFlag = 0x7E;
    constexpr UINT8 kFlip = 0x20;
    UINT32 written = 0;
    for (UINT32 i = 0; i < cbData; ++i) {
        const UINT8 byte = pData[i];
        if (byte != kEscape && byte != kStuffedFlag) {
            pFrame[written++] = byte;
            continue;
        }
        pFrame[written++] = kEscape;
        pFrame[written++] = byte ^ kFlip;
    }
    return written;
}

int assemble_ua_ack_packet(int dlc_index, char* resp_buf, int* resp_buf_len) {
    memset(resp_buf, 0, kMuxAnswerArea);
    *resp_buf_len = kMuxMinFrame;
    if (dlc_index >= 0 && dlc_index < static_cast<int>(kUaFrames.size()))
        memcpy(resp_buf, kUaFrames[static_cast<unsigned>(dlc_index)].data(), kMuxMinFrame);
    return 1;
}

int assemble_uih_respone_packet(int dlc_index, const char* resp_buf, int resp_buf_len,
                                char* out_buf, int* out_len) {
    if (resp_buf == nullptr || dlc_index < 0 || out_len == nullptr || out_buf == nullptr ||
        resp_buf_len <= 0) {
        VEXA_LOG("assemble_uih_respone_packet input error.\r\n");
        return -1;
    }
    memset(out_buf, 0, kMuxAnswerArea);
    const std::array<UINT8, 3> head = {static_cast<UINT8>(dlc_index), kMuxControlUih,
                                       static_cast<UINT8>(resp_buf_len * 2 + 1)};
    const UINT8 crc = fcs_of(head);
    const auto length = static_cast<std::size_t>(resp_buf_len);
    out_buf[0] = static_cast<char>(kMuxFlag);
    memcpy(out_buf + 1, head.data(), head.size());
    memcpy(out_buf + kMuxHeadLength, resp_buf, length);
    out_buf[kMuxHeadLength + length] = static_cast<char>(crc);
    out_buf[kMuxHeadLength + length + 1] = static_cast<char>(kMuxFlag);
    *out_len = resp_buf_len + kMuxMinFrame;
    VEXA_LOG("assemble_uih_respone_packet input exit. %d, out_len:%d, crc:0x%x.\r\n", dlc_index,
             *out_len, static_cast<unsigned>(crc));
    return 1;
}
