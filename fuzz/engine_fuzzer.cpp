// Chunks of all five input sources through the AT engine, in every mode, with every setting, and
// with devices and platform failing. Input: one letter, then what belongs to it:
//
//   m a u p d TEXT  a chunk from the modem, AT, UART port, PCIe pipe, UDP server
//   M A U P D TEXT  the same, the text repeated up to 12,000 bytes
//   o PORT MODE     the port's mode
//   s S3 S4 S5 FLAGS  the line settings and switches
//   f DEVICE FAULT  how the device takes writes from now on
//   w TENTHS MODE   how long CP needs for its answers, and the mode that its reader sets
//   c DEVICE        the device is closed
//   n SOURCE NULLS TEXT  a chunk, with some of the arguments null
//   x MODE TEXT     a chunk in the name of no port

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "at_engine.h"
#include "descriptors.h"
#include "engine_settings.h"
#include "fuzz_input.h"
#include "input_source.h"
#include "line_settings.h"
#include "mhi_monitor.h"
#include "mux_input.h"
#include "mux_session.h"
#include "plain_rules.h"
#include "port_state.h"
#include "shared_int.h"
#include "udp_server.h"
#include "world.h"

namespace {

constexpr std::size_t kRepeatedSize = 12'000;
constexpr std::size_t kMostBytes = 60'000;  // of one execution, so that it stays short

struct Source {
    char letter;
    InputSource source;
    PortIndex port;
    const char* from;
    int* from_fd;
};
const std::array<Source, 5> kSources = {{
    {'m', InputSource::modem_port, kModemPort, "/dev/at_usb0", &usb_fd},
    {'a', InputSource::at_port, kAtPort, "/dev/at_usb1", &usb_atport_fd},
    {'u', InputSource::uart_port, kUartPort, "/dev/ttyMSM1", &usb_uartport_fd},
    {'p', InputSource::pcie_pipe, kAtPort, "/dev/mhi_pipe_32", &usb_atport_fd_pcie},
    {'d', InputSource::udp_server, kAtPort, "/dev/at_usb1", &usb_atport_fd},
}};

struct Channel {
    const char* path;
    int* fd;
    pthread_mutex_t* mutex;
};
const std::array<Channel, kPortCount> kChannels = {{
    {"/dev/at_mdm0", &mdm_fd, &mdm_mutex},
    {"/dev/smd7", &mdm_atport_fd, &mdm_atport_mutex},
    {"/dev/smd8", &mdm_uartport_fd, &mdm_uartport_mutex},
}};

// Every device that the engine writes to, as `f` and `c` number them.
const std::array<int*, 10> kDevices = {
    &usb_fd,
    &usb_atport_fd,
    &usb_uartport_fd,
    &usb_atport_fd_pcie,
    &mdm_fd,
    &mdm_atport_fd,
    &mdm_uartport_fd,
    &g_loc_client_socket,
    &g_loc_client_socket_atport,
    &g_loc_client_socket_uartport,
};

// The numbers of one execution's devices, whatever becomes of the slots.
struct Devices {
    std::array<int, kPortCount> host{};
    std::array<int, kPortCount> cp{};
    std::array<int, kPortCount> platform{};
    int pipe = -1;
    int udp = -1;
};

// The part of a line that outlives a chunk, and the discarding that outlives a line.
std::array<std::size_t, kInputSourceCount> g_bytes_since_line_end{};

thread_info_t record_of(const Source& source) {
    const Channel& channel = kChannels[source.port];
    static pthread_mutex_t unused = PTHREAD_MUTEX_INITIALIZER;
    return {source.from,   channel.path, source.from_fd, channel.fd, &unused,
            channel.mutex, nullptr,      nullptr,        0};
}

class Engine {
  public:
    explicit Engine(FuzzInput& input) : input_(input) {
        open_devices();
        reset_settings();
        for (const Source& source : kSources)
            records_[static_cast<std::size_t>(source.source)] = record_of(source);
        store_shared(g_modem_tinfo_for_mux, &records_[0]);
        store_shared(g_atport_tinfo_for_mux, &records_[1]);
        store_shared(g_uart_tinfo_for_mux, &records_[2]);
        forget_lines();
    }
    ~Engine() { reset_settings(); }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    void play() {
        while (!input_.empty() && bytes_ < kMostBytes) step();
    }

