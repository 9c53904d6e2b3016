#include "mux_session.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "log.h"
#include "shared_int.h"
#include "text_part.h"

tMuxConfig g_MuxCfg{};
eParsePackCurState g_cur_mux_proc_state = CUR_STATE_ERROR;
int g_uart_port_status = 0;
UINT8 g_mux_atcmd_dlc = 0;
UINT8 g_mux_ppp_dlc = 0;

namespace {

constexpr std::string_view kTestAnswer =
    "+CMUX: (0),(0),(1-6),(1-1509),(1-255),(0-5),(2-255),(1-255)";
static_assert(kTestAnswer.size() == 59);

bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

int answer_text(std::string_view text, char* resp_buf, int* resp_buf_len) {
    memcpy(resp_buf, text.data(), text.size());
    resp_buf[text.size()] = '\0';
    *resp_buf_len = static_cast<int>(text.size());
    return 0;
}

int answer_settings(char* resp_buf, int* resp_buf_len) {
    *resp_buf_len =
        snprintf(resp_buf, kMuxAnswerArea, "+CMUX: %d,%d,%d,%d,%d,%d,%d,%d", g_MuxCfg.nMode,
                 g_MuxCfg.nSubSet, g_MuxCfg.nPortSpeed, static_cast<int>(g_MuxCfg.nN1),
                 g_MuxCfg.nT1, g_MuxCfg.nN2, g_MuxCfg.nT2, g_MuxCfg.nT3);
    return 0;
}

// The set is fixed: whatever else the command says, these are what is reported afterwards.
int start_session(UINT8 mode, char* resp_buf, int* resp_buf_len) {
    g_MuxCfg = {.nMode = mode,
                .nSubSet = 0,
                .nPortSpeed = 5,
                .nN1 = 31,
                .nT1 = 10,
                .nN2 = 3,
                .nT2 = 30,
                .nT3 = 10,
                .nK = 2};
    g_cur_mux_proc_state = CUR_STATE_MUX_IDLE;
    store_shared(g_uart_port_status, 1);
    return answer_text("\r\nOK\r\n", resp_buf, resp_buf_len);
}

// A received buffer that begins and ends as a frame does and is as long as the shortest one.
struct ReceivedFrame {
    std::string_view bytes;

    [[nodiscard]] UINT8 address() const { return static_cast<UINT8>(bytes[1]); }
    [[nodiscard]] UINT8 control() const { return static_cast<UINT8>(bytes[2]); }
    [[nodiscard]] UINT8 length() const { return static_cast<UINT8>(bytes[3]); }
    [[nodiscard]] bool is_sabm(UINT8 wanted_address) const {
        return (control() & kMuxControlWithoutPf) == kMuxControlSabm && length() <= 2 &&
               address() == wanted_address;
    }
};

bool is_frame(std::string_view bytes) {
    return bytes.size() >= kMuxMinFrame && static_cast<UINT8>(bytes.front()) == kMuxFlag &&
           static_cast<UINT8>(bytes.back()) == kMuxFlag;
}

// One step of the set-up: in `state`, a SABM on `address` is acknowledged and leads on.
struct SetUpStep {
    eParsePackCurState state;
    UINT8 address;
    eParsePackCurState next;
};

// In the order of the acknowledgements; the fourth channel is DLCI 4.
constexpr SetUpStep kSetUpSteps[] = {
    {CUR_STATE_MUX_IDLE, 0x03, CUR_STATE_DLC0_ESTBLISH},
    {CUR_STATE_DLC0_ESTBLISH, 0x07, CUR_STATE_DLC1_ESTBLISH},
    {CUR_STATE_DLC1_ESTBLISH, 0x0B, CUR_STATE_DLC2_ESTBLISH},
};
constexpr int kLastSetUp = 3;
constexpr UINT8 kLastSetUpAddress = 0x13;

int refuse_set_up(int step) {
    VEXA_LOG("SABM%d format error.\r\n", step);
    return -1;
}

int take_data(const ReceivedFrame& frame, char* resp_buf, int* resp_buf_len, int* resp_direction) {
    if (frame.control() != kMuxControlUih)
        return refuse_set_up(kLastSetUp);
    const auto information = static_cast<std::size_t>(frame.length() / 2);
    // Lowest bit 0: a second length byte follows (27.010 5.2.1.5), a form that is not taken.
    const bool is_two_byte_length = (frame.length() & 1) == 0;
    if (is_two_byte_length || frame.bytes.size() < kMuxMinFrame + information) {
        VEXA_LOG("MUX package format error.\r\n");
        return -1;
    }
    const std::string_view payload = text_part(frame.bytes, kMuxHeadLength, information);
    memset(resp_buf, 0, kMuxAnswerArea);
    memcpy(resp_buf, payload.data(), payload.size());
    *resp_buf_len = static_cast<int>(payload.size());
    *resp_direction = 1;
    store_shared(is_mux_dial_payload(payload) ? g_mux_ppp_dlc : g_mux_atcmd_dlc, frame.address());
    return 0;
}

int take_set_up(int step, const ReceivedFrame& frame, char* resp_buf, int* resp_buf_len) {
    const SetUpStep& wanted = kSetUpSteps[step];
    if (!frame.is_sabm(wanted.address))
        return refuse_set_up(step);
    assemble_ua_ack_packet(step, resp_buf, resp_buf_len);
    g_cur_mux_proc_state = wanted.next;
    return 0;
}

void dump_response(const char* resp_buf, int resp_buf_len) {
    for (int i = 0; i < resp_buf_len; ++i)
        VEXA_PRINT(" 0x%x ", static_cast<unsigned>(static_cast<UINT8>(resp_buf[i])));
}

}  // namespace

