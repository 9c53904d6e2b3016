#include "at_engine.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "combined_line.h"
#include "command_match.h"
#include "device_io.h"
#include "dispatch.h"
#include "host_port_writers.h"
#include "input_source.h"
#include "line_settings.h"
#include "log.h"
#include "mutex_guard.h"
#include "mux_input.h"
#include "mux_session.h"
#include "platform_link.h"
#include "port_state.h"
#include "shared_int.h"
#include "text_part.h"

namespace {

constexpr int kDealtWith = 1;
constexpr int kNotDealtWith = 0;
constexpr char kBackspace = 0x08;
constexpr char kLineFeed = '\n';
constexpr char kCarriageReturn = '\r';
constexpr char kCtrlZ = 0x1A;

// The line with spaces removed, per thread; its last S3 character may stand behind a full line.
thread_local char g_at_buf_cache_no_sb[kTextAreaSize + 1];
static_assert(sizeof g_at_buf_cache_no_sb == kDeviceReadSize + 2);  // the line, S3 and a NUL

// True from an overlong line's overflow to the chunk that completes it; the source's thread only.
bool g_discarding[kInputSourceCount];

bool& is_discarding() {
    return g_discarding[static_cast<int>(current_input_source())];
}

// One call's arguments. `mode` and `data` are never null here; the others may be.
struct Input {
    const PortRecord* port;  // null when neither mode nor socket is a port's
    int socketfd;
    std::string_view data;
    int* mode;
    pthread_mutex_t* mutex;
    pthread_cond_t* cond;
    thread_info_t* tinfo;