  private:
    void open_devices();
    void forget_lines();
    void step();
    void set_line(uint8_t flags);
    void set_wait();
    void close_device(std::size_t index);
    void feed(const Source& source, std::string chunk, unsigned nulls);
    void feed_without_port(int& mode, std::string chunk);
    void feed_raw(const Source& source, std::string chunk);
    void forget_written();
    void check(const Source& source, const std::string& chunk, int mode, int result);
    void check_mode(PortIndex port, const std::string& chunk, int mode) const;
    void check_edit(const Source& source, const std::string& chunk) const;
    void check_command(PortIndex port, const std::string& chunk, bool was_echo_on);
    void check_silence(PortIndex port);
    void check_line(const Source& source);
    static void check_locks();
    static void reset_settings();
    [[nodiscard]] bool is_sound(int fd) const {
        return world::is_open(fd) && world::at(fd).fault == world::Fault::none;
    }

    FuzzInput& input_;
    Devices devices_;
    std::array<thread_info_t, kInputSourceCount> records_{};
    std::size_t bytes_ = 0;
    bool was_echo_on_ = true;
    std::string line_before_;
    bool changes_mode_in_wait_ = false;
};

void Engine::reset_settings() {
    reset_engine_settings();
    store_shared(g_at_over_sokcet_enable, 0);
    store_shared(g_loc_udp_at_server_send_socket, -1);
    store_shared(g_mux_atcmd_dlc, uint8_t{0});
    store_shared(g_mux_ppp_dlc, uint8_t{0});
    g_cur_mux_proc_state = CUR_STATE_ERROR;
    for (const PortRecord& port : g_ports) {
        store_shared(port.mode, USB_PORT_ATCMD_MODE);
        store_shared(port.send_done, 0);
        port.last_line.clear();
        port.echo_text.clear();
    }
}

void Engine::open_devices() {
    for (int* slot : kDevices) store_shared(*slot, world::open_descriptor());
    devices_.host = {usb_fd, usb_atport_fd, usb_uartport_fd};
    devices_.cp = {mdm_fd, mdm_atport_fd, mdm_uartport_fd};
    devices_.platform = {g_loc_client_socket, g_loc_client_socket_atport,
                         g_loc_client_socket_uartport};
    devices_.pipe = usb_atport_fd_pcie;
    devices_.udp = world::open_descriptor();
    store_shared(g_fd_usb_modem_device, &usb_fd);
    store_shared(g_fd_usb_atport_device, &usb_atport_fd);
    store_shared(g_fd_usb_atport_device_pcie, &usb_atport_fd_pcie);
    store_shared(g_fd_usb_uartport_device, &usb_uartport_fd);
}

// An overlong line of the execution before may still be discarded: its end ends that.
void Engine::forget_lines() {
    for (const Source& source : kSources) {
        std::size_t& bytes = g_bytes_since_line_end[static_cast<std::size_t>(source.source)];
        if (bytes >= kDeviceReadSize)
            feed_raw(source, "\r");
        bytes = 0;
        g_at_buf_cache[static_cast<int>(source.source)].clear();
    }
    reset_mux_input();
    handle_mux_input("", 0);  // its clock begins now
    forget_written();
}

void Engine::set_line(uint8_t flags) {
    store_shared(g_client_ate_status, (flags & 1) != 0 ? kEchoOff : kEchoOn);
    store_shared(g_client_atv_status, (flags & 2) != 0 ? 0 : 1);
    store_shared(g_qxdm_log, (flags & 4) != 0 ? 1 : 0);
    store_shared(g_vexa_pcie_enabled, (flags & 8) != 0 ? 1 : 0);
    store_shared(g_mhi_ctrl_state,
                 (flags & 16) != 0 ? VEXA_MHI_CTRL_CONNECTED_FULL : VEXA_MHI_CTRL_UNKNOWN);
    store_shared(g_at_over_sokcet_enable, (flags & 32) != 0 ? 1 : 0);
    store_shared(g_loc_udp_at_server_send_socket, (flags & 64) != 0 ? devices_.udp : -1);
    store_shared(g_is_cp_timeout_times, (flags & 128) != 0 ? 5 : 0);
}

void Engine::set_wait() {
    world::answer_after_ms(int64_t{input_.byte()} * 100);
    const int mode = input_.byte() % 8;
    changes_mode_in_wait_ = changes_mode_in_wait_ || mode != USB_PORT_ATCMD_MODE;
    world::on_wait([mode] {
        for (const PortRecord& port : g_ports) {
            HOLDS(world::is_free(&port.response_mutex));
            if (mode < USB_PORT_CMUX_MODE)
                move_shared(port.mode, USB_PORT_ATCMD_MODE, mode);
            store_shared(port.send_done, 0);
        }
    });
}

void Engine::close_device(std::size_t index) {
    int& slot = *kDevices[index % kDevices.size()];
    if (world::is_open(slot))
        world::at(slot).is_open = false;
    store_shared(slot, -1);
}

void Engine::step() {
    const auto letter = static_cast<char>(input_.byte());
    ++bytes_;
    for (const Source& source : kSources) {
        if (letter == source.letter)
            return feed(source, input_.text(), 0);
        if (letter == source.letter - 0x20) {
            const std::string text = input_.text();
            std::string chunk;
            while (!text.empty() && chunk.size() + text.size() <= kRepeatedSize) chunk += text;
            return feed(source, chunk, 0);
        }
    }
    switch (letter) {
        case 'o': {
            const PortRecord& port = g_ports[input_.byte() % kPortCount];
            return store_shared(port.mode, input_.byte() % 8);
        }
        case 's':
            store_shared(g_ats3_carriage_return_char, static_cast<uint8_t>(input_.byte() & 0x7F));
            store_shared(g_ats4_line_feed_char, static_cast<uint8_t>(input_.byte() & 0x7F));
            store_shared(g_ats5_cmd_line_edit_char, static_cast<uint8_t>(input_.byte() & 0x7F));
            return set_line(input_.byte());
        case 'f': {
            const int fd = *kDevices[input_.byte() % kDevices.size()];
            const auto fault = static_cast<world::Fault>(input_.byte() % world::kFaults);
            if (world::is_open(fd))
                world::at(fd).fault = fault;
            return;
        }
        case 'w':
            return set_wait();
        case 'c':
            return close_device(input_.byte());
        case 'n': {
            const Source& source = kSources[input_.byte() % kSources.size()];
            const unsigned nulls = input_.byte();
            return feed(source, input_.text(), nulls);
        }
        case 'x': {
            int mode = input_.byte() % USB_PORT_CMUX_MODE;
            return feed_without_port(mode, input_.text());
        }
        default:
            return;
    }
}

// Nobody's mode and nobody's socket: nothing is echoed, repeated or answered.
void Engine::feed_without_port(int& mode, std::string chunk) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    bytes_ += chunk.size();
    g_bytes_since_line_end[0] += chunk.size();
    forget_written();
    bind_input_source(InputSource::modem_port);
    const auto size = static_cast<int>(chunk.size());
    chunk.push_back('~');
    common_input_atcmd_proc(-1, chunk.data(), size, &mode, &mutex, &cond, &records_[0]);
    for (const int fd : devices_.host) HOLDS(world::at(fd).written.empty());
    for (const int fd : devices_.platform) HOLDS(world::at(fd).written.empty());
    check_locks();
    check_line(kSources[0]);
}

