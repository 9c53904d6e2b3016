// What the app platform sends: through the pack parser, one receive, and the receiver's whole loop
// to the host ports. Input: settings, then pieces of a letter and what belongs to it:
//
//   r PORT BYTES    the platform's bytes of one receive, as they are
//   k PORT TYPE SIZE TEXT  a pack: its command type, a fault of its length (0 is none), payload
//   h PORT REFUSALS TEXT  the platform hangs up, refuses some calls (a bit for each), then says
//   b TEXT          a pack of this payload is built and read again
//   l HIGH LOW      a pack of so many bytes of payload is sent
#include <array>
#include <cstring>
#include <memory>
#include <string>

#include "descriptors.h"
#include "fuzz_input.h"
#include "line_settings.h"
#include "mhi_monitor.h"
#include "mux_session.h"
#include "plain_rules.h"
#include "platform_pack.h"
#include "platform_receiver.h"
#include "port_state.h"
#include "shared_int.h"
#include "udp_server.h"
#include "vexa_socket_client.h"
#include "world.h"

namespace {

constexpr std::size_t kMostBytes = 60'000;

std::string pack_of(uint32_t cmd_type, uint32_t length_fault, std::string_view payload) {
    std::string pack = "kcap";
    const auto put = [&pack](uint32_t word) {
        pack.append(reinterpret_cast<const char*>(&word), sizeof word);
    };
    put(static_cast<uint32_t>(44 + payload.size()) + length_fault);
    for (int i = 0; i < 3; ++i) put(0);
    put(cmd_type);
    for (int i = 0; i < 3; ++i) put(0);
    put(static_cast<uint32_t>(payload.size()));
    put(0);
    return pack.append(payload);
}

// What one receive of these bytes must lead to.
struct Expected {
    bool stops = false;
    std::string text;
    std::size_t total = 0;
    bool is_whole = true;
};

Expected expect(std::string_view bytes) {
    Expected wanted;
    while (!bytes.empty()) {
        uint32_t length = 0;
        if (bytes.size() >= 44)
            memcpy(&length, bytes.data() + 4, sizeof length);
        if (!bytes.starts_with("kcap") || length < 44 || length > bytes.size()) {
            wanted.is_whole = false;
            return wanted;
        }
        const std::string_view payload = bytes.substr(44, length - 44);
        wanted.total += payload.size();
        wanted.text += plain::until_nul(payload);
        if (payload.size() > 4096 || wanted.total > 16384) {
            wanted.stops = true;
            return wanted;
        }
        bytes.remove_prefix(length);
    }
    return wanted;
}

// One receive of its own.
void receive_once(const std::string& bytes) {
    const int fd = world::open_descriptor();
    world::at(fd).incoming.push_back({bytes, {}, false});
    const std::unique_ptr<char[]> area(new char[kTextAreaSize]());
    vexa_ext_info info{MSG_SYNC, CMD_INVALID, 0};
    int result = -7;
    const world::End end = world::run([&] {
        result = client_recv_data_from_platform(fd, area.get(), kDeviceReadSize, 0, &info);
    });
    const Expected wanted = expect(bytes);
    HOLDS((end == world::End::stopped) == wanted.stops);
    if (wanted.stops)
        return;
    HOLDS(end == world::End::returned);
    HOLDS(result == (wanted.is_whole ? static_cast<int>(wanted.total) : 0));
    HOLDS(std::string(area.get()) == wanted.text);
}

void build_and_read(const std::string& payload) {
    std::string area(44 + payload.size(), 'x');
    HOLDS(build_pack(area, CMD_AT_CMD, payload) == area.size());
    HOLDS(plain::payloads(area) == std::vector<std::string>{payload});
    const ReceivedPack pack = first_pack(area);
    HOLDS(pack.verdict == (payload.size() > 4096 ? PackVerdict::too_large : PackVerdict::whole));
    if (pack.verdict == PackVerdict::whole)
        HOLDS(pack.payload == payload && pack.sock_head.content_len == payload.size());
    HOLDS(build_pack(std::span(area).first(area.size() - 1), CMD_AT_CMD, payload) == 0);
}

void send_long(std::size_t size) {
    const std::string payload(size, 'x');
    const int fd = world::open_descriptor();
    char answer[8];
    int answer_length = -1;
    int result = -7;
    const auto mode = static_cast<int32_t>(size % 6);
    vexa_ext_info info{MSG_SYNC, mode, 0};
    const world::End end = world::run([&] {
        result = client_send_msg(fd, payload.data(), static_cast<int>(size), 0, answer,
                                 &answer_length, &info);
    });
    HOLDS((end == world::End::stopped) == (size > 131'028));
    if (end == world::End::stopped)
        return;
    HOLDS(result == (size == 0 ? -1 : static_cast<int>(size + 44)));
    const auto sent = plain::split_packs(world::at(fd).all_written());
    HOLDS(sent.has_value() && sent->size() == (size == 0 ? 0U : 1U));
    HOLDS(client_report_port_name(fd, PORT_UART) == 48);
    HOLDS(client_report_port_name(-1, PORT_UART) == -1);
}

// The receiver thread's loop with its three connections and host ports.
class Receiver {
  public:
    explicit Receiver(uint8_t settings) {
        for (const PortRecord& port : g_ports) {
            const int fd = world::open_descriptor();
            store_shared(port.platform_socket, fd);
            connections_[port.index] = fd;
            store_shared(port.mode, USB_PORT_ATCMD_MODE);
            store_shared(port.send_done, (settings & 1) != 0 ? 1 : 0);
            port.echo_text.assign("AT+TYPED\r");
        }
        slots_ = {world::open_descriptor(), world::open_descriptor(), world::open_descriptor()};
        pipe_ = world::open_descriptor();
        store_shared(g_client_ate_status, (settings & 2) != 0 ? kEchoOff : kEchoOn);
        store_shared(g_is_single_char_input, (settings & 4) != 0 ? 1 : 0);
        store_shared(g_vexa_pcie_enabled, (settings & 8) != 0 ? 1 : 0);
        store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_CONNECTED_FULL);
        store_shared(g_uart_port_status, (settings & 16) != 0 ? 1 : 0);
        store_shared(g_mux_atcmd_dlc, static_cast<uint8_t>((settings & 32) != 0 ? 11 : 0));
        store_shared(g_at_over_sokcet_enable, 0);
    }
    ~Receiver() {
        for (const PortRecord& port : g_ports) store_shared(port.platform_socket, -1);
        store_shared(g_client_ate_status, kEchoOn);
        store_shared(g_is_single_char_input, 0);
        store_shared(g_vexa_pcie_enabled, 0);
        store_shared(g_uart_port_status, 0);
        for (pthread_mutex_t& mutex : mutexes_) HOLDS(world::is_free(&mutex));
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    void say(PortIndex port, const std::string& bytes) {
        world::at(connections_[port]).incoming.push_back({bytes, {}, false});
        said_[port] = said_[port] || !bytes.empty();
    }
    void hang_up(PortIndex port, unsigned refusals, const std::string& then) {
        world::at(connections_[port]).is_hung_up = true;
        world::fail_next(world::Call::connect, refusals & 15U);
        world::fail_next(world::Call::socket, refusals >> 4);
        world::on_socket([then](int fd) {
            if (!then.empty())
                world::at(fd).incoming.push_back({then, {}, false});
        });
        said_.fill(true);  // whoever is called first
    }

    void serve() {
        std::array<thread_info_t, kPortCount> bridges{};
        const std::array<const char*, kPortCount> paths = {usb_file_path, kUsbAtPortPath,
                                                           kUartPath};
        for (const PortRecord& port : g_ports) {
            thread_info_t& bridge = bridges[port.index];
            bridge.to_file_path = paths[port.index];
            bridge.to_fd = &slots_[port.index];
            bridge.to_mutex = &mutexes_[port.index];
        }
        bridges[kAtPort].to_fd_pcie = &pipe_;
        bridges[kAtPort].to_file_path_pcie = mhi_file_path;
        const int first_new = world::next_descriptor();
        const world::End end = world::run([&] { recv_data_handler(bridges.data()); });
        HOLDS(end != world::End::returned);
        // Nothing for a port that nobody answered.
        for (const PortRecord& port : g_ports)
            if (!said_[port.index])
                HOLDS(world::at(slots_[port.index]).written.empty());
        for (int fd = first_new; fd < world::next_descriptor(); ++fd) check_report(fd);
        HOLDS(said_[kAtPort] || world::at(pipe_).written.empty());
        for (const int fd : slots_)
            for (const world::Message& message : world::at(fd).written)
                HOLDS(message.bytes.size() <= kTextAreaSize);
    }

  private:
    // A connection begins with the report of its port and says nothing else by itself.
    static void check_report(int fd) {
        const std::string written = world::at(fd).all_written();
        HOLDS(written.empty() || (written.size() == 48 && written[20] == CMD_PORT_REPORT));
    }

    std::array<int, kPortCount> connections_{};
    std::array<int, kPortCount> slots_{};
    std::array<bool, kPortCount> said_{};
    int pipe_ = -1;
    pthread_mutex_t mutexes_[kPortCount] = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
                                            PTHREAD_MUTEX_INITIALIZER};
};

void hang_up(Receiver& receiver, FuzzInput& input) {
    const auto port = static_cast<PortIndex>(input.byte() % kPortCount);
    const unsigned refusals = input.byte();
    receiver.hang_up(port, refusals, input.text());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const world::Run run;
    FuzzInput input(data, size);
    Receiver receiver(input.byte());
    std::size_t bytes = 0;
    int steps = 0;
    while (!input.empty() && bytes < kMostBytes && ++steps < 40) {
        const uint8_t letter = input.byte();
        if (letter == 'r' || letter == 'k') {
            const auto port = static_cast<PortIndex>(input.byte() % kPortCount);
            const uint32_t type = letter == 'k' ? input.byte() % 8U : 0;
            const uint32_t fault = letter == 'k' ? input.byte() : 0;
            std::string text = input.text();
            if (letter == 'k')
                text = pack_of(type, fault, text);
            receive_once(text);
            if (!text.empty())
                receiver.say(port, text);
            bytes += text.size();
        }
        if (letter == 'h')
            hang_up(receiver, input);
        if (letter == 'b')
            build_and_read(input.text());
        if (letter == 'l') {
            const std::size_t long_size = input.byte() * std::size_t{520} + input.byte();
            send_long(long_size);
            bytes += long_size;
        }
    }
    receiver.serve();
    return 0;
}