bool is_mux_dial_payload(std::string_view payload) {
    return contains(payload, "atd") || contains(payload, "ATD");
}

int proc_host_to_ue_cmux_atcmd(const char* at_buf, int buf_len, char* resp_buf, int* resp_buf_len,
                               int* resp_direction) {
    if (at_buf == nullptr || resp_buf == nullptr)
        return -1;
    if (load_shared(g_uart_port_status) == 0)
        return SA_DefaultCmdHandler_CMUX(at_buf, buf_len, resp_buf, resp_buf_len, resp_direction);
    const int result =
        SA_DefaultMuxDataHandler_CMUX(at_buf, buf_len, resp_buf, resp_buf_len, resp_direction);
    if (result == 0)
        dump_response(resp_buf, *resp_buf_len);
    return result;
}

int SA_DefaultCmdHandler_CMUX(const char* at_buf, int buf_len, char* resp_buf, int* resp_buf_len,
                              int* resp_direction) {
    if (at_buf == nullptr || resp_buf == nullptr) {
        if (resp_buf != nullptr)
            answer_text("\r\nERROR\r\n", resp_buf, resp_buf_len);
        return -1;
    }
    *resp_direction = 0;
    const std::string_view text(at_buf,
                                buf_len > 0 ? strnlen(at_buf, static_cast<size_t>(buf_len)) : 0);
    if (contains(text, "=?"))
        return answer_text(kTestAnswer, resp_buf, resp_buf_len);
    if (contains(text, "x?") || contains(text, "X?"))
        return answer_settings(resp_buf, resp_buf_len);
    if (contains(text, "=0"))
        return start_session(0, resp_buf, resp_buf_len);
    if (contains(text, "=1"))
        return start_session(1, resp_buf, resp_buf_len);
    VEXA_LOG("proc,error don't surport.\r\n");
    return -1;
}

int SA_DefaultMuxDataHandler_CMUX(const char* at_buf, int buf_len, char* resp_buf,
                                  int* resp_buf_len, int* resp_direction) {
    if (at_buf == nullptr || resp_buf == nullptr)
        return -1;
    const ReceivedFrame frame{{at_buf, buf_len > 0 ? static_cast<size_t>(buf_len) : 0}};
    if (!is_frame(frame.bytes)) {
        VEXA_LOG("MUX package format error.\r\n");
        return -1;
    }
    switch (g_cur_mux_proc_state) {
        case CUR_STATE_MUX_IDLE:
        case CUR_STATE_DLC0_ESTBLISH:
        case CUR_STATE_DLC1_ESTBLISH:
            return take_set_up(g_cur_mux_proc_state, frame, resp_buf, resp_buf_len);
        case CUR_STATE_DLC2_ESTBLISH:
        case CUR_STATE_DLC3_ESTBLISH:
            if (!frame.is_sabm(kLastSetUpAddress))
                return take_data(frame, resp_buf, resp_buf_len, resp_direction);
            assemble_ua_ack_packet(kLastSetUp, resp_buf, resp_buf_len);
            g_cur_mux_proc_state = CUR_STATE_DLC3_ESTBLISH;
            return 0;
        default:
            return -1;
    }
}

int proc_ue_to_host_cmux_response(int dlc, const char* resp_buf, int resp_buf_len, char* out_buf,
                                  int* out_len) {
    // The received address with its C/R bit (2) cleared (5.2.1.2): the module is the responder.
    constexpr int kCommandResponseBit = 2;
    assemble_uih_respone_packet(dlc - kCommandResponseBit, resp_buf, resp_buf_len, out_buf,
                                out_len);
    return -1;
}

int get_para_counts(const char* /*at_buf*/, int /*buf_len*/) {
    return 3;
}
