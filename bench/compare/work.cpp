#include "work.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <functional>

#include "figures.h"
#include "mux_host.h"

namespace compare {

namespace {

constexpr std::uint16_t kUdpPort = 5555;
// Always the same: the log has the port in decimal, and a digit more or less is 200 instructions.
constexpr std::uint16_t kUdpClientPort = 12345;
constexpr int kModemPort = 0;
constexpr int kAtPort = 1;
constexpr int kUartPort = 2;
constexpr int kWholePauseMs = 3;  // longer than the pauses behind an answer
constexpr std::size_t kPppChunk = 1500;

void rest() {
    poll(nullptr, 0, kWholePauseMs);
}

void ask(Rig& rig, int port, std::string_view command) {
    write_whole(rig.line(port).host(), command);
    take_until(rig.line(port).host(), kEnd, "an answer");
    rest();
}

void ask_modem(Rig& rig, Contestant& daemon, int count, const std::vector<int>& ports) {
    std::vector<std::unique_ptr<AnsweringModem>> modems;
    modems.reserve(ports.size());
    for (const int port : ports) {
        modems.push_back(std::make_unique<AnsweringModem>(daemon.modem_end(port)));
    }
    for (int i = 0; i < count; ++i) {
        for (const int port : ports) {
            write_whole(rig.line(port).host(), kModemCommand);
        }
        for (const int port : ports) {
            take_until(rig.line(port).host(), kEnd, "an answer");
        }
        rest();
    }
}

void ask_platform(Rig& rig, int count) {
    for (int i = 0; i < count; ++i) {
        ask(rig, kModemPort, kPlatformCommand);
    }
}

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

void ask_by_udp(Rig& rig, Contestant& daemon, int count, const std::string& command) {
    const AnsweringModem modem(daemon.modem_end(kAtPort));
    const bench::UniqueFd client = rig.space().socket(AF_INET, SOCK_DGRAM);
    const sockaddr_in own = loopback(kUdpClientPort);
    const sockaddr_in server = loopback(kUdpPort);
    if (bind(client.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) < 0) {
        throw Trouble("the client's UDP port could not be taken");
    }
    for (int i = 0; i < count; ++i) {
        if (sendto(client.get(), command.data(), command.size(), 0,
                   reinterpret_cast<const sockaddr*>(&server), sizeof server) < 0) {
            throw Trouble("no datagram could be sent");
        }
        take_until(client.get(), kEnd, "a datagram");
        rest();
    }
}

void carry_mux(Rig& rig, bench::MuxHost& host, const std::function<bool()>& done) {
    while (!done()) {
        const std::string output = host.take_output();
        if (!output.empty()) {
            write_whole(rig.line(kUartPort).host(), output);
        }
        host.received(take_some(rig.line(kUartPort).host(), 4096, "frames"));
    }
}

void ask_by_mux(Rig& rig, Contestant& daemon, int count) {
    const AnsweringModem modem(daemon.modem_end(kUartPort));
    bench::MuxHost host;
    host.open();
    carry_mux(rig, host, [&] { return host.is_open(); });
    for (int i = 0; i < count; ++i) {
        host.send(bench::kMuxCommandChannel, kModemCommand);
        carry_mux(rig, host, [&] { return host.take(bench::kMuxCommandChannel, kEnd); });
        rest();
    }
}

// Each byte once the one before was echoed, so that each is a read of its own.
void type_slowly(Rig& rig, Contestant& daemon, int count) {
    const AnsweringModem modem(daemon.modem_end(kModemPort));
    const std::string line = "AT+X=" + std::string(static_cast<std::size_t>(count), 'x');
    for (const char byte : line) {
        write_whole(rig.line(kModemPort).host(), {&byte, 1});
        take_count(rig.line(kModemPort).host(), 1, "an echo");
    }
    ask(rig, kModemPort, "\r");
}

void send_data(Rig& rig, Contestant& daemon, int count, Direction direction) {
    dial(rig, daemon);
    const std::string chunk(kPppChunk, 'p');
    const bool to_modem = direction == Direction::to_modem;
    const int from = to_modem ? rig.line(kModemPort).host() : daemon.modem_end(kModemPort);
    const int to = to_modem ? daemon.modem_end(kModemPort) : rig.line(kModemPort).host();
    for (int i = 0; i < count; ++i) {
        write_whole(from, chunk);
        take_count(to, chunk.size(), "data");
        rest();
    }
}

// "line_1000": a line of so many bytes in one chunk.
std::string line_of(const std::string& kind) {
    const auto size = static_cast<std::size_t>(atoi(kind.substr(kind.find('_') + 1).c_str()));
    std::string line = "AT+";
    line.resize(size - 1, 'x');
    return line + "\r";
}

using Work = std::function<void(Rig&, Contestant&, const std::string& kind, int count)>;

struct Row {
    const char* kind;
    bool log_off;
    Work work;
};

const std::vector<Row>& rows() {
    static const auto modem_on = [](const std::vector<int>& ports) {
        return [=](Rig& rig, Contestant& daemon, const std::string&, int count) {
            ask_modem(rig, daemon, count, ports);
        };
    };
    static const Work line = [](Rig& rig, Contestant& daemon, const std::string& kind, int count) {
        ask_by_udp(rig, daemon, count, line_of(kind));
    };
    static const std::vector<Row> all{
        {"modem", false, modem_on({kModemPort})},
        {"modem_at_port", false, modem_on({kAtPort})},
        {"modem_uart_port", false, modem_on({kUartPort})},
        {"modem_three_ports", false, modem_on({kModemPort, kAtPort, kUartPort})},
        {"modem_log_off", true, modem_on({kModemPort})},
        {"platform", false,
         [](Rig& rig, Contestant&, const std::string&, int count) { ask_platform(rig, count); }},
        {"udp", false,
         [](Rig& rig, Contestant& daemon, const std::string&, int count) {
             ask_by_udp(rig, daemon, count, std::string(kModemCommand));
         }},
        {"mux", false,
         [](Rig& rig, Contestant& daemon, const std::string&, int count) {
             ask_by_mux(rig, daemon, count);
         }},
        {"typed", false,
         [](Rig& rig, Contestant& daemon, const std::string&, int count) {
             type_slowly(rig, daemon, count);
         }},
        {"ppp_to_modem", false,
         [](Rig& rig, Contestant& daemon, const std::string&, int count) {
             send_data(rig, daemon, count, Direction::to_modem);
         }},
        {"ppp_to_host", false,
         [](Rig& rig, Contestant& daemon, const std::string&, int count) {
             send_data(rig, daemon, count, Direction::to_host);
         }},
        {"line_10", false, line},
        {"line_100", false, line},
        {"line_1000", false, line},
        {"line_4000", false, line},
        {"line_16000", false, line},
    };
    return all;
}

const Row* find_row(const std::string& kind) {
    for (const Row& row : rows()) {
        if (row.kind == kind) {
            return &row;
        }
    }
    return nullptr;
}

}  // namespace

std::vector<std::string> work_kinds() {
    std::vector<std::string> kinds;
    for (const Row& row : rows()) {
        kinds.emplace_back(row.kind);
    }
    return kinds;
}

bool has_log_off(const std::string& kind) {
    const Row* row = find_row(kind);
    return row != nullptr && row->log_off;
}

void do_work(Rig& rig, Contestant& daemon, const std::string& kind, int count) {
    find_row(kind)->work(rig, daemon, kind, count);
}

}  // namespace compare
