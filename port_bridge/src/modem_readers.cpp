#include "modem_readers.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "command_match.h"
#include "device_io.h"
#include "input_source.h"
#include "log.h"
#include "mhi_monitor.h"
#include "monotonic_clock.h"
#include "mutex_guard.h"
#include "mux_output.h"
#include "mux_session.h"
#include "port_state.h"
#include "shared_device.h"
#include "shared_int.h"
#include "signal_pause.h"

namespace {

constexpr short kChannelEvents = POLLIN | POLLPRI | POLLERR | POLLHUP;
constexpr short kLostEvents = POLLERR | POLLHUP | POLLNVAL;
// GLINK packet channels: the reader offers room for one packet before it can come.
constexpr unsigned long kQueueReceiveIntent = 0x4004C300;
constexpr uint32_t kReceiveIntentSize = kDeviceReadSize;
// The MHI member's wait for data ends this often to look at the control lines.
constexpr int kMhiWaitMs = 500;

// A channel whose other end says no more is readable for ever and gives nothing. One empty read may
// be an empty packet; from the second in a row on the reader looks less and less often, at last
// once a second. One that comes long after the one before is an empty packet again.
class EmptyReads {
  public:
    void note(int length) {
        if (length != 0) {
            in_a_row_ = 0;
            return;
        }
        const int64_t now = monotonic_ms();
        if (now - last_ms_ > kForgottenMs)
            in_a_row_ = 0;
        last_ms_ = now;
        if (in_a_row_ > 0)
            usleep(std::min(kFirstPause << in_a_row_, kLongestPause));
        in_a_row_ = std::min(in_a_row_ + 1, kMostCounted);
    }

  private:
    static constexpr useconds_t kFirstPause = 500;
    static constexpr useconds_t kLongestPause = 1'000'000;
    static constexpr int kMostCounted = 11;        // 500 us << 11 is over a second
    static constexpr int64_t kForgottenMs = 2000;  // longer than any pause

    int in_a_row_ = 0;
    int64_t last_ms_ = 0;  // of the last empty read
};

// What differs between the three GLINK members.
struct GlinkMember {
    void* (*entry)(void*);
    PortIndex port;
    InputSource source;           // whose line cache is logged
    const char* name;             // as it stands in log lines
    const char* channel_fd_name;  // ... of the channel's slot
    const char* host_fd_name;     // ... of the published descriptor
    const char* poll_text_end;    // ... of the line before the wait
    int** host_fd;                // publishes the host port's slot
    int** host_fd_pcie;           // ... its second one; null without
    pthread_mutex_t* host_mutex;  // receives a copy of an unlocked mutex
    uint8_t* mux_dlc;             // channel of answers while the multiplexer runs; null: no part
    bool tracks_modes_on_mux;
    bool answers_on_uart_reader;  // multiplexed answers leave by the UART reader's record
    bool logs_sms_entry;
    bool logs_host_close;
};

constexpr std::array<GlinkMember, kPortCount> kGlinkMembers = {{
    {modem_to_usb_bridge_glink, kModemPort, InputSource::modem_port, "modem_to_usb_bridge_glink",
     "mdm_fd", "g_fd_usb_modem_device", " waiting", &g_fd_usb_modem_device, nullptr,
     &g_mutex_usb_devie, &g_mux_ppp_dlc, false, true, true, false},
    {modem_to_usb_bridge_glink_atport, kAtPort, InputSource::at_port,
     "modem_to_usb_bridge_glink_atport", "mdm_atport_fd", "g_fd_usb_atport_device", "",
     &g_fd_usb_atport_device, &g_fd_usb_atport_device_pcie, &g_mutex_usb_atport_devie, nullptr,
     true, false, false, false},
    {modem_to_usb_bridge_glink_uartport, kUartPort, InputSource::uart_port,
     "modem_to_usb_bridge_glink_uartport", "mdm_uartport_fd", "g_fd_usb_uartport_device", "",
     &g_fd_usb_uartport_device, nullptr, &g_mutex_usb_uartport_devie, &g_mux_atcmd_dlc, true, false,
     false, true},
}};
static_assert(is_by_port(kGlinkMembers, &GlinkMember::port));

void publish(const GlinkMember& member, const thread_info_t& info) {
    *member.host_fd = info.to_fd;
    if (member.host_fd_pcie != nullptr)
        *member.host_fd_pcie = info.to_fd_pcie;
    // The bytes of an unlocked mutex, whoever holds the original now: a distinct object from here.
    static constexpr pthread_mutex_t kUnlocked = PTHREAD_MUTEX_INITIALIZER;
    memcpy(member.host_mutex, &kUnlocked, sizeof(kUnlocked));
}

bool is_final_result(const char* chunk) {
    static constexpr std::array<const char*, 6> kFinalWords = {
        "ok\r\n", "OK\r\n", "error", "ERROR", "no carrier", "NO CARRIER"};
    for (const char* word : kFinalWords)
        if (strstr(chunk, word) != nullptr)
            return true;
    return false;
}

void log_lost_events(short revents) {
    if ((revents & POLLERR) != 0)
        VEXA_LOG("POLLERR is set.\r\n");
    if ((revents & POLLHUP) != 0)
        VEXA_LOG("POLLHUP is set.\r\n");
}

// The channel of a modem reader: opened for ever until it is there.
class Channel {
  public:
    Channel(const char* name, const char* fd_name, const DeviceEnd& device)
        : name_(name), fd_name_(fd_name), device_(device) {}

