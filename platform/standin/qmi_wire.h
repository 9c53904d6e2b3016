// How the stand-ins of the QMI service and client libraries talk to each other: one packet of a
// UNIX SOCK_SEQPACKET socket is one message.
//
//   0       1        2         4              8
//   | kind  | status | id (LE) | transaction  | TLVs: id (1), length (2, LE), value ...
//
#pragma once

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace qmi_wire {

enum class Kind : uint8_t { attach = 1, attached = 2, request = 3, response = 4, indication = 5 };

inline constexpr std::size_t kHeadSize = 8;
inline constexpr std::size_t kPacketSize = 4096;

struct Head {
    Kind kind;
    uint8_t status;  // of `attached`: 0, or why not
    uint16_t id;
    uint32_t transaction;
};

struct Packet {
    std::array<uint8_t, kPacketSize> bytes;
    std::size_t length;

    [[nodiscard]] const uint8_t* tlvs() const { return bytes.data() + kHeadSize; }
    [[nodiscard]] unsigned tlvs_length() const { return static_cast<unsigned>(length - kHeadSize); }
};

inline void put_head(Packet& packet, const Head& head) {
    packet.bytes[0] = static_cast<uint8_t>(head.kind);
    packet.bytes[1] = head.status;
    for (unsigned i = 0; i < 2; ++i) packet.bytes[2 + i] = static_cast<uint8_t>(head.id >> (8 * i));
    for (unsigned i = 0; i < 4; ++i)
        packet.bytes[4 + i] = static_cast<uint8_t>(head.transaction >> (8 * i));
}

inline Head get_head(const Packet& packet) {
    const auto& b = packet.bytes;
    return {static_cast<Kind>(b[0]), b[1], static_cast<uint16_t>(b[2] | (b[3] << 8)),
            b[4] | (static_cast<uint32_t>(b[5]) << 8) | (static_cast<uint32_t>(b[6]) << 16) |
                (static_cast<uint32_t>(b[7]) << 24)};
}

// A result code as the only TLV of a response: see qmi_idl.h, 0x02 by QMI's convention.
inline void put_failure(Packet& packet, uint16_t error) {
    const std::array<uint8_t, 7> tlv = {
        0x02, 4, 0, 1, 0, static_cast<uint8_t>(error), static_cast<uint8_t>(error >> 8)};
    memcpy(packet.bytes.data() + kHeadSize, tlv.data(), tlv.size());
    packet.length = kHeadSize + tlv.size();
}

// 1: a packet came; 0: the peer has gone or broke the rules; -1: nothing there now (errno).
inline int receive(int fd, Packet& packet, int flags) {
    const ssize_t length = recv(fd, packet.bytes.data(), packet.bytes.size(), flags | MSG_TRUNC);
    if (length < 0)
        return errno == ECONNRESET ? 0 : -1;
    packet.length = static_cast<std::size_t>(length);
    return packet.length >= kHeadSize && packet.length <= packet.bytes.size() ? 1 : 0;
}

inline bool send_packet(int fd, const Packet& packet, int flags) {
    const ssize_t sent = send(fd, packet.bytes.data(), packet.length, flags | MSG_NOSIGNAL);
    return sent == static_cast<ssize_t>(packet.length);
}

// VEXA_QMI_SOCKET names the socket; without it, a folder of the user's own.
inline std::string socket_path() {
    const char* path = getenv("VEXA_QMI_SOCKET");
    if (path != nullptr && *path != '\0')
        return path;
    const char* runtime = getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && *runtime != '\0')
        return std::string(runtime) + "/vexa-qmi/service";
    return "/tmp/vexa-qmi-" + std::to_string(getuid()) + "/service";
}

inline std::string folder_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

// Makes the socket's folder when it is missing. False when it is not one that only this user (or
// root) can put things into: in /tmp anybody may have been there first.
inline bool prepare_folder(const std::string& path) {
    const std::string folder = folder_of(path);
    mkdir(folder.c_str(), 0700);
    struct stat info {};
    if (lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
        return false;
    const bool is_own = info.st_uid == getuid() || info.st_uid == 0;
    return is_own && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

inline bool make_address(const std::string& path, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
        return false;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

// A connection to the service, or -1.
inline int connect_to_service() {
    sockaddr_un address{};
    if (!make_address(socket_path(), address))
        return -1;
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0)
        return fd;
    close(fd);
    return -1;
}

}  // namespace qmi_wire
