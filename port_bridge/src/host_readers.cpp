#include "host_readers.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include "at_engine.h"
#include "device_io.h"
#include "input_source.h"
#include "log.h"
#include "mhi_monitor.h"
#include "mutex_guard.h"
#include "mux_input.h"
#include "platform_link.h"
#include "port_state.h"
#include "serial_line.h"
#include "shared_device.h"
#include "shared_int.h"
#include "udp_server.h"

namespace {

constexpr short kHostEvents = POLLIN | POLLPRI | POLLERR | POLLHUP;
static_assert(kHostEvents == 0x1B);
// The UART's reader ends when an open fails with this many failures behind it.
constexpr int kMostUartOpenFailures = 60;

// What differs between the three members.
struct HostMember {
    PortIndex port;
    InputSource source;
    const char* name;  // as it stands in log lines
    const char* entry_text;
    const char* inited_text;  // the platform connection is there already
    int (*init_socket)();
    thread_info_t** tinfo_for_mux;
    bool clears_udp;         // input takes the answers back from the UDP client
    bool is_uart;            // a serial line, opened and set up by rules of its own
    bool traces_odd_events;  // after each chunk, not only on the way out
};

constexpr std::array<HostMember, kPortCount> kHostMembers = {{
    {kModemPort, InputSource::modem_port, "usb_to_modem_bridge", "usb_to_modem_bridge enter.",
     "client has been inited.", init_socket_client, &g_modem_tinfo_for_mux, false, false, true},
    {kAtPort, InputSource::at_port, "usb_atport_to_modem_bridge",
     "usb_atport_to_modem_bridge enter.", "client atport has been inited.",
     init_socket_client_atport, &g_atport_tinfo_for_mux, true, false, false},
    // The UART's entry line says atport: readers of logs know it so.
    {kUartPort, InputSource::uart_port, "usb_uartport_to_modem_bridge",
     "usb_atport_to_modem_bridge enter.", "client uartport has been inited.",
     init_socket_client_uartport, &g_uart_tinfo_for_mux, true, true, false},
}};
static_assert(is_by_port(kHostMembers, &HostMember::port));

// How many readers use each port's condition variable and mutex: two on the AT port with PCIe.
// They are statically initialised; the last reader that ends destroys them, and a later first one
// initialises them again. g_users_mutex guards both arrays.
pthread_mutex_t g_users_mutex = PTHREAD_MUTEX_INITIALIZER;
std::array<int, kPortCount> g_wait_users = {};
std::array<bool, kPortCount> g_wait_destroyed = {};

void take_response_wait(const PortRecord& port) {
    const MutexGuard guard(&g_users_mutex);
    if (g_wait_users[port.index]++ > 0 || !g_wait_destroyed[port.index])
        return;
    pthread_cond_init(&port.response_cond, nullptr);
    pthread_mutex_init(&port.response_mutex, nullptr);
    g_wait_destroyed[port.index] = false;
}

void give_back_response_wait(const PortRecord& port) {
    const MutexGuard guard(&g_users_mutex);
    if (--g_wait_users[port.index] > 0)
        return;
    pthread_cond_destroy(&port.response_cond);
    pthread_mutex_destroy(&port.response_mutex);
    g_wait_destroyed[port.index] = true;
}

// A number that is no descriptor's comes alone, and only a new open ends it.
bool is_lost(short revents) {
    return (revents & (POLLERR | POLLHUP)) != 0 || revents == POLLNVAL;
}

enum class Next { go_on, end, end_at_once };

// Each reader's own copy of its record. Others reach it by tinfo_for_mux, and may hold the pointer
// when a reader ends: hence not on its stack.
constinit std::array<thread_info_t, kInputSourceCount> g_reader_infos = {};

thread_info_t& own_copy(InputSource source, const thread_info_t& info) {
    thread_info_t& copy = g_reader_infos[static_cast<std::size_t>(source)];
    copy = info;
    return copy;
}

class HostReader {
  public:
    HostReader(const HostMember& member, const thread_info_t& info)
        : member_(member),
          port_(g_ports[member.port]),
          source_(info.pcie_valid != 0 ? InputSource::pcie_pipe : member.source),
          info_(own_copy(source_, info)),
          device_(source_of(info_)) {}