    [[nodiscard]] const DeviceEnd& device() const { return device_; }

    // True when the channel had to be opened.
    bool open_if_closed() {
        bool was_closed = false;
        while (load_device(device_) < 0) {
            was_closed = true;
            VEXA_LOG("%s Attempting to open '%s'...\r\n", name_, device_.path);
            const int fd = open_device(device_.path);
            if (fd < 0) {
                sleep(1);
                continue;
            }
            store_device(device_, fd);
            VEXA_LOG("OPEN THE FILE %s.\r\n", fd_name_);
        }
        return was_closed;
    }

    void close_it() {
        VEXA_LOG("Closing: '%s'\r\n", device_.path);
        close_fd_mutexed(device_.path, device_.slot, device_.mutex);
    }

  private:
    const char* name_;
    const char* fd_name_;
    DeviceEnd device_;
};

// Writes a chunk to a device under its mutex.
int write_chunk(const DeviceEnd& device, const char* chunk, int length) {
    const MutexGuard guard(device.mutex);
    return write_to_device(*device.slot, device.path, length, chunk);
}

class GlinkReader {
  public:
    GlinkReader(const GlinkMember& member, const thread_info_t& info)
        : member_(member),
          port_(g_ports[member.port]),
          info_(info),
          channel_(member.name, member.channel_fd_name, source_of(info)) {}

    [[noreturn]] void run() {
        VEXA_LOG("%s enter.\r\n", member_.name);
        while (true) pass();
    }

  private:
    void pass();
    bool queue_intent();
    void copy_control_lines();
    void track_modes(int length);
    bool deliver(int length);
    bool deliver_multiplexed(int length);
    bool deliver_to(const DeviceEnd& host, int length);
    void after_host_write_failed(const DeviceEnd& host);
    void signal_engine();

