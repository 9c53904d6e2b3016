#include "vexa_socket_client.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "log.h"
#include "platform_pack.h"
#include "port_state.h"
#include "shared_int.h"
#include "text_part.h"

int g_reconn_client_sockfd = -1;

namespace {

// Family, path and its NUL.
constexpr socklen_t kPlatformAddressSize = 36;
static_assert(kPlatformAddressSize ==
              offsetof(sockaddr_un, sun_path) + std::string_view(kPlatformSocketPath).size() + 1);

void log_send_failure(int sockfd, int result, int error) {
    VEXA_LOG("send data failed,fd:%d, iret:%d, err_info:%s.\r\n", sockfd, result, strerror(error));
    if (error == ENOENT)
        VEXA_LOG("close all socket it and reconnect. m_fd:%d, at_fd:%d, uart_fd:%d.\r\n",
                 load_shared(g_loc_client_socket), load_shared(g_loc_client_socket_atport),
                 load_shared(g_loc_client_socket_uartport));
}

// A platform that died is a failed send, not a signal that ends the daemon.
int send_bytes(int sockfd, const char* bytes, std::size_t size, int flag) {
    return static_cast<int>(send(sockfd, bytes, size, flag | MSG_NOSIGNAL));
}

void dump_received(std::string_view received) {
    VEXA_PRINT("\r\n======= iret:%d==========>>>\r\n", static_cast<int>(received.size()));
    flockfile(stdout);  // no other line comes between the bytes
    {
        LogText text(stdout);
        for (const char byte : received) {
            const char shown[] = {'(', byte, ')', ' '};
            text.add({shown, sizeof shown});
        }
    }
    funlockfile(stdout);
    puts("\r\n<<<=================\r");
}

[[noreturn]] void stop_for_overrun(const char* area, std::size_t size, std::size_t limit) {
    VEXA_LOG("%s of %zu bytes would overrun its %zu bytes, exit.\r\n", area, size, limit);
    fprintf(stderr, "vexa_at_client: %s of %zu bytes would overrun its %zu bytes\n", area, size,
            limit);
    fflush(stdout);  // abort() would lose the line and the log before it
    abort();
}

// The answer that one receive puts together in the caller's area.
struct Answer {
    char* text;
    std::size_t text_length;
    std::size_t total;  // of the payloads, NULs and what follows them included
};

void append_payload(Answer& answer, std::string_view payload) {
    answer.total += payload.size();
    const std::string_view text = text_part(payload, 0, payload.find('\0'));
    const std::size_t needed = std::max(answer.total, answer.text_length + text.size());
    if (needed > kDeviceReadSize)
        stop_for_overrun("answer of the platform", needed, kDeviceReadSize);
    memcpy(answer.text + answer.text_length, text.data(), text.size());
    answer.text_length += text.size();
    answer.text[answer.text_length] = '\0';
}

// False for a bad head; the packs before it stay in the answer.
bool gather_packs(std::string_view received, Answer& answer, vexa_ext_info* ext_info) {
    char payload_text[kReceivedPayloadMax + 1];
    for (std::size_t offset = 0; offset < received.size();) {
        const ReceivedPack pack = first_pack(text_part(received, offset));
        if (pack.verdict == PackVerdict::bad_head) {
            puts("!!!!recv data pack head error.!!!!");
            return false;
        }
        if (pack.verdict == PackVerdict::too_large)
            stop_for_overrun(
                "payload of a pack of the platform",
                disassemble_packhead(text_part(received, offset)).pack_len - kPackHeadsSize,
                kReceivedPayloadMax);
        if (ext_info != nullptr)
            ext_info->cmd_type = pack.sock_head.cmd_type;
        VEXA_LOG("recv msg head txn_id:%u, msg_type:%d, msg_not_finish:%d.\r\n",
                 pack.msg_head.txn_id, static_cast<int>(pack.msg_head.msg_type),
                 pack.msg_head.msg_not_finish);
        append_payload(answer, pack.payload);
        memcpy(payload_text, pack.payload.data(), pack.payload.size());
        payload_text[pack.payload.size()] = '\0';
        const std::size_t next = offset + kPackHeadsSize + pack.payload.size();
        VEXA_LOG(
            "mulit_pack_offset:%d, offset:%d, each_payload_buf:(%s), buf:(%s), "
            "each_len_without_head:%d, total_payload_len:%d. \r\n",
            static_cast<int>(next), static_cast<int>(offset), payload_text, answer.text,
            static_cast<int>(pack.payload.size()), static_cast<int>(answer.total));
        offset = next;
    }
    return true;
}

}  // namespace

