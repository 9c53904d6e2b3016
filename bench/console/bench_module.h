// The simulated module as script/run starts it: the daemon, the scripted modem, the app platform,
// and a pty outside for every host port.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "device_names.h"
#include "loop.h"
#include "modem_peer.h"
#include "module_space.h"
#include "options.h"
#include "relay.h"
#include "scenario.h"
#include "session_record.h"

namespace bench {

// Bytes and chunks of one place, each way.
struct Passed {
    std::uint64_t to_daemon = 0;
    std::uint64_t chunks_to_daemon = 0;
    std::uint64_t from_daemon = 0;
    std::uint64_t chunks_from_daemon = 0;
};

enum HostPortIndex : int { kModemHostPort, kAtHostPort, kUartHostPort, kPciePipe };
inline constexpr int kHostPortCount = kHostDevices;

struct PortName {
    const char* place;  // as the console and recordings call it
    const char* name;
    const char* path;
};
consteval PortName port_name(const char* place, const char* name) {
    return {place, name, kDevicePaths[device_at(place)].data()};
}
inline constexpr std::array<PortName, kHostPortCount> kPorts{
    {port_name("modem", "modem port"), port_name("at", "AT port"), port_name("uart", "UART port"),
     port_name("pcie", "PCIe pipe")}};

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
    // Everything the daemon was sent on a host port has been read by it.
    bool is_port_read(int port) const;
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
    // What the console can do to the module. False: error() tells why not.
    // "connect", "disconnect", "configure" of MHI channel 32, 33 or both (0), by a kernel uevent.
    bool change_mhi(const std::string& change, int channel);
    bool unplug(const std::string& port);
    bool plug(const std::string& port);
    bool stop_platform();
    bool start_platform();
    // Other modem-control lines at a place ("modem", "cp-at"), by their names; the daemon is told.
    bool set_lines(const std::string& place, const std::string& names);
    std::string lines_of(const std::string& place);
    // The modem answers by this scenario from now on, as if it had been started with it.
    bool use_scenario(const std::string& path);
    bool use_scenario_text(const std::string& name, const std::string& text);

    SessionRecord& record() { return record_; }
    // The recording's last line, behind what the daemon has sent. Why it is not whole, or nothing.
    std::string end_record(int status);
    // One line: the mode of each host port and whether the platform is there.
    std::string status_line();
    // What passed so far and what the daemon takes, a line each.
    std::vector<std::string> stats() const;

  private:
    struct Channel {
        UniqueFd listener;
        UniqueFd connection;
    };

    bool lay_ports();
    bool lay_port(int port);
    bool launch_platform();
    void play_scenario(Scenario scenario);
    bool find_port(const std::string& port, int& index);
    bool lay_channels();
    bool lay_pcie();
    bool start_daemon();
    bool send_mhi(const std::string& change, int channel);
    bool fail(const std::string& what);
    void take_port_output(int port);
    void take_channel_message(int channel);
    void accept_channel(int channel);
    void close_channel(int channel);
    void play_modem();
    bool take_log();  // false: nothing came
    void take_exits();
    void look_if_ready();
    bool is_ready();

    BenchOptions options_;
    Loop& loop_;
    ModuleSpace space_;
    std::array<Pty, kHostPortCount> ports_;
    std::array<std::unique_ptr<Relay>, kHostPortCount> relays_;
    std::array<std::function<void(std::string_view)>, kHostPortCount> heard_;
    std::array<Channel, kChannels> channels_;
    std::unique_ptr<ModemPeer> peer_;
    int modem_timer_ = 0;
    SessionRecord record_;
    UniqueFd log_;
    UniqueFd log_file_;
    std::string log_tail_;
    std::array<Passed, kHostPortCount> port_traffic_;
    std::array<Passed, kChannels> channel_traffic_;
    Child daemon_;
    bool is_ending_ = false;  // the bench ends the daemon itself
    std::optional<Child> platform_;
    std::function<void()> ready_;
    std::function<void(int)> daemon_ended_;
    std::string error_;
};

}  // namespace bench
