// The engine on devices that are socket pairs: what it writes is there when its call returns.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "at_engine.h"
#include "descriptors.h"
#include "dispatch.h"
#include "engine_settings.h"
#include "input_source.h"
#include "line_settings.h"
#include "mhi_monitor.h"
#include "mux_session.h"
#include "port_state.h"
#include "shared_int.h"
#include "udp_server.h"

// Two connected sockets: the daemon's side and the peer's, which never blocks.
class Device {
  public:
    explicit Device(int type) {
        int ends[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends), 0);
        daemon_fd = ends[0];
        peer_ = ends[1];
    }
    ~Device() {
        if (daemon_fd >= 0)
            close(daemon_fd);
        close(peer_);
    }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    // Each message, or everything so far for a byte stream.
    std::vector<std::string> messages() {
        std::vector<std::string> all;
        std::string area(32768, '\0');
        for (;;) {
            const ssize_t count = recv(peer_, area.data(), area.size(), MSG_DONTWAIT);
            if (count <= 0)
                return all;
            all.push_back(area.substr(0, static_cast<std::size_t>(count)));
        }
    }
    void wait_for_message() const {
        char first = 0;
        EXPECT_GT(recv(peer_, &first, 1, MSG_PEEK), 0);
    }
    std::string bytes() {
        std::string all;
        for (const std::string& message : messages()) all += message;
        return all;
    }

    int daemon_fd = -1;

  private:
    int peer_ = -1;
};

// Signals a port's condition until it goes: stands for the reader that brings the answer. A wait
// without a predicate loses a signal that comes early, so one alone would not do.
class Answerer {
  public:
    explicit Answerer(pthread_cond_t& cond)
        : thread_([this, &cond] {
              while (!done_) {
                  pthread_cond_signal(&cond);
                  usleep(200);
              }
          }) {}
    ~Answerer() {
        done_ = true;
        thread_.join();
    }
    Answerer(const Answerer&) = delete;
    Answerer& operator=(const Answerer&) = delete;

  private:
    std::atomic<bool> done_ = false;
    std::thread thread_;
};

// One host port with its CP channel and its platform connection.
struct TestPort {
    TestPort(const PortRecord& port_record, InputSource input_source, const char* channel)
        : record(port_record),
          source(input_source),
          tinfo{port_record.host_path,
                channel,
                &from_fd,
                &cp.daemon_fd,
                &from_mutex,
                &cp_mutex,
                nullptr,
                nullptr,
                0} {
        store_shared(record.platform_socket, platform.daemon_fd);
        store_shared(record.mode, USB_PORT_ATCMD_MODE);
        store_shared(record.send_done, 0);
        record.last_line.clear();
        g_at_buf_cache[static_cast<int>(source)].clear();
    }
    ~TestPort() { store_shared(record.platform_socket, -1); }
    TestPort(const TestPort&) = delete;
    TestPort& operator=(const TestPort&) = delete;

    int feed(std::string chunk) {
        bind_input_source(source);
        chunk.push_back('~');  // the spare byte
        return common_input_atcmd_proc(load_shared(record.platform_socket), chunk.data(),
                                       static_cast<int>(chunk.size()) - 1, &record.mode,
                                       &record.response_mutex, &record.response_cond, &tinfo);
    }
    void feed_cut(const std::string& text, std::size_t size) {
        for (std::size_t at = 0; at < text.size(); at += size) feed(text.substr(at, size));
    }
    [[nodiscard]] int mode() const { return load_shared(record.mode); }
    void set_mode(int mode) { store_shared(record.mode, mode); }
    [[nodiscard]] std::string line() const {
        return g_at_buf_cache[static_cast<int>(source)].text();
    }
    std::vector<std::string> to_platform() {
        constexpr std::size_t kHeads = 44;
        std::vector<std::string> payloads;
        const std::string all = platform.bytes();
        for (std::size_t at = 0; at + kHeads <= all.size();) {
            uint32_t length = 0;
            memcpy(&length, all.data() + at + 4, sizeof length);
            payloads.push_back(all.substr(at + kHeads, length - kHeads));
            at += length;
        }
        return payloads;
    }

    const PortRecord& record;
    InputSource source;
    Device cp{SOCK_SEQPACKET};
    Device platform{SOCK_STREAM};
    int from_fd = -1;
    pthread_mutex_t from_mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_t cp_mutex = PTHREAD_MUTEX_INITIALIZER;
    thread_info_t tinfo;
};

class EngineFixture : public ::testing::Test {
  protected:
    EngineFixture() {
        reset_engine_settings();
        store_shared(g_qxdm_log, log_sink_);
        usb_fd = usb_modem.daemon_fd;
        usb_atport_fd = usb_at.daemon_fd;
        usb_atport_fd_pcie = -1;
        usb_uartport_fd = uart.daemon_fd;
        store_shared(g_fd_usb_modem_device, &usb_fd);
        store_shared(g_fd_usb_atport_device, &usb_atport_fd);
        store_shared(g_fd_usb_atport_device_pcie, &usb_atport_fd_pcie);
        store_shared(g_fd_usb_uartport_device, &usb_uartport_fd);
    }
    ~EngineFixture() override {
        usb_fd = usb_atport_fd = usb_atport_fd_pcie = usb_uartport_fd = -1;
        reset_engine_settings();
        store_shared(g_qxdm_log, log_sink_);
    }
    EngineFixture(const EngineFixture&) = delete;
    EngineFixture& operator=(const EngineFixture&) = delete;

    TestPort& port(PortIndex index) {
        TestPort* const all[] = {&modem_port, &at_port, &uart_port};
        return *all[index];
    }
    Device& host(PortIndex index) {
        Device* const all[] = {&usb_modem, &usb_at, &uart};
        return *all[index];
    }
    // What the three hosts have received; empty for a silent engine.
    std::string all_hosts() { return usb_modem.bytes() + usb_at.bytes() + uart.bytes(); }

    const int log_sink_ = load_shared(g_qxdm_log);  // as the run was told (log_sink.cpp)
    Device usb_modem{SOCK_STREAM};
    Device usb_at{SOCK_STREAM};
    Device uart{SOCK_STREAM};
    TestPort modem_port{g_ports[kModemPort], InputSource::modem_port, "/dev/at_mdm0"};
    TestPort at_port{g_ports[kAtPort], InputSource::at_port, "/dev/smd7"};
    TestPort uart_port{g_ports[kUartPort], InputSource::uart_port, "/dev/smd8"};
};

// The same on each port.
class EveryPort : public EngineFixture, public ::testing::WithParamInterface<PortIndex> {
  protected:
    TestPort& own = port(GetParam());
    Device& own_host = host(GetParam());
    bool is_uart = GetParam() == kUartPort;
    Answerer answerer{own.record.response_cond};
};

inline std::string port_name(const ::testing::TestParamInfo<PortIndex>& info) {
    return g_ports[static_cast<std::size_t>(info.param)].log_name;
}

inline constexpr char kDownText[] = "app-plat is not running, plz wait....\r\n";
using Lines = std::vector<std::string>;