    [[nodiscard]] bool is_on(PortIndex index) const {
        return port != nullptr && port->index == index;
    }
};

int length_of(std::string_view text) {
    return static_cast<int>(text.size());
}

std::string_view line_text() {
    return {current_line().text(), current_line().length()};
}

int line_length() {
    return static_cast<int>(current_line().length());
}

void send_line(const Input& input, const char* line, int length) {
    send_atcmd_to_plat_or_cp(input.socketfd, line, length, input.mode, input.mutex, input.cond,
                             input.tinfo);
}

void echo_character(const Input& input) {
    store_shared(g_is_single_char_input, 1);
    const char text[] = {input.data.front(), '\0'};
    // A NUL is echoed like any byte, hence not answer_usb_port.
    if (input.is_on(kModemPort))
        send_result_to_usb_modem(text, 1, 0);
    if (input.is_on(kAtPort))
        send_result_to_usb_atport(text, 1, 0);
}

// Whether the chunk's own end completes a line, whatever stands before it.
bool ends_a_line(std::string_view chunk) {
    if (chunk.empty())
        return false;
    const char s3 = static_cast<char>(s3_char());
    const char last = chunk.back();
    if (last == kCarriageReturn || last == s3 || last == kCtrlZ)
        return true;
    return chunk.size() >= 2 && chunk[chunk.size() - 2] == s3 && last == kLineFeed;
}

// False when the chunk belongs to a line that does not fit.
bool gather(std::string_view chunk) {
    if (is_discarding()) {
        is_discarding() = !ends_a_line(chunk);
        return false;
    }
    if (current_line().append(chunk))
        return true;
    VEXA_LOG("atcmd is too long, drop it. %d,%d,%d.\r\n", line_length(), length_of(chunk), 0);
    current_line().clear();
    is_discarding() = !ends_a_line(chunk);
    return false;
}

bool is_repeat_line(std::string_view line) {
    constexpr std::string_view kRepeats[] = {"A/\r", "a/\r", "A/\r\n", "a/\r\n", "A/", "a/"};
    return std::find(std::begin(kRepeats), std::end(kRepeats), line) != std::end(kRepeats);
}

// ITU-T V.250 5.2.4. The last line is laid over the start of this one; what it does not cover
// stays.
void repeat_last_line(const Input& input) {
    if (input.port == nullptr)
        return;
    char text[kTextAreaSize];
    const std::size_t count = input.port->last_line.copy_to(text, sizeof text);
    std::string_view rest = line_text();
    rest.remove_prefix(std::min(count, rest.size()));
    memcpy(text + count, rest.data(), rest.size());
    current_line().assign({text, count + rest.size()});
}

void remove_spaces() {
    int length = 0;
    if (input_atcmd_ignore_spaceback(current_line().text(), line_length(), g_at_buf_cache_no_sb,
                                     &length) == 0)
        current_line().assign({g_at_buf_cache_no_sb, static_cast<std::size_t>(length)});
}

// Brings a complete line into the form that is classified. False when it is no command.
bool clean_line(const Input& input) {
    if (is_repeat_line(line_text()))
        repeat_last_line(input);
    if (line_text().find(' ') != std::string_view::npos)
        remove_spaces();
    if (is_input_at_legal(current_line().text(), line_length()) == 1)
        return true;
    VEXA_LOG("atcmd is illegal clean it. g_at_buf_cache:<%s>,%d,%d.\r\n", current_line().text(), 0,
             0);
    current_line().clear();
    return false;
}

void start_multiplexer(const Input& input) {
    char answer[kAnswerAreaSize];  // text, as far as its NUL
    memcpy(answer, kPlatformDownText, sizeof kPlatformDownText);
    int answer_length = 0;
    int direction = 0;
    proc_host_to_ue_cmux_atcmd(current_line().text(), line_length(), answer, &answer_length,
                               &direction);
    if (load_shared(g_uart_port_status) == 1) {
        // Whatever CP has just said: frames come next, and no way leads back.
        store_shared(*input.mode, USB_PORT_CMUX_MODE);
    }
    current_line().clear();
    send_result_to_usb_uartport(answer, static_cast<int>(strnlen(answer, sizeof answer)), 0);
}

void send_combined_line(const Input& input) {
    const CombinedLine combined = split_combined_line(line_text());
    if (combined.count == 0) {
        VEXA_LOG(
            "!!!!!!!!!!!!!combine atcmd enter but invaild lenght...%d,:%d,%d.\r\n.!!!!!!!!!!!!!",
            line_length(), 0, 0);
        send_line(input, current_line().text(), line_length());
        return;
    }
    for (int i = 0; i < combined.count; ++i)
        send_line(input, combined.commands[i], kCombinedCommandLength);
}

int handle_complete_line(const Input& input) {
    if (!clean_line(input))
        return kNotDealtWith;
    const char* line = current_line().text();
    const int length = line_length();
    is_input_sms_atcmd(line, length);  // only traced: the prompt of CP begins SMS mode
    if (const int hex = is_input_hex_atcmd(line, length); hex != 0)
        move_shared(*input.mode, USB_PORT_ATCMD_MODE, hex);
    // The multiplexer runs on the UART; on another port the command is CP's to judge.
    if (input.is_on(kUartPort) && is_input_cmux_cmd(line, length) > 0) {
        start_multiplexer(input);
        return kNotDealtWith;
    }
    const int combination = is_input_combine_atcmd(line, length);
    if (combination == 1)
        VEXA_LOG("combined registration atcmd:<%s>,%d,%d.\r\n", line, length, 0);
    if (combination == 2)
        send_combined_line(input);
    if (combination == 0)
        send_line(input, line, length);
    current_line().clear();
    return kDealtWith;
}

int handle_command_bytes(const Input& input) {
    if (input.data.size() == 1) {
        if (is_echo_on())
            echo_character(input);
        if (input.data.front() == kBackspace) {
            current_line().remove_last();
            return kNotDealtWith;
        }
    }
    // Text ends at a NUL in command mode.
    if (!gather(text_part(input.data, 0, input.data.find('\0'))))
        return kNotDealtWith;
    if (is_input_at_finished(current_line().text(), line_length()) == 1)
        return handle_complete_line(input);
    if (is_input_at_legal(current_line().text(), line_length()) == 0)
        current_line().clear();
    return kNotDealtWith;
}

int write_chunk_to_cp(const Input& input) {
    const thread_info_t* tinfo = input.tinfo;
    if (tinfo == nullptr)
        return kNotDealtWith;
    int written = 0;
    {
        const MutexGuard guard(tinfo->to_mutex);
        written = write_to_device(*tinfo->to_fd, tinfo->to_file_path, length_of(input.data),
                                  input.data.data());
    }
    if (written >= 0)
        return kDealtWith;
    close_fd_mutexed(tinfo->to_file_path, tinfo->to_fd, tinfo->to_mutex);
    return kNotDealtWith;
}

int handle_sms_text(const Input& input) {
    if (is_input_sms_finished(input.data.data(), length_of(input.data)) == 1)
        move_shared(*input.mode, USB_PORT_SMS_MODE, USB_PORT_ATCMD_MODE);
    return write_chunk_to_cp(input);
}

bool is_ppp_escape(std::string_view chunk) {
    constexpr std::size_t kLongestEscape = 5;
    constexpr std::string_view kHangUp = "ATH\r";
    if (chunk == "+++")
        return true;
    return chunk.size() >= kHangUp.size() && chunk.size() <= kLongestEscape &&
           strncasecmp(chunk.data(), kHangUp.data(), kHangUp.size()) == 0;
}

int handle_ppp_data(const Input& input) {
    if (is_ppp_escape(input.data)) {
        VEXA_LOG("we got %s, exit ppp mode. %d.%d.\n", input.data.data(), length_of(input.data), 0);
        move_shared(*input.mode, USB_PORT_PPP_MODE, USB_PORT_ATCMD_MODE);
    }
    return write_chunk_to_cp(input);
}

// `mode` is the one that the chunk was taken for data in: the platform may end data mode meanwhile.
int handle_platform_data(const Input& input, int mode) {
    char answer[kAnswerAreaSize];  // text, as far as its NUL
    memcpy(answer, kPlatformDownText, sizeof kPlatformDownText);
    int answer_length = 0;
    const int length = length_of(input.data);
    if (length == 1 && input.data.front() == kCtrlZ)
        VEXA_LOG("we got ctrl+z, exit data mode. %d.%d.%d.\n", length, 0, 0);
    const int sent = send_data_to_app_platform(input.port, input.socketfd, input.data.data(),
                                               length, 0, answer, &answer_length, mode);
    if (sent <= 0)
        answer_usb_port(input.port, answer);
    return kDealtWith;
}

int handle_chunk(const Input& input) {
    const int mode = load_shared(*input.mode);
    switch (mode) {
        case USB_PORT_ATCMD_MODE:
            return handle_command_bytes(input);
        case USB_PORT_SMS_MODE:
            return handle_sms_text(input);
        case USB_PORT_PPP_MODE:
            return handle_ppp_data(input);
        case USB_PORT_DATA_MODE:
            return handle_platform_data(input, mode);
        case USB_PORT_CMUX_MODE:
            return handle_mux_input(input.data.data(), length_of(input.data));
        default:
            // Nothing takes bytes in hex mode: they are traced and dropped.
            VEXA_LOG("chunk dropped, port mode:%d, length:%d,%d.\r\n", mode, length_of(input.data),
                     0);
            return kDealtWith;
    }
}

}  // namespace

int common_input_atcmd_proc(int socketfd, char* buf, int num_read, int* port_type,
                            pthread_mutex_t* mutex, pthread_cond_t* cond, thread_info_t* tinfo) {
    if (port_type == nullptr || buf == nullptr || tinfo == nullptr || mutex == nullptr ||
        cond == nullptr)
        VEXA_LOG("common_input_atcmd_proc input error.%d,%d,%d.\r\n", socketfd, num_read, 0);
    if (num_read <= 0) {
        VEXA_LOG("!!!!!!common_input_atcmd_proc read data 0 !!!!%d,%d,%d.\r\n", num_read, 0, 0);
        return kDealtWith;
    }
    if (buf == nullptr || port_type == nullptr)
        return kNotDealtWith;
    buf[num_read] = '\0';
    return handle_chunk({find_port(port_type, socketfd),
                         socketfd,
                         {buf, static_cast<std::size_t>(num_read)},
                         port_type,
                         mutex,
                         cond,
                         tinfo});
}
