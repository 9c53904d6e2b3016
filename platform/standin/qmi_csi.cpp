// Stand-in for the QMI common service library: clients are other processes that connect to a UNIX
// socket (qmi_wire.h). The service waits on one epoll descriptor, which holds all the others.
#include "qmi_csi.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>

#include "qmi_wire.h"

namespace {

using qmi_wire::Head;
using qmi_wire::Kind;
using qmi_wire::Packet;

// How long a listener rests that could not accept (no descriptor left): its client waits on, and
// the service thread does not spin.
constexpr long kAcceptRestNanoseconds = 100'000'000;
constexpr int kEventsAtOnce = 16;
constexpr uint64_t kListenerTag = 0;
constexpr uint64_t kTimerTag = 1;
constexpr uint64_t kFirstClientTag = 2;

class Descriptor {
  public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0)
            close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    [[nodiscard]] int get() const { return fd_; }

  private:
    int fd_;
};

struct Service;

struct Request {
    Service* service;
    uint64_t client;
    uint16_t id;
    uint32_t transaction;
    bool is_answered;
};

struct Client {
    Descriptor fd;
    bool is_attached = false;
    void* connection_handle = nullptr;

    explicit Client(int connection) : fd(connection) {}
};

struct Service {
    qmi_idl_service_object_type object;
    qmi_csi_connect connect_cb;
    qmi_csi_disconnect disconnect_cb;
    qmi_csi_process_req request_cb;
    void* cookie;
    std::string path;
    Descriptor listener;
    Descriptor events;
    Descriptor timer;
    // By tag; a tag is a client's handle too and is never used again, so that a handle kept by
    // the service after its client has left reaches nobody.
    std::map<uint64_t, std::unique_ptr<Client>> clients;
};

// Which service a client's handle belongs to. The lock guards only these two.
std::mutex g_services_mutex;
std::map<uint64_t, Service*> g_service_of_client;
uint64_t g_next_client = kFirstClientTag;

qmi_client_handle to_handle(uint64_t tag) {
    return reinterpret_cast<qmi_client_handle>(static_cast<uintptr_t>(tag));
}

bool watch(const Service& service, int fd, uint64_t tag, int operation, uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = tag;
    return epoll_ctl(service.events.get(), operation, fd, &event) == 0;
}

Client* find_client(Service& service, uint64_t tag) {
    const auto found = service.clients.find(tag);
    return found == service.clients.end() ? nullptr : found->second.get();
}

// Never blocks: a client that does not read loses its connection, and with it its requests fail.
qmi_csi_error send_to(Service& service, uint64_t tag, const Packet& packet) {
    const Client* client = find_client(service, tag);
    if (client == nullptr)
        return QMI_CSI_CONN_GONE;
    if (qmi_wire::send_packet(client->fd.get(), packet, MSG_DONTWAIT))
        return QMI_CSI_NO_ERR;
    shutdown(client->fd.get(), SHUT_RDWR);
    return QMI_CSI_CONN_GONE;
}

void drop_client(Service& service, uint64_t tag) {
    const auto found = service.clients.find(tag);
    if (found == service.clients.end())
        return;
    const std::unique_ptr<Client> client = std::move(found->second);
    service.clients.erase(found);
    {
        const std::lock_guard lock(g_services_mutex);
        g_service_of_client.erase(tag);
    }
    if (client->is_attached && service.disconnect_cb != nullptr)
        service.disconnect_cb(client->connection_handle, service.cookie);
}

void rest_listener(Service& service) {
    itimerspec rest{};
    rest.it_value.tv_nsec = kAcceptRestNanoseconds;
    watch(service, service.listener.get(), kListenerTag, EPOLL_CTL_MOD, 0);
    timerfd_settime(service.timer.get(), 0, &rest, nullptr);
}

void resume_listener(Service& service) {
    uint64_t expirations = 0;
    [[maybe_unused]] const ssize_t length =
        read(service.timer.get(), &expirations, sizeof(expirations));
    watch(service, service.listener.get(), kListenerTag, EPOLL_CTL_MOD, EPOLLIN);
}

