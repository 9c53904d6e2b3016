#include "fake_platform.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>

namespace {

const std::string kSocketPath = "/dev/socket/qmux_webs/server_webs";

// Pack 44 + 4: the port report's payload is the port's number.
std::string port_of(const std::string& payload) {
    const std::map<char, std::string> names{{0, "modem"}, {1, "at"}, {4, "uart"}};
    const auto found = names.find(payload.empty() ? -1 : payload[0]);
    return payload.size() == 4 && found != names.end() ? found->second : "?";
}

ModuleOptions not_started(ModuleOptions options) {
    options.start = false;
    return options;
}

// Bytes that the daemon has not read yet.
int unread(int fd) {
    int bytes = 0;
    ioctl(fd, SIOCOUTQ, &bytes);
    return bytes;
}

}  // namespace

FakePlatform::FakePlatform(Module& module, bool listens) : module_(module) {
    if (listens) {
        listen();
    }
}

FakePlatform::~FakePlatform() {
    if (listener_.is_open()) {
        module_.unwatch(listener_.get());
    }
    for (const auto& [id, connection] : connections_) {
        module_.unwatch(connection.fd.get());
    }
}

void FakePlatform::listen() {
    listener_ = module_.listen(kSocketPath, SOCK_STREAM);
    module_.watch(listener_.get(), [this] { accept_connection(); });
}

void FakePlatform::stop_listening() {
    if (!listener_.is_open()) {
        return;
    }
    module_.remove(kSocketPath);
    // Whoever is in the queue was connected: closing would throw away what it sent.
    while (accept_connection()) {
    }
    module_.unwatch(listener_.get());
    listener_.reset();
}

void FakePlatform::kill() {
    stop_listening();
    while (!connections_.empty()) {
        drop(connections_.begin()->first);
    }
}

void FakePlatform::end(Here here) {
    stop_listening();
    // From here on the daemon's sends fail; what it sent before can still be read.
    for (const auto& [id, connection] : connections_) {
        shutdown(connection.fd.get(), SHUT_RD);
    }
    std::vector<int> ids;
    for (const auto& [id, connection] : connections_) {
        ids.push_back(id);
    }
    for (const int id : ids) {
        if (connections_.contains(id)) {
            module_.unwatch(connections_.at(id).fd.get());
            take_input(id);
        }
    }
    module_.wait_until(
        [&] {
            return std::all_of(connections_.begin(), connections_.end(), [](const auto& entry) {
                return unread(entry.second.fd.get()) == 0;
            });
        },
        "the daemon to read its answers", here);
    while (!connections_.empty()) {
        drop(connections_.begin()->first);
    }
}

bool FakePlatform::accept_connection() {
    Connection connection;
    connection.fd = bench::UniqueFd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection.fd.is_open()) {
        return false;
    }
    const int id = next_id_++;
    module_.watch(connection.fd.get(), [this, id] { take_input(id); });
    connections_.emplace(id, std::move(connection));
    return true;
}

// All that is there, and an end that may follow it.
void FakePlatform::take_input(int id) {
    while (connections_.contains(id)) {
        Connection& connection = connections_.at(id);
        char bytes[65536];
        const ssize_t size = recv(connection.fd.get(), bytes, sizeof bytes, MSG_DONTWAIT);
        if (size < 0) {
            return;
        }
        if (size == 0) {
            // Left open after shutdown(SHUT_RD), where the end is this side's own doing.
            if (listener_.is_open()) {
                drop(id);
            }
            return;
        }
        connection.stream.append(bytes, static_cast<std::size_t>(size));
        bool broken = false;
        while (const auto pack = bench::take_pack(connection.stream, broken)) {
            take(connection, *pack);
        }
        if (broken) {
            ADD_FAILURE() << "the daemon sent what is no pack";
        }
    }
}

