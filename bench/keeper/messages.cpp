#include "messages.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace bench {
namespace {

constexpr std::size_t kControlSize = CMSG_SPACE(kMaxPassed * sizeof(int));

std::string join(const std::vector<std::string>& fields) {
    std::string text;
    for (const std::string& field : fields) {
        text += field;
        text += '\0';
    }
    return text;
}

std::vector<std::string> split(std::string_view text) {
    std::vector<std::string> fields;
    while (!text.empty()) {
        const auto end = text.find('\0');
        fields.emplace_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return fields;
}

void take_descriptors(msghdr& header, std::vector<UniqueFd>& out) {
    for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr;
         part = CMSG_NXTHDR(&header, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const std::size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t at = 0; at < count; ++at) {
            int fd = -1;
            memcpy(&fd, CMSG_DATA(part) + at * sizeof fd, sizeof fd);
            out.emplace_back(fd);
        }
    }
}

}  // namespace

bool send_message(int socket, const std::vector<std::string>& fields,
                  const std::vector<int>& descriptors) {
    std::string text = join(fields);
    if (text.size() > kMaxMessage || descriptors.size() > kMaxPassed) {
        errno = EMSGSIZE;
        return false;
    }
    iovec body{text.data(), text.size()};
    alignas(cmsghdr) std::array<char, kControlSize> control{};
    msghdr header{};
    header.msg_iov = &body;
    header.msg_iovlen = 1;
    if (!descriptors.empty()) {
        header.msg_control = control.data();
        header.msg_controllen = CMSG_SPACE(descriptors.size() * sizeof(int));
        cmsghdr* part = CMSG_FIRSTHDR(&header);
        part->cmsg_level = SOL_SOCKET;
        part->cmsg_type = SCM_RIGHTS;
        part->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
        memcpy(CMSG_DATA(part), descriptors.data(), descriptors.size() * sizeof(int));
    }
    ssize_t sent = -1;
    do {
        sent = sendmsg(socket, &header, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(text.size());
}

Message receive_message(int socket) {
    std::string text(kMaxMessage, '\0');
    iovec body{text.data(), text.size()};
    alignas(cmsghdr) std::array<char, kControlSize> control{};
    msghdr header{};
    header.msg_iov = &body;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    ssize_t got = -1;
    do {
        got = recvmsg(socket, &header, MSG_CMSG_CLOEXEC);
        if (got < 0 && errno == EAGAIN) {  // an event loop made the socket non-blocking
            pollfd ready{socket, POLLIN, 0};
            poll(&ready, 1, -1);
        }
    } while (got < 0 && (errno == EINTR || errno == EAGAIN));
    Message message;
    if (got <= 0) {
        return message;
    }
    take_descriptors(header, message.descriptors);
    message.fields = split(std::string_view(text).substr(0, static_cast<std::size_t>(got)));
    return message;
}

}  // namespace bench
