#include "mux_input.h"

#include <cstring>
#include <string_view>

#include "dispatch.h"
#include "frame_gatherer.h"
#include "host_port_writers.h"
#include "monotonic_clock.h"
#include "mux_session.h"
#include "port_state.h"
#include "shared_int.h"

namespace {

constexpr char kRefused[] = "\r\n!!!!!MUX data error!!!!!.\r\n";

// Both are the UART host reader's thread's only.
FrameGatherer g_gatherer;
bool g_is_first_chunk = true;

bool is_uart_command(std::string_view payload) {
    return payload.find("at") != std::string_view::npos ||
           payload.find("AT") != std::string_view::npos;
}

// Dial commands and data belong to the modem port's channel, other commands to the UART's.
void send_payload(std::string_view payload) {
    if (payload.empty())
        return;
    const bool is_uart = !is_mux_dial_payload(payload) && is_uart_command(payload);
    const PortRecord& port = g_ports[is_uart ? kUartPort : kModemPort];
    thread_info_t* const tinfo =
        load_shared(is_uart ? g_uart_tinfo_for_mux : g_modem_tinfo_for_mux);
    send_atcmd_to_plat_or_cp(load_shared(port.platform_socket), payload.data(),
                             static_cast<int>(payload.size()), &port.mode, &port.response_mutex,
                             &port.response_cond, tinfo);
}

void handle_piece(std::string_view piece) {
    char response[kMuxAnswerArea];  // text, as far as its NUL
    memcpy(response, kRefused, sizeof kRefused);
    int length = 0;
    int direction = 0;
    proc_host_to_ue_cmux_atcmd(piece.data(), static_cast<int>(piece.size()), response, &length,
                               &direction);
    if (direction == 0)
        send_result_to_usb_uartport(response, static_cast<int>(strlen(response)), 0);
    if (direction == 1)
        send_payload({response, static_cast<std::size_t>(length)});
}

// "AT+CMUX=0" may end with S3 and LF, and the LF come in a read of its own: it ends that line.
void drop_line_end(std::string_view& input) {
    if (g_is_first_chunk && input.starts_with('\n'))
        input.remove_prefix(1);
    g_is_first_chunk = false;
}

}  // namespace

int handle_mux_input(const char* buf, int num_read) {
    std::string_view input(buf, num_read > 0 ? static_cast<std::size_t>(num_read) : 0);
    drop_line_end(input);
    const int64_t now = monotonic_ms();
    while (const auto piece = g_gatherer.next(input, now)) handle_piece(*piece);
    g_gatherer.quiet_from(monotonic_ms());
    return 1;
}

void reset_mux_input() {
    g_gatherer.reset();
}