    const GlinkMember& member_;
    const PortRecord& port_;
    const thread_info_t& info_;
    Channel channel_;
    bool intent_queued_ = false;
    EmptyReads empty_reads_;
    int signals_ = 0;
    char chunk_[kTextAreaSize] = {};
    char text_[kTextAreaSize] = {};  // copies of other threads' texts
};

void GlinkReader::pass() {
    const DeviceEnd& device = channel_.device();
    VEXA_LOG("%s while.%s:%d,to_fd:%d,from_fd:%d.\r\n", member_.name, member_.host_fd_name,
             load_shared(*info_.to_fd), load_shared(*info_.to_fd), load_shared(*device.slot));
    // An intent belongs to the descriptor it was queued on, whoever closed that.
    if (channel_.open_if_closed())
        intent_queued_ = false;
    if (!queue_intent())
        return;
    VEXA_LOG("Attempting to poll(%s waiting cp) '%s'%s...\r\n", port_.log_name, device.path,
             member_.poll_text_end);
    const DevicePoll polled = poll_shared_device(device.slot, device.mutex, kChannelEvents);
    if (polled.closed)
        return;
    log_lost_events(polled.revents);
    if (polled.result < 0 || (polled.revents & kLostEvents) != 0) {
        channel_.close_it();
        return;
    }
    if ((polled.revents & POLLPRI) != 0)
        copy_control_lines();
    if ((polled.revents & POLLIN) == 0)
        return;
    VEXA_LOG("Marking rx intent as consumed.\r\n");
    intent_queued_ = false;
    const int length = read_device(device, polled.fd, chunk_);
    VEXA_LOG("read from '%s' num_read: %d.\r\n", device.path, length);
    if (length == -1)
        channel_.close_it();
    empty_reads_.note(length);
    if (length <= 0)
        return;
    chunk_[length] = '\0';
    VEXA_LOG("buf contains(%s) '%s'.buf_len:%d.%d.\r\n", member_.name, chunk_, length,
             load_shared(port_.mode));
    if (deliver(length))
        signal_engine();
}

// False when somebody closed the channel meanwhile. A refused intent ends the process: nothing
// could ever be received.
bool GlinkReader::queue_intent() {
    if (intent_queued_)
        return true;
    const DeviceEnd& device = channel_.device();
    VEXA_LOG("Queuing RX Intent for '%s'.\r\n", device.path);
    int result = 0;
    {
        const MutexGuard guard(device.mutex);
        if (*device.slot < 0)
            return false;
        uint32_t size = kReceiveIntentSize;
        result = ioctl(*device.slot, kQueueReceiveIntent, &size);
    }
    if (result != 0) {
        printf("Error queuing RX intent=%d.\r\n", result);
        exit(1);
    }
    intent_queued_ = true;
    return true;
}

void GlinkReader::copy_control_lines() {
    get_control_lines(channel_.device(), signals_);
    set_control_lines(destination_of(info_), signals_);
    if (info_.to_fd_pcie == nullptr || !is_pcie_live())
        return;
    const DeviceEnd pipe = pipe_of(info_);
    if (load_device(pipe) >= 0)
        set_control_lines(pipe, signals_);
}

// SMS and PPP mode are entered from command mode only: a prompt or a CONNECT within a stream of
// data is data.
void GlinkReader::track_modes(int length) {
    port_.last_line.copy_to(text_, sizeof(text_));
    if (is_enter_ppp_mode(chunk_, length, text_) == 1)
        move_shared(port_.mode, USB_PORT_ATCMD_MODE, USB_PORT_PPP_MODE);
    if (load_shared(port_.mode) == USB_PORT_PPP_MODE && is_exit_ppp_mode(chunk_, length) == 1)
        move_shared(port_.mode, USB_PORT_PPP_MODE, USB_PORT_ATCMD_MODE);
    if (is_enter_sms_mode(chunk_, length) == 1 &&
        move_shared(port_.mode, USB_PORT_ATCMD_MODE, USB_PORT_SMS_MODE) && member_.logs_sms_entry)
        VEXA_LOG("we got > enter sms mode '%s'.buf_len:%d.%d.\r\n", chunk_, length,
                 load_shared(port_.mode));
    g_at_buf_cache[static_cast<int>(member_.source)].copy_to(text_, sizeof(text_));
    VEXA_LOG("after recv data clean g_at_buf_cache(at CP) :<%s>.\r\n", text_);
    if (load_shared(port_.mode) == USB_PORT_SMS_MODE && is_exit_sms_mode(chunk_, length) == 1)
        move_shared(port_.mode, USB_PORT_SMS_MODE, USB_PORT_ATCMD_MODE);
}

bool GlinkReader::deliver(int length) {
    const bool is_multiplexed = member_.mux_dlc != nullptr && load_shared(g_uart_port_status) == 1;
    if (!is_multiplexed || member_.tracks_modes_on_mux)
        track_modes(length);
    VEXA_LOG("Attempting to write to '%s'...to_fd:%d.\r\n", info_.to_file_path,
             load_shared(*info_.to_fd));
    if (is_multiplexed)
        return deliver_multiplexed(length);
    if (info_.to_fd_pcie == nullptr || !is_pcie_live())
        return deliver_to(destination_of(info_), length);
    const DeviceEnd pipe = pipe_of(info_);
    return load_device(pipe) < 0 || deliver_to(pipe, length);
}

bool GlinkReader::deliver_to(const DeviceEnd& host, int length) {
    if (write_chunk(host, chunk_, length) >= 0)
        return true;
    after_host_write_failed(host);
    return false;
}

bool GlinkReader::deliver_multiplexed(int length) {
    const thread_info_t* uart = load_shared(g_uart_tinfo_for_mux);
    if (member_.answers_on_uart_reader && uart == nullptr)
        return true;
    const DeviceEnd host =
        member_.answers_on_uart_reader ? source_of(*uart) : destination_of(info_);
    if (write_mux_answer(load_shared(*member_.mux_dlc), chunk_, length, host.slot, host.path,
                         host.mutex) >= 0)
        return true;
    after_host_write_failed(host);
    return false;
}

void GlinkReader::after_host_write_failed(const DeviceEnd& host) {
    if (member_.logs_host_close)
        VEXA_LOG("Closing: '%s'\r\n", host.path);
    close_fd_mutexed(host.path, host.slot, host.mutex);
}

void GlinkReader::signal_engine() {
    store_shared(g_is_single_char_input, 0);
    pause_before_signal();
    pthread_cond_signal(&port_.response_cond);
    VEXA_LOG("!!!!!<<<<<<<<<<<<<<<<<<<<< %s cp <<<<<<<<<<<<<<<<<<!!!!!<%s>,%d,0.\r\n",
             port_.log_name, chunk_, 0);
    if (!is_final_result(chunk_))
        return;
    pause_before_signal();
    pthread_cond_signal(&g_cond_ap_with_cp);
    store_shared(port_.send_done, 0);
    VEXA_LOG(
        "!!!!!<<<<<<<<<<<<<<<<<<<< %s cp g_cond_ap_with_cp <<<<<<<<<<<<<<<<<<<!!!!!%d,%d,0.\r\n",
        port_.log_name, 0, 0);
}

// The two members that only carry bytes.
class PlainReader {
  public:
    PlainReader(const char* name, const thread_info_t& info, bool is_mhi)
        : info_(info), channel_(name, "mdm_fd", source_of(info)), is_mhi_(is_mhi) {}

