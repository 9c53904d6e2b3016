#include "dispatch.h"

#include <cstring>

#include "answer_count.h"
#include "command_match.h"
#include "command_turn.h"
#include "device_io.h"
#include "host_port_writers.h"
#include "line_settings.h"
#include "log.h"
#include "monotonic_clock.h"
#include "mutex_guard.h"
#include "mux_session.h"
#include "platform_link.h"
#include "port_state.h"
#include "shared_int.h"
#include "signal_wait.h"

namespace {

constexpr int kInputError = -1;
constexpr int kWriteFailed = -1;
constexpr int kPlatformWaitSeconds = 5;
constexpr int kCpWaitSeconds = 10;

// The CP devices whose slow answers are counted, as their paths hold them. The second is not the AT
// port's channel here, /dev/smd7, whose answers are thus not counted; nor are the UART port's.
constexpr const char* kCountedDevices[] = {"/dev/at_mdm0", "/dev/at_smd7"};

// One command on its way: the arguments of the entry points, all there.
struct Command {
    const PortRecord* port;  // null when neither mode nor socket is a port's
    int socketfd;
    const char* text;
    int length;
    int* mode;
    pthread_mutex_t* mutex;
    pthread_cond_t* cond;
    thread_info_t* tinfo;
};

// One command at a time on a port, from its write to the end of its wait: the AT port's USB, PCIe
// and UDP sources would else be woken by each other's answers. Taken by nobody who waits for
// another lock of this kind.
constinit CommandTurn g_command_turns[kPortCount];

bool is_mux_active() {
    return load_shared(g_uart_port_status) != 0;
}

bool path_holds(const char* path, const char* name) {
    return path != nullptr && strstr(path, name) != nullptr;
}

// `used_fd` is the number written to, for a message: it may be another file's by then.
int write_line_to_cp(const Command& command, int& used_fd) {
    const MutexGuard guard(command.tinfo->to_mutex);
    used_fd = *command.tinfo->to_fd;
    return write_to_device(used_fd, command.tinfo->to_file_path, command.length, command.text);
}

void close_cp(const thread_info_t& tinfo) {
    close_fd_mutexed(tinfo.to_file_path, tinfo.to_fd, tinfo.to_mutex);
}

void keep_last_line(const Command& command) {
    if (command.port != nullptr)
        command.port->last_line.assign({command.text, static_cast<std::size_t>(command.length)});
}

// Tells the readers that an answer of CP is awaited on the port that the line came from. Done
// before the write, and taken back when that fails: CP may answer before write() returns, and a
// mark that its final result did not find would hold up the platform's next answer. A late result
// of an earlier command takes the mark away: nothing tells it from this command's own.
class SentMark {
  public:
    explicit SentMark(const thread_info_t& tinfo) {
        for (const PortRecord& port : g_ports)
            if (path_holds(tinfo.from_file_path, port.host_path) &&
                move_shared(port.send_done, 0, 1))
                marked_ = &port;
    }
    void take_back() const {
        if (marked_ != nullptr)
            store_shared(marked_->send_done, 0);
    }