void FakePlatform::take(Connection& connection, const bench::Pack& pack) {
    if (pack.kind == bench::PackKind::report) {
        connection.port = port_of(pack.payload);
        ++reports_[connection.port];
        return;
    }
    if (connection.port == "?") {
        ADD_FAILURE() << "a pack came ahead of its connection's port report: " << pack.payload;
    }
    const bench::PlatformRequest request{connection.port, pack.kind, pack.payload};
    if (!answer) {
        requests.push_back(request);
        return;
    }
    const std::string bytes = answer(request);
    (void)!::send(connection.fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    ++answered;
}

void FakePlatform::drop(int id) {
    module_.unwatch(connections_.at(id).fd.get());
    connections_.erase(id);
}

int FakePlatform::find(const std::string& port) const {
    for (const auto& [id, connection] : connections_) {
        if (connection.port == port) {
            return id;
        }
    }
    return -1;
}

FakePlatform::Connection& FakePlatform::connection_of(const std::string& port) {
    const int id = find(port);
    if (id < 0) {
        module_.fail("the platform has no connection for the port " + port, Here::current());
    }
    return connections_.at(id);
}

int FakePlatform::reports(const std::string& port) const {
    const auto found = reports_.find(port);
    return found == reports_.end() ? 0 : found->second;
}

bool FakePlatform::is_connected(const std::string& port) const {
    return find(port) >= 0;
}

void FakePlatform::wait_for_report(const std::string& port, int times, Here here) {
    module_.wait_until([&] { return reports(port) >= times; },
                       "the port report of " + port + ", " + std::to_string(times) + " times",
                       here);
}

void FakePlatform::wait_for_reports(int times, Here here) {
    for (const char* port : {"modem", "at", "uart"}) {
        wait_for_report(port, times, here);
    }
}

void FakePlatform::wait_until_connected(Here here) {
    module_.wait_until(
        [this] { return is_connected("modem") && is_connected("at") && is_connected("uart"); },
        "all three connections", here);
}

void FakePlatform::expect(const std::string& port, std::string_view payload, bench::PackKind kind,
                          Here here) {
    module_.wait_until([&] { return !requests.empty(); },
                       "the pack \"" + bench::visible(payload) + "\" on " + port, here);
    const bench::PlatformRequest request = requests.front();
    requests.erase(requests.begin());
    if (request.port != port || request.payload != payload || request.kind != kind) {
        module_.fail("expected \"" + bench::visible(payload) + "\" on " + port +
                         ", the platform got \"" + bench::visible(request.payload) + "\" on " +
                         request.port + " of kind " +
                         std::to_string(static_cast<unsigned>(request.kind)),
                     here);
    }
}

void FakePlatform::expect_stream(const std::string& port, std::string_view bytes,
                                 bench::PackKind kind, Here here) {
    std::string got;
    while (got.size() < bytes.size()) {
        module_.wait_until([&] { return !requests.empty(); },
                           "\"" + bench::visible(bytes) + "\" on " + port, here);
        const bench::PlatformRequest request = requests.front();
        requests.erase(requests.begin());
        if (request.port != port || request.kind != kind) {
            module_.fail("a pack of another port or kind", here);
        }
        got += request.payload;
    }
    if (got != bytes) {
        module_.fail("expected \"" + bench::visible(bytes) + "\", the platform got \"" +
                         bench::visible(got) + "\"",
                     here);
    }
}

void FakePlatform::send(const std::string& port, std::string_view payload, bench::PackKind kind) {
    send_raw(port, bench::encode_pack(kind, payload));
}

void FakePlatform::send_raw(const std::string& port, std::string_view bytes) {
    (void)!::send(connection_of(port).fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void FakePlatform::hang_up(const std::string& port) {
    connection_of(port);
    drop(find(port));
}

void FakePlatform::half_close(const std::string& port) {
    shutdown(connection_of(port).fd.get(), SHUT_WR);
}

ModuleWithPlatform::ModuleWithPlatform(ModuleOptions options)
    : module(not_started(std::move(options))), platform(module) {
    module.start();
    platform.wait_for_reports();
}
