#include <netinet/in.h>
#include <sys/socket.h>

#include <array>

#include "bench_module.h"
#include "mux_road.h"
#include "qmi_road.h"
#include "road.h"

namespace bench {
namespace {

using namespace std::chrono_literals;

class PortRoad : public Road {
  public:
    PortRoad(BenchModule& module, int port, std::string title)
        : module_(module), port_(port), title_(std::move(title)) {}

    bool open(const std::function<void()>& opened) override {
        module_.on_port_output(port_, [this](std::string_view bytes) { heard(bytes); });
        opened();
        return true;
    }
    void send(std::string_view bytes) override { module_.write_port(port_, bytes); }
    std::string title() const override { return title_; }

  private:
    BenchModule& module_;
    int port_;
    std::string title_;
};

class UdpRoad : public Road {
  public:
    explicit UdpRoad(BenchModule& module) : module_(module) {}
    ~UdpRoad() override { module_.loop().unwatch(socket_.get()); }

    bool open(const std::function<void()>& opened) override {
        socket_ = module_.space().socket(AF_INET, SOCK_DGRAM);
        if (!socket_.is_open()) {
            return fail(module_.space().error());
        }
        module_.loop().watch(socket_.get(), [this] { take_datagram(); });
        opened();
        return true;
    }
    void send(std::string_view bytes) override {
        // Not connected: the answers come from another port of the server's.
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_port = htons(5555);
        server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const std::int64_t begun = module_.record().time();
        (void)!sendto(socket_.get(), bytes.data(), bytes.size(), 0,
                      reinterpret_cast<sockaddr*>(&server), sizeof server);
        module_.record().typed_datagram(begun, own_name(), bytes);
    }
    std::string title() const override { return "the UDP server, port 5555 inside the module"; }

  private:
    // As the server sees this client. The port is there after the first datagram.
    std::string own_name() const {
        sockaddr_in own{};
        socklen_t size = sizeof own;
        getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&own), &size);
        return "127.0.0.1:" + std::to_string(ntohs(own.sin_port));
    }
    void take_datagram() {
        std::array<char, 65536> bytes;
        const ssize_t got = recv(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (got > 0) {
            heard({bytes.data(), static_cast<std::size_t>(got)});
        }
    }

    BenchModule& module_;
    UniqueFd socket_;
};

template <int port>
std::unique_ptr<Road> make_port_road(BenchModule& module) {
    return std::make_unique<PortRoad>(module, port, std::string("the ") + kPorts[port].name);
}

template <typename Kind>
std::unique_ptr<Road> make(BenchModule& module) {
    return std::make_unique<Kind>(module);
}

struct RoadRow {
    const char* port;  // as --port names it
    std::unique_ptr<Road> (*make)(BenchModule& module);
};

constexpr std::array<RoadRow, 7> kRoads{{
    {"modem", make_port_road<kModemHostPort>},
    {"at", make_port_road<kAtHostPort>},
    {"uart", make_port_road<kUartHostPort>},
    {"mux", make<MuxRoad>},
    {"udp", make<UdpRoad>},
    {"qmi", make<QmiRoad>},
    {"pcie", make_port_road<kPciePipe>},
}};

}  // namespace

std::vector<std::string> road_ports() {
    std::vector<std::string> ports;
    ports.reserve(kRoads.size());
    for (const RoadRow& row : kRoads) {
        ports.emplace_back(row.port);
    }
    return ports;
}

std::unique_ptr<Road> make_road(const std::string& port, BenchModule& module) {
    for (const RoadRow& row : kRoads) {
        if (port == row.port) {
            return row.make(module);
        }
    }
    return nullptr;
}

}  // namespace bench