int client_send_msg(int sockfd, const char* buf, int buf_len, int flag, char* out_buf, int* out_len,
                    vexa_ext_info* ext_info) {
    if (buf_len <= 0 || buf == nullptr || out_buf == nullptr || sockfd < 0 || out_len == nullptr ||
        ext_info == nullptr) {
        VEXA_LOG("client_send_sync_msg input error.\r\n");
        return kBadArguments;
    }
    *out_len = 0;
    const std::string_view payload(buf, static_cast<std::size_t>(buf_len));
    if (payload.size() > kSentPayloadMax)
        stop_for_overrun("payload for the platform", payload.size(), kSentPayloadMax);
    char area[kPackAreaSize];  // only what is sent of it is written
    const std::size_t pack_size = build_pack(area, wire_cmd_type(ext_info->cmd_type), payload);
    const int result = send_bytes(sockfd, area, pack_size, flag);
    if (result < 0)
        log_send_failure(sockfd, result, errno);
    else
        VEXA_LOG("send data sucess. sock:%d,:iret:%d.\r\n", sockfd, result);
    return result;
}

int client_recv_data_from_platform(int sockfd, char* buf, int data_len, int mode,
                                   vexa_ext_info* ext_info) {
    if (buf == nullptr || sockfd < 0 || data_len == 0 || mode < 0)
        return kBadArguments;
    char area[kPackAreaSize];  // only what was received of it is read
    const auto received = static_cast<int>(recv(sockfd, area, sizeof area, mode));
    if (received <= 0) {
        const int error = errno;
        VEXA_LOG("recv error from plat.iret:%d, error_info:%s, %d.\r\n", received, strerror(error),
                 error);
        return 0;
    }
    const std::string_view bytes(area, static_cast<std::size_t>(received));
    dump_received(bytes);
    Answer answer{buf, strnlen(buf, kDeviceReadSize), 0};
    return gather_packs(bytes, answer, ext_info) ? static_cast<int>(answer.total) : 0;
}

int recv_with_timeout(int sockfd, char* buf, int read_len, int flag, int time_out) {
    const int status_flags = fcntl(sockfd, F_GETFL);
    if (status_flags < 0 || sockfd >= FD_SETSIZE || read_len < 0) {
        VEXA_LOG("recv_with_timeout failed or timeout.\r\n");
        return kTimedOut;
    }
    fcntl(sockfd, F_SETFL, status_flags & ~O_NONBLOCK);
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(sockfd, &readable);
    timeval wait{time_out, 0};
    if (select(sockfd + 1, &readable, nullptr, nullptr, &wait) <= 0) {
        VEXA_LOG("recv_with_timeout failed or timeout.\r\n");
        return kTimedOut;
    }
    if (!FD_ISSET(sockfd, &readable))
        return kConnectFailed;
    const auto received =
        static_cast<int>(recv(sockfd, buf, static_cast<std::size_t>(read_len), flag));
    if (received < 1)
        VEXA_LOG("recv_with_timeout recv failed, fd:%d, iret:%d.\r\n", sockfd, received);
    return received;
}

int client_report_port_name(int sockfd, port_name_enum_type port_name) {
    if (sockfd < 0 || port_name == PORT_INVALID) {
        VEXA_LOG("client_report_port_name input error.\r\n");
        return kBadArguments;
    }
    const auto report = build_port_report(port_name);
    return send_bytes(sockfd, report.data(), report.size(), 0);
}

int make_platform_socket() {
    return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

int connect_to_platform(int sockfd) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string_view(kPlatformSocketPath).copy(address.sun_path, sizeof address.sun_path - 1);
    const int result =
        connect(sockfd, reinterpret_cast<const sockaddr*>(&address), kPlatformAddressSize);
    const int error = errno;
    fcntl(sockfd, F_SETFL, 0);
    errno = error;
    return result;
}

int reconnect_app_platform(int sockfd) {
    close(sockfd);
    const int fresh = make_platform_socket();
    if (fresh < 0) {
        VEXA_LOG("re-socket error.\r\n");
        return kNoSocket;
    }
    if (connect_to_platform(fresh) < 0) {
        const int error = errno;
        VEXA_LOG("reconnect_app_platform failed, errno:%d, info:%s.\r\n", error, strerror(error));
        return kConnectFailed;
    }
    store_shared(g_reconn_client_sockfd, fresh);
    VEXA_LOG("reconnect_app_platform OK, new fd:%d.\r\n", fresh);
    return 0;
}

void reset_glocal_client_sockfd(int* gloc_fd) {
    const int fresh = load_shared(g_reconn_client_sockfd);
    if (gloc_fd != nullptr && fresh > 0)
        store_shared(*gloc_fd, fresh);
}
