#include "shim_sockets.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>

#include "shim_parts.h"
#include "shim_pauses.h"
#include "shim_record.h"

namespace {

// Number of the connection to the app platform, from 1; 0 for every other descriptor.
std::array<std::atomic<int>, bench::kMaxDescriptors> g_connection_of;
std::atomic<int> g_connections{0};

int connection_of(int fd) {
    return fd < 0 || fd >= bench::kMaxDescriptors
               ? 0
               : g_connection_of[static_cast<std::size_t>(fd)].load();
}

// The one UNIX socket that the daemon connects to, beside the packet channels that open() does.
bool is_platform(const sockaddr* address) {
    if (address == nullptr || address->sa_family != AF_UNIX) {
        return false;
    }
    const char* path = reinterpret_cast<const sockaddr_un*>(address)->sun_path;
    return strncmp(path, "/dev/socket/", strlen("/dev/socket/")) == 0;
}

// Never more than the area took, whatever MSG_TRUNC tells.
ssize_t area_part(ssize_t got, std::size_t size) {
    return std::min(got, static_cast<ssize_t>(size));
}

bool is_netlink(int fd) {
    int domain = 0;
    socklen_t size = sizeof domain;
    return getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_NETLINK;
}

}  // namespace

void bench::close_connection(int fd) {
    const int connection = connection_of(fd);
    if (connection != 0) {
        g_connection_of[static_cast<std::size_t>(fd)] = 0;
        record_platform_event(connection, record_time(), "close", 0);
    }
}

void bench::record_hang_ups(const pollfd* fds, nfds_t count) {
    for (nfds_t at = 0; at < count; ++at) {
        const int connection = connection_of(fds[at].fd);
        if (connection != 0 && (fds[at].revents & POLLHUP) != 0) {
            record_platform_event(connection, record_time(), "hangup", 0);
        }
    }
}

extern "C" {

int connect(int fd, const sockaddr* address, socklen_t size) {
    const bench::RandomPauses pauses;
    if (!is_platform(address) || fd >= bench::kMaxDescriptors) {
        return NEXT(connect)(fd, address, size);
    }
    const std::int64_t begun = bench::record_time();
    const int result = NEXT(connect)(fd, address, size);
    const int number = ++g_connections;
    if (result == 0) {
        g_connection_of[static_cast<std::size_t>(fd)] = number;
    }
    bench::record_platform_event(number, begun, "connect", result);
    return result;
}

ssize_t send(int fd, const void* bytes, std::size_t size, int flags) {
    const bench::RandomPauses pauses;
    const bench::RecordedSend call;
    const ssize_t sent = NEXT(send)(fd, bytes, size, flags);
    if (const int connection = connection_of(fd)) {
        bench::record_platform_sent(connection, call.begun(), bytes, size, sent);
    }
    return sent;
}

ssize_t recv(int fd, void* bytes, std::size_t size, int flags) {
    const bench::RandomPauses pauses;
    const ssize_t got = NEXT(recv)(fd, bytes, size, flags);
    if (!bench::is_recording() || (flags & MSG_PEEK) != 0) {
        return got;
    }
    const ssize_t kept = area_part(got, size);
    if (const int connection = connection_of(fd)) {
        bench::record_platform_received(connection, bytes, kept);
    } else if (is_netlink(fd)) {
        bench::record_uevent(bytes, kept);
    }
    return got;
}

ssize_t __recv_chk(int fd, void* bytes, std::size_t size, std::size_t /*area*/, int flags) {
    return recv(fd, bytes, size, flags);
}

ssize_t sendto(int fd, const void* bytes, std::size_t size, int flags, const sockaddr* to,
               socklen_t to_size) {
    const bench::RandomPauses pauses;
    const bench::RecordedSend call;
    const ssize_t sent = NEXT(sendto)(fd, bytes, size, flags, to, to_size);
    if (bench::is_recording() && to_size >= sizeof(sockaddr_in) && to->sa_family == AF_INET) {
        sockaddr_in peer;
        memcpy(&peer, to, sizeof peer);
        bench::record_datagram_sent(call.begun(), peer, bytes, size, sent);
    }
    return sent;
}

ssize_t recvfrom(int fd, void* bytes, std::size_t size, int flags, sockaddr* from,
                 socklen_t* from_size) {
    const bench::RandomPauses pauses;
    const ssize_t got = NEXT(recvfrom)(fd, bytes, size, flags, from, from_size);
    if (!bench::is_recording() || (flags & MSG_PEEK) != 0) {
        return got;
    }
    if (got >= 0 && from != nullptr && from->sa_family == AF_INET) {
        sockaddr_in peer;
        memcpy(&peer, from, sizeof peer);
        bench::record_datagram_received(peer, bytes, area_part(got, size));
    }
    return got;
}

ssize_t __recvfrom_chk(int fd, void* bytes, std::size_t size, std::size_t /*area*/, int flags,
                       sockaddr* from, socklen_t* from_size) {
    return recvfrom(fd, bytes, size, flags, from, from_size);
}

}  // extern "C"