void Engine::feed_raw(const Source& source, std::string chunk) {
    const PortRecord& port = g_ports[source.port];
    bind_input_source(source.source);
    const std::size_t size = chunk.size();
    chunk.push_back('~');
    common_input_atcmd_proc(load_shared(port.platform_socket), chunk.data(), static_cast<int>(size),
                            &port.mode, &port.response_mutex, &port.response_cond,
                            &records_[static_cast<std::size_t>(source.source)]);
}

// `nulls`: a bit for each pointer argument that is null.
void Engine::feed(const Source& source, std::string chunk, unsigned nulls) {
    const PortRecord& port = g_ports[source.port];
    bytes_ += chunk.size();
    g_bytes_since_line_end[static_cast<std::size_t>(source.source)] += chunk.size();
    forget_written();
    bind_input_source(source.source);
    // Exactly one spare byte, so that the address sanitizer sees a step behind it.
    const std::unique_ptr<char[]> area(new char[chunk.size() + 1]);
    memcpy(area.get(), chunk.data(), chunk.size());
    area[chunk.size()] = '~';
    const int mode = load_shared(port.mode);
    was_echo_on_ = is_echo_on();
    line_before_ = g_at_buf_cache[static_cast<int>(source.source)].text();
    thread_info_t record = records_[static_cast<std::size_t>(source.source)];
    const bool keeps_tinfo = (nulls & 1) == 0 || mode == USB_PORT_CMUX_MODE;
    const int result = common_input_atcmd_proc(
        load_shared(port.platform_socket), (nulls & 2) == 0 ? area.get() : nullptr,
        static_cast<int>(chunk.size()), (nulls & 4) == 0 ? &port.mode : nullptr,
        (nulls & 8) == 0 ? &port.response_mutex : nullptr,
        (nulls & 16) == 0 ? &port.response_cond : nullptr, keeps_tinfo ? &record : nullptr);
    HOLDS(result == 0 || result == 1 || (result < 0 && nulls != 0));
    check_locks();
    check_line(source);
    if ((nulls & 31) != 0)
        return;
    HOLDS(area[chunk.size()] == (chunk.empty() ? '~' : '\0'));
    HOLDS(memcmp(area.get(), chunk.data(), chunk.size()) == 0);
    check(source, chunk, mode, result);
}