void accept_client(Service& service) {
    const int fd = accept4(service.listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED)
            rest_listener(service);
        return;
    }
    auto client = std::make_unique<Client>(fd);
    uint64_t tag = 0;
    {
        const std::lock_guard lock(g_services_mutex);
        tag = g_next_client++;
        g_service_of_client[tag] = &service;
    }
    service.clients[tag] = std::move(client);
    if (!watch(service, fd, tag, EPOLL_CTL_ADD, EPOLLIN))
        drop_client(service, tag);
}

void attach_client(Service& service, uint64_t tag, Client& client) {
    if (client.is_attached)
        return drop_client(service, tag);
    const qmi_csi_cb_error result =
        service.connect_cb(to_handle(tag), service.cookie, &client.connection_handle);
    Packet packet{};
    packet.length = qmi_wire::kHeadSize;
    qmi_wire::put_head(packet, {Kind::attached, static_cast<uint8_t>(result), 0, 0});
    client.is_attached = result == QMI_CSI_CB_NO_ERR;
    if (send_to(service, tag, packet) != QMI_CSI_NO_ERR || !client.is_attached)
        drop_client(service, tag);
}

void answer_failure(Request& request, uint16_t error) {
    if (request.is_answered)
        return;
    request.is_answered = true;
    Packet packet{};
    qmi_wire::put_failure(packet, error);
    qmi_wire::put_head(packet, {Kind::response, 0, request.id, request.transaction});
    send_to(*request.service, request.client, packet);
}

void handle_request(Service& service, uint64_t tag, const Client& client, const Packet& packet) {
    const Head head = qmi_wire::get_head(packet);
    Request request = {&service, tag, head.id, head.transaction, false};
    const unsigned size = qmi_idl_record_size(service.object, QMI_IDL_REQUEST, head.id);
    const auto record = std::make_unique<uint8_t[]>(size + 1);
    if (size > 0 && qmi_idl_message_decode(service.object, QMI_IDL_REQUEST, head.id, packet.tlvs(),
                                           packet.tlvs_length(), record.get(), size) != 0)
        return answer_failure(request, QMI_ERR_MALFORMED_MSG_V01);
    const qmi_csi_cb_error result =
        service.request_cb(client.connection_handle, &request, head.id,
                           size > 0 ? record.get() : nullptr, size, service.cookie);
    if (result != QMI_CSI_CB_NO_ERR)
        answer_failure(request, static_cast<uint16_t>(result));
}

void read_client(Service& service, uint64_t tag) {
    Client* client = find_client(service, tag);
    if (client == nullptr)
        return;
    Packet packet{};
    const int received = qmi_wire::receive(client->fd.get(), packet, MSG_DONTWAIT);
    if (received < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (received <= 0)
        return drop_client(service, tag);
    const Kind kind = qmi_wire::get_head(packet).kind;
    if (kind == Kind::attach)
        return attach_client(service, tag, *client);
    if (kind != Kind::request || !client->is_attached)
        return drop_client(service, tag);
    handle_request(service, tag, *client, packet);
}

bool is_served_already() {
    return Descriptor(qmi_wire::connect_to_service()).get() >= 0;
}

// The socket takes its name only when it listens, so that whoever sees it can connect. -1 without.
int listen_at(const std::string& path) {
    sockaddr_un address{};
    const std::string fresh = path + "." + std::to_string(getpid());
    if (!qmi_wire::prepare_folder(path) || is_served_already() ||
        !qmi_wire::make_address(fresh, address))
        return -1;
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    unlink(fresh.c_str());
    if (fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
        chmod(fresh.c_str(), 0600) == 0 && listen(fd, SOMAXCONN) == 0 &&
        rename(fresh.c_str(), path.c_str()) == 0)
        return fd;
    unlink(fresh.c_str());
    if (fd >= 0)
        close(fd);
    return -1;
}

bool is_usable(const Service& service) {
    return service.listener.get() >= 0 && service.events.get() >= 0 && service.timer.get() >= 0 &&
           service.events.get() < FD_SETSIZE &&
           watch(service, service.listener.get(), kListenerTag, EPOLL_CTL_ADD, EPOLLIN) &&
           watch(service, service.timer.get(), kTimerTag, EPOLL_CTL_ADD, EPOLLIN);
}

}  // namespace

