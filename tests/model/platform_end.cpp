#include "platform_end.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "platform_peer.h"

namespace model {
namespace {

constexpr std::size_t kReportSize = 48;
constexpr std::size_t kReportedPort = 44;

int reported_port(const std::string& report) {
    const std::map<char, int> kPortNumbers{{0, kModem}, {1, kAt}, {4, kUart}};
    const auto found = kPortNumbers.find(report[kReportedPort]);
    return found == kPortNumbers.end() ? -1 : found->second;
}

}  // namespace

PlatformEnd::PlatformEnd(Module& module, bool listens) : module_(module) {
    if (listens) {
        listener_ = module.listen("/dev/socket/qmux_webs/server_webs", SOCK_STREAM);
        module_.watch(listener_.get(), [this] { accept_connection(); });
    }
}

PlatformEnd::~PlatformEnd() {
    module_.unwatch(listener_.get());
    for (const auto& [id, connection] : connections_) {
        module_.unwatch(connection.fd.get());
    }
}

void PlatformEnd::accept_connection() {
    bench::UniqueFd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!fd.is_open()) {
        return;
    }
    const int id = next_id_++;
    module_.watch(fd.get(), [this, id] { take_input(id); });
    connections_[id].fd = std::move(fd);
}

void PlatformEnd::take_input(int id) {
    const auto found = connections_.find(id);
    if (found == connections_.end()) {
        return;
    }
    Connection& connection = found->second;
    std::string bytes(65536, '\0');
    const ssize_t size = recv(connection.fd.get(), bytes.data(), bytes.size(), 0);
    if (size <= 0) {
        if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
            drop(id);
        }
        return;
    }
    connection.unread.append(bytes, 0, static_cast<std::size_t>(size));
    if (connection.port < 0 && connection.unread.size() >= kReportSize) {
        connection.port = reported_port(connection.unread);
        had_stranger_ = had_stranger_ || connection.port < 0;
    }
    if (connection.port >= 0) {
        come_[static_cast<std::size_t>(connection.port)] += std::exchange(connection.unread, {});
    }
}

void PlatformEnd::drop(int id) {
    module_.unwatch(connections_.at(id).fd.get());
    connections_.erase(id);
}

int PlatformEnd::find(int port) const {
    for (const auto& [id, connection] : connections_) {
        if (connection.port == port) {
            return id;
        }
    }
    return -1;
}

void PlatformEnd::send(int port, const std::vector<Pack>& packs) {
    std::string bytes;
    for (const Pack& pack : packs) {
        bytes += bench::encode_pack(static_cast<bench::PackKind>(pack.kind), pack.payload);
    }
    module_.wait_until([&] { return find(port) >= 0; }, "the platform's connection of a port");
    (void)!::send(connections_.at(find(port)).fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

std::string PlatformEnd::take(int port) {
    return std::exchange(come_[static_cast<std::size_t>(port)], {});
}

}  // namespace model
