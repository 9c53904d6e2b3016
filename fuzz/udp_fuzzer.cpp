// Datagrams to the UDP AT server: its thread's whole loop into the engine, and the answers back to
// the client. Input: which sockets cannot be made or bound (a bit for each use), then
// pieces of a letter and what belongs to it:
//
//   d CLIENT TEXT   a datagram of one of eight clients: four addresses, two ports
//   D CLIENT TEXT   the same, the text repeated beyond what is received of it
//   e               a receive that fails
#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "descriptors.h"
#include "device_io.h"
#include "fuzz_input.h"
#include "input_source.h"
#include "line_settings.h"
#include "mhi_monitor.h"
#include "plain_rules.h"
#include "port_state.h"
#include "shared_int.h"
#include "udp_server.h"
#include "vexa_socket_server.h"
#include "world.h"

namespace {

constexpr std::size_t kLongSize = 16'500;
constexpr std::size_t kMostLong = 4;

sockaddr_in client_of(uint8_t number) {
    sockaddr_in client{};
    client.sin_family = AF_INET;
    client.sin_port = htons(static_cast<uint16_t>(4000 + (number & 1)));
    client.sin_addr.s_addr = htonl(0x7F000001U + (number >> 1 & 3U));
    return client;
}

// What the server has to make of the datagrams: only the port tells clients apart.
struct Service {
    std::vector<world::Message> datagrams;
    bool is_served = false;
    sockaddr_in served{};

