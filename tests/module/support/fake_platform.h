// The app platform in a test's hands: the packs that come in on the three connections, answers by
// the test or by a rule of its own, and every way to go away. Served while anything of the module
// waits. A pack that is no port report on a connection that was not reported fails the test.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "here.h"
#include "module.h"
#include "platform_peer.h"
#include "unique_fd.h"

class FakePlatform {
  public:
    explicit FakePlatform(Module& module, bool listens = true);
    ~FakePlatform();
    FakePlatform(const FakePlatform&) = delete;
    FakePlatform& operator=(const FakePlatform&) = delete;

    void listen();
    void stop_listening();
    // As when the process is killed: whatever is on its way is lost.
    void kill();
    // Takes no more, answers what it has, lets the daemon read its answers, and goes.
    void end(Here here = Here::current());

    // Ports are "modem", "at" and "uart".
    // Until the port was reported `times` times in all.
    void wait_for_report(const std::string& port, int times = 1, Here here = Here::current());
    void wait_for_reports(int times = 1, Here here = Here::current());
    // Until all three ports have a connection that was reported.
    void wait_until_connected(Here here = Here::current());
    int reports(const std::string& port) const;
    bool is_connected(const std::string& port) const;
    // How many were taken in all, whatever came of them.
    int connections() const { return next_id_ - 1; }

    // The next pack on the port is exactly this.
    void expect(const std::string& port, std::string_view payload,
                bench::PackKind kind = bench::PackKind::command, Here here = Here::current());
    // The payloads of the next packs, all of this kind, together are exactly this.
    void expect_stream(const std::string& port, std::string_view bytes, bench::PackKind kind,
                       Here here = Here::current());
    void send(const std::string& port, std::string_view payload,
              bench::PackKind kind = bench::PackKind::command);
    // Bytes as they stand.
    void send_raw(const std::string& port, std::string_view bytes);
    void hang_up(const std::string& port);
    void half_close(const std::string& port);

    // What goes out, as it stands, for each pack that comes; empty: the test answers by itself.
    std::function<std::string(const bench::PlatformRequest&)> answer;
    // Packs that were not yet expected; kept only without `answer`.
    std::vector<bench::PlatformRequest> requests;
    int answered = 0;

  private:
    struct Connection {
        bench::UniqueFd fd;
        std::string port = "?";
        std::string stream;
    };

    bool accept_connection();
    void take_input(int id);
    void take(Connection& connection, const bench::Pack& pack);
    void drop(int id);
    int find(const std::string& port) const;
    Connection& connection_of(const std::string& port);

    Module& module_;
    bench::UniqueFd listener_;
    std::map<int, Connection> connections_;
    std::map<std::string, int> reports_;
    int next_id_ = 1;
};

// A module whose platform was there first and has all three connections.
struct ModuleWithPlatform {
    explicit ModuleWithPlatform(ModuleOptions options = {});
    Module module;
    FakePlatform platform;
};