qmi_csi_error qmi_csi_register(qmi_idl_service_object_type service, qmi_csi_connect connect_cb,
                               qmi_csi_disconnect disconnect_cb, qmi_csi_process_req request_cb,
                               void* cookie, qmi_csi_os_params* os_params,
                               qmi_csi_service_handle* service_handle) {
    if (service == nullptr || connect_cb == nullptr || request_cb == nullptr ||
        os_params == nullptr || service_handle == nullptr)
        return QMI_CSI_INVALID_ARGS;
    const std::string path = qmi_wire::socket_path();
    std::unique_ptr<Service> made(
        new Service{service,
                    connect_cb,
                    disconnect_cb,
                    request_cb,
                    cookie,
                    path,
                    Descriptor(listen_at(path)),
                    Descriptor(epoll_create1(EPOLL_CLOEXEC)),
                    Descriptor(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
                    {}});
    if (!is_usable(*made))
        return QMI_CSI_INTERNAL_ERR;
    FD_ZERO(&os_params->fds);
    FD_SET(made->events.get(), &os_params->fds);
    os_params->max_fd = made->events.get();
    *service_handle = made.release();
    return QMI_CSI_NO_ERR;
}

qmi_csi_error qmi_csi_handle_event(qmi_csi_service_handle service_handle,
                                   qmi_csi_os_params* os_params) {
    auto* const service = static_cast<Service*>(service_handle);
    if (service == nullptr || os_params == nullptr)
        return QMI_CSI_INVALID_ARGS;
    if (!FD_ISSET(service->events.get(), &os_params->fds))
        return QMI_CSI_NO_ERR;
    std::array<epoll_event, kEventsAtOnce> events{};
    const int count = epoll_wait(service->events.get(), events.data(), kEventsAtOnce, 0);
    for (int i = 0; i < count; ++i) {
        const uint64_t tag = events[static_cast<std::size_t>(i)].data.u64;
        if (tag == kListenerTag)
            accept_client(*service);
        else if (tag == kTimerTag)
            resume_listener(*service);
        else
            read_client(*service, tag);
    }
    return QMI_CSI_NO_ERR;
}

qmi_csi_error qmi_csi_send_resp(qmi_req_handle req_handle, unsigned msg_id, void* response,
                                unsigned response_length) {
    auto* const request = static_cast<Request*>(req_handle);
    if (request == nullptr || request->is_answered)
        return QMI_CSI_INVALID_ARGS;
    Packet packet{};
    unsigned length = 0;
    if (qmi_idl_message_encode(request->service->object, QMI_IDL_RESPONSE, msg_id, response,
                               response_length, packet.bytes.data() + qmi_wire::kHeadSize,
                               qmi_wire::kPacketSize - qmi_wire::kHeadSize, &length) != 0)
        return QMI_CSI_ENCODE_ERR;
    request->is_answered = true;
    packet.length = qmi_wire::kHeadSize + length;
    qmi_wire::put_head(packet,
                       {Kind::response, 0, static_cast<uint16_t>(msg_id), request->transaction});
    return send_to(*request->service, request->client, packet);
}

qmi_csi_error qmi_csi_send_ind(qmi_client_handle client, unsigned msg_id, void* indication,
                               unsigned indication_length) {
    const uint64_t tag = reinterpret_cast<uintptr_t>(client);
    Service* service = nullptr;
    {
        const std::lock_guard lock(g_services_mutex);
        const auto found = g_service_of_client.find(tag);
        if (found == g_service_of_client.end())
            return QMI_CSI_CONN_GONE;
        service = found->second;
    }
    Packet packet{};
    unsigned length = 0;
    if (qmi_idl_message_encode(service->object, QMI_IDL_INDICATION, msg_id, indication,
                               indication_length, packet.bytes.data() + qmi_wire::kHeadSize,
                               qmi_wire::kPacketSize - qmi_wire::kHeadSize, &length) != 0)
        return QMI_CSI_ENCODE_ERR;
    packet.length = qmi_wire::kHeadSize + length;
    qmi_wire::put_head(packet, {Kind::indication, 0, static_cast<uint16_t>(msg_id), 0});
    return send_to(*service, tag, packet);
}

qmi_csi_error qmi_csi_unregister(qmi_csi_service_handle service_handle) {
    const std::unique_ptr<Service> service(static_cast<Service*>(service_handle));
    if (service == nullptr)
        return QMI_CSI_INVALID_ARGS;
    unlink(service->path.c_str());
    while (!service->clients.empty()) drop_client(*service, service->clients.begin()->first);
    return QMI_CSI_NO_ERR;
}