void Engine::forget_written() {
    for (int fd = world::kFirstDescriptor; fd <= devices_.udp; ++fd) world::at(fd).written.clear();
}

void Engine::check_locks() {
    for (pthread_mutex_t* mutex :
         {&mdm_mutex, &usb_mutex, &mdm_atport_mutex, &usb_atport_mutex, &mdm_uartport_mutex,
          &usb_uartport_mutex, &g_mut_mport, &g_mut_atport, &g_mut_uartport, &g_mut_ap_with_cp,
          &g_mutex_usb_devie, &g_mutex_usb_atport_devie, &g_mutex_usb_uartport_devie})
        HOLDS(world::is_free(mutex));
}

// What is kept between chunks begins a command line, or is nothing.
void Engine::check_line(const Source& source) {
    const LockedText& line = g_at_buf_cache[static_cast<int>(source.source)];
    HOLDS(line.length() <= kDeviceReadSize);
    HOLDS(strnlen(line.text(), kTextAreaSize) == line.length());
    HOLDS(line.length() == 0 || plain::is_legal({line.text(), line.length()}));
}

void Engine::check_silence(PortIndex port) {
    HOLDS(world::at(devices_.cp[port]).written.empty());
    HOLDS(world::at(devices_.platform[port]).written.empty());
    HOLDS(world::at(devices_.host[port]).written.empty());
}