  private:
    const PortRecord* marked_ = nullptr;  // null also when an answer was awaited already
};

void count_answer(const thread_info_t& tinfo, int64_t elapsed_ns) {
    bool is_counted = false;
    for (const char* device : kCountedDevices)
        is_counted = is_counted || path_holds(tinfo.to_file_path, device);
    if (!is_counted)
        return;
    int before = load_shared(g_is_cp_timeout_times);
    while (!move_shared(g_is_cp_timeout_times, before, slow_answers_after(before, elapsed_ns)))
        before = load_shared(g_is_cp_timeout_times);
    const int count = slow_answers_after(before, elapsed_ns);
    if (is_cp_given_up(count))
        VEXA_LOG("!!!!! vexa_at_client exit bls cp error.!!!!! %d, %d, %d.\r\n", count, 0, 0);
}

int send_to_cp(const Command& command) {
    // Kept before the write: CP may answer CONNECT before this thread runs again, and its reader
    // then looks for the dial.
    keep_last_line(command);
    int used_fd = -1;
    const SentMark mark(*command.tinfo);
    if (write_line_to_cp(command, used_fd) < 0) {
        mark.take_back();
        VEXA_LOG("send_atcmd_to_cp close_fd_mutexed 1 '%d'...%d.%d.\n", used_fd, 0, 0);
        close_cp(*command.tinfo);
        return kWriteFailed;
    }
    // While the multiplexer runs nobody waits, so there is no time to judge CP by.
    if (is_mux_active())
        return 0;
    const int64_t start = monotonic_ns();
    wait_for_signal(command.cond, command.mutex, kCpWaitSeconds);
    count_answer(*command.tinfo, monotonic_ns() - start);
    return 0;
}

// Echo, verbosity and S-registers are kept on both sides: CP is told at once and not waited for.
void forward_to_cp_too(const Command& command) {
    int used_fd = -1;
    if (write_line_to_cp(command, used_fd) < 0) {
        close_cp(*command.tinfo);
        VEXA_LOG("write_to_device forward_exc_atcmd_to_cp_too failed. %d.%d.%d.\n", 0, 0, 0);
        return;
    }
    set_atevq_status_flag();
}

int ask_platform(const Command& command, int mode, char* answer) {
    int answer_length = 0;
    return send_data_to_app_platform(command.port, command.socketfd, command.text, command.length,
                                     0, answer, &answer_length, mode);
}

int send_to_platform(const Command& command) {
    const int mode = load_shared(*command.mode);
    if (mode != USB_PORT_ATCMD_MODE && mode != USB_PORT_CMUX_MODE)
        return 0;
    char answer[kAnswerAreaSize];  // text, as far as its NUL
    memcpy(answer, kPlatformDownText, sizeof kPlatformDownText);
    int result = ask_platform(command, mode, answer);
    keep_last_line(command);
    if (result == kSendToCp)
        result = send_to_cp(command);
    else if (result >= command.length && !is_mux_active())
        wait_for_signal(command.cond, command.mutex, kPlatformWaitSeconds);
    if (result >= 0)
        return result;
    VEXA_LOG("!!!!!send_data_to_app_platform(USB_PORT_ATCMD_MODE) faile!!!!!%d,%d,%d.\r\n", result,
             0, 0);
    answer_usb_port(command.port, answer);
    return result;
}

int send_line(const Command& command) {
    if (hijack_atcmd_to_app_platform(command.text, command.length) == 0)
        return send_to_cp(command);
    if (forward_exc_atcmd_to_cp_too(command.text, command.length) == 1)
        forward_to_cp_too(command);
    return send_to_platform(command);
}

bool is_input_missing(const char* buf, int length, const int* port_type, pthread_mutex_t* mutex,
                      pthread_cond_t* cond, const thread_info_t* tinfo) {
    return buf == nullptr || length < 0 || port_type == nullptr || mutex == nullptr ||
           cond == nullptr || tinfo == nullptr;
}

}  // namespace

int send_atcmd_to_plat_or_cp(int socketfd, const char* buf, int at_buf_len, int* port_type,
                             pthread_mutex_t* mutex, pthread_cond_t* cond, thread_info_t* tinfo) {
    if (is_input_missing(buf, at_buf_len, port_type, mutex, cond, tinfo)) {
        VEXA_LOG("send_atcmd_to_plat_cp input error.\r");
        return kInputError;
    }
    const Command command = {
        find_port(port_type, socketfd), socketfd, buf, at_buf_len, port_type, mutex, cond, tinfo};
    // While the multiplexer runs nobody waits, so there is no turn to wait for.
    if (command.port == nullptr || is_mux_active())
        return send_line(command);
    const CommandTurnGuard turn(g_command_turns[command.port->index]);
    return send_line(command);
}

int send_atcmd_to_cp(int socketfd, const char* buf, int at_buf_len, int* port_type,
                     pthread_mutex_t* mutex, pthread_cond_t* cond, thread_info_t* tinfo) {
    if (is_input_missing(buf, at_buf_len, port_type, mutex, cond, tinfo)) {
        VEXA_LOG("send_atcmd_to_cp input error.\r");
        return kInputError;
    }
    return send_to_cp(
        {find_port(port_type, socketfd), socketfd, buf, at_buf_len, port_type, mutex, cond, tinfo});
}