    void run();

  private:
    void start();
    void finish();
    Next pass();
    void after_close_elsewhere();
    bool wait_for_pipe();
    Next open_port();
    void take_port(int fd);
    Next open_uart();
    [[nodiscard]] Next set_up_uart(int fd) const;
    bool may_retry_uart(int error);
    void send_dtr_low();
    void close_port();
    void copy_control_lines();
    void read_chunk(int polled_fd);
    void trace_odd_events() const;

    const HostMember& member_;
    const PortRecord& port_;
    const InputSource source_;
    thread_info_t& info_;
    const DeviceEnd device_;
    bool is_open_ = false;  // as far as this reader knows
    short revents_ = 0;
    int signals_ = 0;  // last TIOCMGET word
    int uart_open_failures_ = 0;
    char chunk_[kTextAreaSize] = {};
};

void HostReader::run() {
    start();
    Next next = Next::go_on;
    while (next == Next::go_on) next = pass();
    if (next == Next::end)
        finish();
}

void HostReader::start() {
    puts(member_.entry_text);
    bind_input_source(source_);
    store_shared(*member_.tinfo_for_mux, &info_);
    if (load_shared(port_.platform_socket) < 0)
        member_.init_socket();
    else
        VEXA_LOG("%s\r\n", member_.inited_text);
    take_response_wait(port_);
}

void HostReader::finish() {
    trace_odd_events();
    give_back_response_wait(port_);
    puts("return NULL.");
}

Next HostReader::pass() {
    after_close_elsewhere();
    if (!wait_for_pipe())
        return Next::end;
    if (load_device(device_) < 0) {
        after_close_elsewhere();  // it may have come since, and the gate may have taken long
        const Next next = member_.is_uart ? open_uart() : open_port();
        if (next != Next::go_on || !is_open_)
            return next;
    }
    const DevicePoll polled = poll_shared_device(device_.slot, device_.mutex, kHostEvents);
    if (polled.closed)
        return Next::go_on;
    revents_ = polled.revents;
    if ((revents_ & POLLERR) != 0)
        VEXA_LOG("POLLERR is set.\r\n");
    if ((revents_ & POLLHUP) != 0)
        VEXA_LOG("POLLHUP is set.\r\n");
    if (polled.result < 0 || is_lost(revents_)) {
        send_dtr_low();
        close_port();
        return Next::go_on;
    }
    if ((revents_ & POLLPRI) != 0)
        copy_control_lines();
    if ((revents_ & POLLIN) != 0)
        read_chunk(polled.fd);
    return Next::go_on;
}

// A writer that met the host's hang-up closed the port before this reader saw it: the modem hears
// of it all the same.
void HostReader::after_close_elsewhere() {
    if (!is_open_ || load_device(device_) >= 0)
        return;
    is_open_ = false;
    if (take_hang_up(device_.slot, device_.mutex))
        send_dtr_low();
}

bool HostReader::wait_for_pipe() {
    if (info_.pcie_valid == 0 || load_shared(g_mhi_ctrl_state) == VEXA_MHI_CTRL_CONNECTED_FULL)
        return true;
    VEXA_LOG("Reader thread is waiting for MHI to be in Connected state.%d,%d,%d.\r\n", 0, 0, 0);
    return sem_wait(&g_mhi_monitor_semaphore) == 0;
}

Next HostReader::open_port() {
    printf("%s Attempting to open '%s'...\r\n", member_.name, device_.path);
    const int fd = open_device(device_.path);
    VEXA_LOG("====>:Blocking open on '%s' fd:%d.\r\n", device_.path, fd);
    if (fd < 0) {
        sleep(1);
        return Next::go_on;
    }
    take_port(fd);
    return Next::go_on;
}

void HostReader::take_port(int fd) {
    store_device(device_, fd);
    is_open_ = true;
}

// The set-up may wait for output to drain, for ever, so it holds no mutex. Meanwhile the slot's
// number may be closed by a writer and name another file: the set-up has a number of its own, or,
// when there is none left, ends before anybody knows the port's.
Next HostReader::open_uart() {
    puts("usb_uartport_to_modem_bridge open before......");
    const int fd = open_device(device_.path);
    const int error = errno;
    puts("usb_uartport_to_modem_bridge open after......");
    VEXA_LOG("====>:Blocking open on '%s' fd:%d.\r\n", device_.path, fd);
    if (fd < 0)
        return may_retry_uart(error) ? Next::go_on : Next::end;
    reset_mux_input();
    const int set_up_fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (set_up_fd < 0) {
        const Next next = set_up_uart(fd);
        take_port(fd);
        return next;
    }
    take_port(fd);
    const Next next = set_up_uart(set_up_fd);
    close(set_up_fd);
    return next;
}

Next HostReader::set_up_uart(int fd) const {
    if (fcntl(fd, F_SETFL, 0) < 0) {
        puts("uart fcntl failed!");
        return Next::end_at_once;
    }
    printf("uart fcntl=%d\n", fcntl(fd, F_SETFL, 0));
    xget1(fd, &tio, &tiosfd);
    xset1(fd, &tio, device_.path);
    return Next::go_on;
}

// The counter is never reset by a successful open.
bool HostReader::may_retry_uart(int error) {
    if (error == EBUSY)
        puts("Device file already open!");
    if (error == ENOENT || error == ENODEV) {
        puts("Driver not ready yet; retrying after delay...");
        sleep(1);
    }
    if (uart_open_failures_ >= kMostUartOpenFailures) {
        printf("Couldn't open device file: %d\r\n", error);
        return false;
    }
    ++uart_open_failures_;
    return true;
}

// A host that closes its terminal drops DTR on the modem's side.
void HostReader::send_dtr_low() {
    puts("Sending DTR low signal to MODEM.");
    signals_ &= ~TIOCM_DTR;
    set_control_lines(destination_of(info_), signals_);
}

void HostReader::close_port() {
    is_open_ = false;
    close_fd_mutexed(device_.path, device_.slot, device_.mutex);
    take_hang_up(device_.slot, device_.mutex);  // this reader knows already
}

void HostReader::copy_control_lines() {
    puts("POLLPRI is set.");
    get_control_lines(device_, signals_);
    set_control_lines(destination_of(info_), signals_);
}

void HostReader::read_chunk(int polled_fd) {
    puts("POLLIN is set.");
    const int num_read = read_device(device_, polled_fd, chunk_);
    if (num_read == kDeviceGone)
        return;
    VEXA_LOG("read from '%s' num_read %i.\r\n", device_.path, num_read);
    if (num_read < 0) {
        close_port();
        return;
    }
    if (member_.clears_udp) {
        VEXA_LOG("set g_at_over_sokcet_enable in %s.\r\n", port_.log_name);
        store_shared(g_at_over_sokcet_enable, 0);
    }
    VEXA_LOG("before common_input_atcmd_proc(%s). cond:%p, mute:%p, 0.\r\n", port_.log_name,
             static_cast<void*>(&port_.response_cond), static_cast<void*>(&port_.response_mutex));
    const int result =
        common_input_atcmd_proc(load_shared(port_.platform_socket), chunk_, num_read, &port_.mode,
                                &port_.response_mutex, &port_.response_cond, &info_);
    if (member_.traces_odd_events && result != 0)
        trace_odd_events();
}

void HostReader::trace_odd_events() const {
    if ((revents_ & ~kHostEvents) != 0)
        VEXA_LOG("An unrecognized event happened!  pollinfo.revents=0x%0x\r\n",
                 static_cast<unsigned>(revents_));
}

void* run_member(PortIndex port, void* thread_info) {
    HostReader reader(kHostMembers[port], *static_cast<thread_info_t*>(thread_info));
    reader.run();
    return nullptr;
}

}  // namespace

void* usb_to_modem_bridge(void* thread_info) {
    return run_member(kModemPort, thread_info);
}

void* usb_atport_to_modem_bridge(void* thread_info) {
    return run_member(kAtPort, thread_info);
}

void* usb_uartport_to_modem_bridge(void* thread_info) {
    return run_member(kUartPort, thread_info);
}