    [[noreturn]] void run() {
        while (true) pass();
    }

  private:
    void pass();
    [[nodiscard]] bool is_lost(const DevicePoll& polled) const;
    void copy_control_lines(short revents);
    void read_chunk(const DevicePoll& polled);

    const thread_info_t& info_;
    Channel channel_;
    const bool is_mhi_;
    EmptyReads empty_reads_;
    int signals_ = 0;
    int signals_sent_ = 0;
    char chunk_[kTextAreaSize] = {};
};

void PlainReader::pass() {
    const DeviceEnd& device = channel_.device();
    channel_.open_if_closed();
    // The MHI member waits half a second at most, like a select for reading: poll serves it as
    // well and knows no limit on descriptor numbers.
    const DevicePoll polled = poll_shared_device(
        device.slot, device.mutex, is_mhi_ ? POLLIN : kChannelEvents, is_mhi_ ? kMhiWaitMs : -1);
    if (polled.closed)
        return;
    log_lost_events(polled.revents);
    if (is_lost(polled)) {
        channel_.close_it();
        return;
    }
    copy_control_lines(polled.revents);
    if ((polled.revents & POLLIN) != 0)
        read_chunk(polled);
}

// What is pending on a pipe that was hung up is read first, as a select would have it; SMD closes
// at once.
bool PlainReader::is_lost(const DevicePoll& polled) const {
    if (polled.result < 0)
        return true;
    const bool has_lost_event = (polled.revents & kLostEvents) != 0;
    return has_lost_event && !(is_mhi_ && (polled.revents & POLLIN) != 0);
}

void PlainReader::copy_control_lines(short revents) {
    if (!is_mhi_ && (revents & POLLPRI) == 0)
        return;
    get_control_lines(channel_.device(), signals_);
    if (is_mhi_ && signals_ == signals_sent_)
        return;
    const int error = set_control_lines(destination_of(info_), signals_);
    // A port that is away or hung up is told when it is there again; one without such lines is not
    // asked twice.
    if (error == 0 || error == ENOTTY || error == EINVAL)
        signals_sent_ = signals_;
}

void PlainReader::read_chunk(const DevicePoll& polled) {
    const int length = read_device(channel_.device(), polled.fd, chunk_);
    // A pipe that was hung up and has nothing left would be readable for ever.
    if (length == -1 || (length == 0 && (polled.revents & kLostEvents) != 0))
        channel_.close_it();
    empty_reads_.note(length);
    if (length <= 0)
        return;
    chunk_[length] = '\0';
    VEXA_LOG("buf contains '%s'\r\n", chunk_);
    const DeviceEnd host = destination_of(info_);
    if (write_chunk(host, chunk_, length) < 0)
        close_fd_mutexed(host.path, host.slot, host.mutex);
}

[[noreturn]] void run_glink_member(PortIndex port, void* thread_info) {
    const auto& info = *static_cast<thread_info_t*>(thread_info);
    const GlinkMember& member = kGlinkMembers[port];
    if (*member.host_fd != info.to_fd)
        publish(member, info);
    GlinkReader(member, info).run();
}

}  // namespace

void publish_host_port(void* (*entry)(void*), const thread_info_t& info) {
    for (const GlinkMember& member : kGlinkMembers)
        if (member.entry == entry)
            publish(member, info);
}

void* modem_to_usb_bridge_smd(void* thread_info) {
    PlainReader("modem_to_usb_bridge_smd", *static_cast<thread_info_t*>(thread_info), false).run();
}

void* modem_to_usb_bridge_mhi(void* thread_info) {
    PlainReader("modem_to_usb_bridge_mhi", *static_cast<thread_info_t*>(thread_info), true).run();
}

void* modem_to_usb_bridge_glink(void* thread_info) {
    run_glink_member(kModemPort, thread_info);
}

void* modem_to_usb_bridge_glink_atport(void* thread_info) {
    run_glink_member(kAtPort, thread_info);
}

void* modem_to_usb_bridge_glink_uartport(void* thread_info) {
    run_glink_member(kUartPort, thread_info);
}