    void take(const sockaddr_in& sender) {
        if (is_served && served.sin_port == sender.sin_port)
            return;
        is_served = true;
        served = sender;
    }
};

bool g_is_overlong = false;

class Server {
  public:
    explicit Server(FuzzInput& input) {
        store_shared(g_at_over_sokcet_enable, 0);
        store_shared(g_loc_udp_at_server_socket, -1);
        store_shared(g_loc_udp_at_server_send_socket, -1);
        g_udp_sock_client_addr_array = {};
        g_udp_sock_to_client_addr = {};
        usb_atport_fd = host_ = world::open_descriptor();
        mdm_atport_fd = cp_ = world::open_descriptor();
        platform_ = world::open_descriptor();
        store_shared(g_fd_usb_atport_device, &usb_atport_fd);
        store_shared(g_loc_client_socket_atport, platform_);
        store_shared(g_usb_at_port_mode, USB_PORT_ATCMD_MODE);
        store_shared(g_client_ate_status, kEchoOn);
        store_shared(g_vexa_pcie_enabled, 0);
        g_at_buf_cache[static_cast<int>(InputSource::udp_server)].clear();
        failing_sockets_ = input.byte();
        failing_binds_ = input.byte() & 7U;
        read(input);
    }
    ~Server() {
        store_shared(g_at_over_sokcet_enable, 0);
        store_shared(g_loc_udp_at_server_send_socket, -1);
        store_shared(g_loc_client_socket_atport, -1);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void serve();

  private:
    void read(FuzzInput& input);
    void add(std::string text, uint8_t client) {
        service_.datagrams.push_back({std::move(text), client_of(client), false});
    }
    void answer_as_cp() const;
    void check_answers() const;

    Service service_;
    int host_ = -1;
    int cp_ = -1;
    int platform_ = -1;
    unsigned failing_sockets_ = 0;
    unsigned failing_binds_ = 0;
    std::size_t long_ones_ = 0;
};

void Server::read(FuzzInput& input) {
    if (g_is_overlong)  // of the execution before: its end
        add("\r", 0);
    g_is_overlong = false;
    while (!input.empty() && service_.datagrams.size() < 60) {
        const uint8_t letter = input.byte();
        if (letter == 'd') {
            const uint8_t client = input.byte();
            add(input.text(), client);
        }
        if (letter == 'D' && ++long_ones_ < kMostLong) {
            const uint8_t client = input.byte();
            const std::string text = input.text();
            std::string all;
            while (!text.empty() && all.size() < kLongSize) all += text;
            add(all, client);
            g_is_overlong = true;
        }
        if (letter == 'e')
            service_.datagrams.push_back({"", {}, true});
    }
}

// As the modem's reader does, in the middle of the wait.
void Server::answer_as_cp() const {
    constexpr char kOk[] = "\r\nOK\r\n";
    HOLDS(write_to_device(usb_atport_fd, kUsbAtPortPath, sizeof kOk - 1, kOk) >= 0);
    HOLDS(world::is_free(&g_mut_atport));
}

// Everything for the host goes to the client that is served, from a socket of its own.
void Server::check_answers() const {
    HOLDS(world::at(host_).written.empty());
    const int sender = load_shared(g_loc_udp_at_server_send_socket);
    HOLDS(world::is_open(sender));
    int open_sockets = 0;
    for (int fd = platform_ + 1; fd < world::next_descriptor(); ++fd) {
        open_sockets += world::is_open(fd) ? 1 : 0;
        for (const world::Message& message : world::at(fd).written) {
            HOLDS(message.peer.sin_family == AF_INET);
            HOLDS(fd != sender ||
                  (message.peer.sin_port == service_.served.sin_port &&
                   message.peer.sin_addr.s_addr == service_.served.sin_addr.s_addr));
        }
    }
    HOLDS(open_sockets == 2);  // one to receive, one to answer
}

void Server::serve() {
    static pthread_mutex_t from_mutex = PTHREAD_MUTEX_INITIALIZER;
    thread_info_t record = {kUsbAtPortPath, kAtChannelPath, &usb_atport_fd,
                            &mdm_atport_fd, &from_mutex,    &mdm_atport_mutex,
                            nullptr,        nullptr,        0};
    world::fail_next(world::Call::socket, failing_sockets_);
    world::fail_next(world::Call::bind, failing_binds_);
    int receiving = -1;
    world::on_bind([this, &receiving](int fd) {
        receiving = fd;
        for (const world::Message& datagram : service_.datagrams)
            world::at(fd).incoming.push_back(datagram);
    });
    world::on_wait([this] { answer_as_cp(); });
    const world::End end = world::run([&] { remote_udp_data_handler(&record); });
    HOLDS(world::is_free(&mdm_atport_mutex) && world::is_free(&usb_atport_mutex));
    if (end == world::End::returned) {  // it could not make a socket for answers
        HOLDS(failing_sockets_ != 0);
        HOLDS(load_shared(g_loc_udp_at_server_send_socket) == -1);
        g_is_overlong = true;
        return;
    }
    HOLDS(world::at(receiving).incoming.empty());
    for (const world::Message& datagram : service_.datagrams)
        if (!datagram.is_silence && !datagram.bytes.empty())
            service_.take(datagram.peer);
    if (service_.is_served)
        check_answers();
    HOLDS(load_shared(g_at_over_sokcet_enable) == (service_.is_served ? 1 : 0));
    const LockedText& line = g_at_buf_cache[static_cast<int>(InputSource::udp_server)];
    HOLDS(line.length() == 0 || plain::is_legal({line.text(), line.length()}));
}

// One receive and one send with arguments that nobody should give.
void refuse_bad_arguments() {
    sockaddr_in client{};
    char area[8];
    HOLDS(recv_udp_cmd_from_client(-1, area, 7, &client) == 0);
    HOLDS(recv_udp_cmd_from_client(900, nullptr, 7, &client) == 0);
    HOLDS(recv_udp_cmd_from_client(900, area, 7, nullptr) == 0);
    HOLDS(send_udp_result_to_client(900, nullptr, 7, &client) == 0);
    HOLDS(send_udp_result_to_client(900, area, -1, &client) == 0);
    HOLDS(send_udp_result_to_client(900, area, 1, nullptr) == 0);
    const int fd = world::open_descriptor();
    world::at(fd).fault = world::Fault::broken;
    HOLDS(send_udp_result_to_client(fd, "x", 1, &client) == -1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const world::Run run;
    FuzzInput input(data, size);
    Server(input).serve();
    refuse_bad_arguments();
    return 0;
}
