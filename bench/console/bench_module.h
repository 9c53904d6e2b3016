// The simulated module as script/run starts it: the daemon, the scripted modem, the app platform,
// and a pty outside for every host port.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "loop.h"
#include "modem_peer.h"
#include "module_space.h"
#include "mux_record.h"
#include "options.h"
#include "relay.h"

namespace bench {

enum HostPortIndex : int { kModemHostPort, kAtHostPort, kUartHostPort, kPciePipe };
inline constexpr int kHostPortCount = 4;

class BenchModule {
  public:
    BenchModule(const BenchOptions& options, Loop& loop) : options_(options), loop_(loop) {}

    // Lays everything and starts the daemon; false: error() tells a person why.
    bool start();
    const std::string& error() const { return error_; }
    // Calls back once every port is served.
    void when_ready(std::function<void()> ready);
    // Calls back when the daemon has ended by itself.
    void when_daemon_ends(std::function<void(int status)> ended) {
        daemon_ended_ = std::move(ended);
    }
    // What was started and where the ports can be reached, a line each.
    std::vector<std::string> summary() const;

    void write_port(int port, std::string_view bytes);
    // What the module says on a host port, besides going to the pty outside.
    void on_port_output(int port, std::function<void(std::string_view)> heard);

    ModuleSpace& space() { return space_; }
    Loop& loop() { return loop_; }
    const BenchOptions& options() const { return options_; }
    // The end of what the daemon wrote.
    const std::string& log_tail() const { return log_tail_; }
    // Starts a program of this build inside the module; nothing when it cannot be started. `input`
    // and `output` are its standard ones; without, it has none.
    std::optional<Child> start_program(const std::string& name,
                                       const std::vector<std::string>& arguments, int output = -1,
                                       int input = -1);
    // "connect", "disconnect", "configure" of MHI channel 32, 33 or both (0), by a kernel uevent.
    bool change_mhi(const std::string& change, int channel);

  private:
    struct Channel {
        UniqueFd listener;
        UniqueFd connection;
    };

    bool lay_ports();
    bool lay_channels();
    bool lay_pcie();
    bool start_daemon();
    bool start_platform();
    bool fail(const std::string& what);
    void take_port_output(int port);
    void take_channel_message(int channel);
    void accept_channel(int channel);
    void close_channel(int channel);
    void play_modem();
    void take_log();
    void take_exits();
    void look_if_ready();
    bool is_ready();

    BenchOptions options_;
    Loop& loop_;
    ModuleSpace space_;
    std::array<Pty, kHostPortCount> ports_;
    std::array<std::unique_ptr<Relay>, kHostPortCount> relays_;
    std::array<std::function<void(std::string_view)>, kHostPortCount> heard_;
    std::array<Channel, 3> channels_;
    std::unique_ptr<ModemPeer> peer_;
    int modem_timer_ = 0;
    MuxRecord record_;
    UniqueFd log_;
    UniqueFd log_file_;
    std::string log_tail_;
    Child daemon_;
    std::optional<Child> platform_;
    std::function<void()> ready_;
    std::function<void(int)> daemon_ended_;
    std::string error_;
};

}  // namespace bench
