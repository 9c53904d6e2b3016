// A simulated module with the real daemon in it, for tests: the binary that ships, at its fixed
// paths, in namespaces of its own. Everything waits for an event with one deadline; a failed
// expectation prints what came and the end of the daemon's log, and ends the test. A daemon that
// ends unexpectedly, or whose sanitizer reports something, fails the test at once.
//
//     Module module;
//     module.at_port().write("AT+CFUN?\r");
//     module.at_channel().expect("AT+CFUN?\r");
//     module.at_channel().send("\r\nOK\r\n");
//     module.at_port().expect("\r\nOK\r\n");
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "device_control.h"
#include "here.h"
#include "host_port.h"
#include "modem_channel.h"
#include "modem_peer.h"
#include "module_space.h"
#include "udp_client.h"

// What a test's body is left with after an expectation failed; it has been reported already.
class ExpectationFailed : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct ModuleOptions {
    int target = 35;                           // what ds_get_target answers
    std::map<std::string, std::string> files;  // laid before the daemon starts: path and text
    // A modem scenario's text; empty: the test speaks for the modem itself (modem_channel() ...).
    std::string scenario;
    std::map<std::string, std::string> environment;  // of the daemon
    std::vector<std::string> absent;                 // device paths that do not exist at first
    bool start = true;                               // false: call start() when everything is laid
    // Devices that are polled, and UDP served, once the daemon is up; empty: what the target needs.
    std::vector<std::string> ready_devices;
    bool wait_until_ready = true;
};

class Module {
  public:
    explicit Module(ModuleOptions options = {});
    ~Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    HostPort& modem_port() { return *host_ports_[0]; }
    HostPort& at_port() { return *host_ports_[1]; }
    HostPort& uart_port() { return *host_ports_[2]; }
    HostPort& pcie_pipe() { return *host_ports_[3]; }
    // modem, AT, UART
    HostPort& host_port(int index) { return *host_ports_[static_cast<std::size_t>(index)]; }

    ModemChannel& modem_channel() { return *channels_[0]; }
    ModemChannel& at_channel() { return *channels_[1]; }
    ModemChannel& uart_channel() { return *channels_[2]; }
    ModemChannel& channel(int index) { return *channels_[static_cast<std::size_t>(index)]; }

    // "/dev/at_usb1" and so on.
    DeviceControl device(const std::string& path);

    // A client of the daemon's UDP server, made inside the module's network namespace.
    UdpClient udp_client();
    bench::UniqueFd socket(int domain, int type, int protocol = 0);
    // A listening UNIX socket inside the module; watch() it to be called back.
    bench::UniqueFd listen(const std::string& path, int type);
    void write_file(const std::string& path, const std::string& text);
    void remove(const std::string& path);
    std::string outside(const std::string& path) const { return space_.outside(path); }
    void send_uevent(const std::string& text);

    // The daemon.
    void start(Here here = Here::current());
    void wait_until_ready(Here here = Here::current());
    // Whether the USB target's host ports and modem channels are open and UDP is served.
    bool has_all_ports_open();
    bool serves_udp() const;
    // Once open; a daemon that has the shim polls it, too.
    bool is_served(const std::string& path);
    // Waits for the daemon to end by itself: its exit status, or 128 + signal number.
    int daemon_exit_status(Here here = Here::current());
    bool daemon_runs() const { return daemon_.pid > 0 && !daemon_status_; }
    int daemon_pid() const { return daemon_.outer_pid; }
    int count_descriptors() const;
    int count_threads() const;

    // Everything the daemon has written to its standard output and error.
    std::string log() const;
    void drop_log();
    int log_count(std::string_view text) const;
    // For a test that looks at what is new only.
    std::size_t log_size() const;
    std::string log_from(std::size_t from) const;
    bool log_has(std::string_view text, std::size_t from) const;
    // Until the text has come at least `times` times since the start.
    void wait_for_log(std::string_view text, int times = 1, Here here = Here::current());

    // Another program inside the module (the platform for one); it ends with the module. `name` is
    // a program of this build; its output is shown when an expectation fails.
    int start_program(const std::string& name, const std::vector<std::string>& arguments,
                      Here here = Here::current());
    // For /proc.
    int outer_pid(int program) const { return outer_pids_.at(program); }
    // Everything the programs have written to their standard output and error.
    std::string programs_output() const;
    void wait_for_output(std::string_view text, int times = 1, Here here = Here::current());
    void stop_program(int pid, int signal_number = 9, Here here = Here::current());
    int program_exit_status(int pid, Here here = Here::current());

    // Serves everything until `done` holds; fails the test at the deadline or when the daemon dies.
    void wait_until(const std::function<bool()>& done, const std::string& what,
                    Here here = Here::current());
    // Calls back whenever the descriptor is readable (or hung up) while anything waits.
    void watch(int fd, std::function<void()> readable);
    void unwatch(int fd);
    // One round: waits at most this long for anything to come.
    void serve(std::chrono::milliseconds at_most);

    [[noreturn]] void fail(const std::string& what, Here here);

  private:
    friend class HostPort;
    friend class ModemChannel;
    void lay_devices(const ModuleOptions& options);
    bool is_open_plainly(const std::string& path) const;
    void take_exits();
    void play_modem();
    int poll_time(std::chrono::milliseconds at_most) const;
    // As a service manager ends them: a build that counts or checks has its last word then.
    void end_programs();
    void check_reports();

    ModuleOptions options_;
    bench::ModuleSpace space_;
    bench::UniqueFd log_;
    bench::UniqueFd programs_log_;
    bench::Child daemon_;
    std::optional<int> daemon_status_;
    bool end_expected_ = false;
    std::vector<int> programs_;
    std::map<int, int> outer_pids_;
    std::map<int, int> program_status_;
    std::vector<std::unique_ptr<HostPort>> host_ports_;
    std::vector<std::unique_ptr<ModemChannel>> channels_;
    std::map<int, std::function<void()>> watched_;
    std::unique_ptr<bench::ModemPeer> peer_;
};