void Engine::check(const Source& source, const std::string& chunk, int mode, int result) {
    const std::string to_cp = world::at(devices_.cp[source.port]).all_written();
    const std::string to_platform = world::at(devices_.platform[source.port]).all_written();
    if (chunk.empty()) {
        HOLDS(result == 1);
        for (const PortRecord& port : g_ports) check_silence(port.index);
        return;
    }
    if (mode == USB_PORT_CMUX_MODE) {
        HOLDS(world::at(devices_.host[kModemPort]).written.empty());
        HOLDS(world::at(devices_.cp[kAtPort]).written.empty());
        return;
    }
    for (const PortRecord& port : g_ports)
        if (port.index != source.port)
            check_silence(port.index);
    check_mode(source.port, chunk, mode);
    switch (mode) {
        case USB_PORT_ATCMD_MODE:
            check_edit(source, chunk);
            return check_command(source.port, chunk, was_echo_on_);
        case USB_PORT_SMS_MODE:
        case USB_PORT_PPP_MODE:
            HOLDS(to_platform.empty());
            HOLDS(chunk.starts_with(to_cp));
            HOLDS((result == 1) == (to_cp == chunk));
            return;
        case USB_PORT_DATA_MODE:
            HOLDS(to_cp.empty());
            if (is_sound(devices_.platform[source.port]))
                HOLDS(plain::payloads(to_platform) == std::vector<std::string>{chunk});
            return;
        default:
            HOLDS(to_cp.empty() && to_platform.empty() && result == 1);
    }
}

// The host ends SMS and PPP mode and begins the multiplexer's; all else is the readers'.
void Engine::check_mode(PortIndex port, const std::string& chunk, int mode) const {
    const int now = load_shared(g_ports[port].mode);
    if (mode == USB_PORT_ATCMD_MODE) {
        const bool may_multiplex = port == kUartPort && load_shared(g_uart_port_status) == 1;
        HOLDS(now == mode || changes_mode_in_wait_ || (may_multiplex && now == USB_PORT_CMUX_MODE));
        return;
    }
    std::string start = chunk.substr(0, 4);
    std::transform(start.begin(), start.end(), start.begin(),
                   [](unsigned char byte) { return std::toupper(byte); });
    const bool is_hang_up = chunk == "+++" || (chunk.size() < 6 && start == "ATH\r");
    const bool ends = (mode == USB_PORT_SMS_MODE && plain::ends_sms(chunk)) ||
                      (mode == USB_PORT_PPP_MODE && is_hang_up);
    HOLDS(now == (ends ? USB_PORT_ATCMD_MODE : mode));
}

// What a chunk makes of the line: shorter by a backspace, longer by the chunk, or gone.
void Engine::check_edit(const Source& source, const std::string& chunk) const {
    const std::string line = g_at_buf_cache[static_cast<int>(source.source)].text();
    if (chunk == "\b")
        HOLDS(line == line_before_.substr(0, std::max<std::size_t>(line_before_.size(), 1) - 1));
    else
        HOLDS(line.empty() || line == line_before_ + plain::until_nul(chunk));
    HOLDS(line.empty() || chunk == "\b" ||
          !plain::is_finished(line, load_shared(g_ats3_carriage_return_char)));
}

// Whatever goes out in command mode is the start of a command line, and text.
void Engine::check_command(PortIndex port, const std::string& chunk, bool was_echo_on) {
    const std::string to_cp = world::at(devices_.cp[port]).all_written();
    HOLDS(to_cp.empty() || plain::is_legal(to_cp));
    HOLDS(to_cp.find('\0') == std::string::npos);
    if (is_sound(devices_.platform[port])) {
        for (const std::string& line :
             plain::payloads(world::at(devices_.platform[port]).all_written())) {
            HOLDS(plain::is_legal(line));
            HOLDS(line.find('\0') == std::string::npos);
        }
    }
    const std::string to_host = world::at(devices_.host[port]).all_written();
    const bool is_typed = chunk.size() == 1 && was_echo_on && port != kUartPort;
    if (is_typed && is_sound(devices_.host[port]) && load_shared(g_at_over_sokcet_enable) == 0)
        HOLDS(to_host.starts_with(chunk));
    if (chunk.size() > 1 && to_cp.empty() && is_sound(devices_.platform[port]) &&
        is_sound(devices_.cp[port]) && port != kUartPort)
        HOLDS(to_host.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const world::Run run;
    FuzzInput input(data, size);
    Engine(input).play();
    return 0;
}
