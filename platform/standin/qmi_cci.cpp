// Stand-in for the QMI common client library: connects to the service's UNIX socket (qmi_wire.h).
// Each client has a thread that receives; a notifier has one that watches for the socket.
#include "qmi_cci.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>

#include <cerrno>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "qmi_wire.h"

namespace {

using qmi_wire::Head;
using qmi_wire::Kind;
using qmi_wire::Packet;

struct Pending {
    unsigned id;
    void* response;
    unsigned response_length;
    qmi_client_recv_msg_async_cb callback;
    void* cb_data;
};

// What qmi_client_release() ends: a client or a notifier.
class Handle {
  public:
    Handle() = default;
    virtual ~Handle() = default;
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
};

class Client : public Handle {
  public:
    Client(int fd, qmi_idl_service_object_type service, qmi_client_ind_cb ind_cb, void* ind_cb_data)
        : fd_(fd), service_(service), ind_cb_(ind_cb), ind_cb_data_(ind_cb_data) {}
    ~Client() override {
        shutdown(fd_, SHUT_RDWR);
        if (receiver_.joinable())
            receiver_.join();
        close(fd_);
    }
    // What stands after the `attached` answer of the service.
    qmi_client_error_type attach();
    qmi_client_error_type send_request(unsigned id, const void* request, unsigned request_length,
                                       const Pending& pending, qmi_txn_handle* txn);

  private:
    void receive_packets();
    void complete(uint32_t transaction, const Packet* packet);
    void complete_all();
    void indicate(const Packet& packet);

    const int fd_;
    const qmi_idl_service_object_type service_;
    const qmi_client_ind_cb ind_cb_;
    void* const ind_cb_data_;
    std::thread receiver_;
    std::mutex mutex_;  // guards what follows; not held across a send or a callback
    std::map<uint32_t, Pending> pending_;
    uint32_t next_transaction_ = 1;
    bool is_gone_ = false;
};

qmi_client_error_type Client::attach() {
    Packet packet{};
    packet.length = qmi_wire::kHeadSize;
    qmi_wire::put_head(packet, {Kind::attach, 0, 0, 0});
    if (!qmi_wire::send_packet(fd_, packet, 0) || qmi_wire::receive(fd_, packet, 0) != 1)
        return QMI_SERVICE_ERR;
    const Head head = qmi_wire::get_head(packet);
    if (head.kind != Kind::attached || head.status != 0)
        return QMI_CONN_REFUSED_ERR;
    receiver_ = std::thread([this] { receive_packets(); });
    return QMI_NO_ERR;
}

qmi_client_error_type Client::send_request(unsigned id, const void* request,
                                           unsigned request_length, const Pending& pending,
                                           qmi_txn_handle* txn) {
    Packet packet{};
    unsigned length = 0;
    if (qmi_idl_message_encode(service_, QMI_IDL_REQUEST, id, request, request_length,
                               packet.bytes.data() + qmi_wire::kHeadSize,
                               qmi_wire::kPacketSize - qmi_wire::kHeadSize, &length) != 0)
        return QMI_ENCODE_ERR;
    uint32_t transaction = 0;
    {
        const std::lock_guard lock(mutex_);
        if (is_gone_)
            return QMI_SERVICE_ERR;
        transaction = next_transaction_++;
        pending_[transaction] = pending;
    }
    if (txn != nullptr)
        *txn = reinterpret_cast<qmi_txn_handle>(static_cast<uintptr_t>(transaction));
    packet.length = qmi_wire::kHeadSize + length;
    qmi_wire::put_head(packet, {Kind::request, 0, static_cast<uint16_t>(id), transaction});
    if (qmi_wire::send_packet(fd_, packet, 0))
        return QMI_NO_ERR;
    // The receiver may have told the caller already that the service has gone: then that counts.
    const std::lock_guard lock(mutex_);
    return pending_.erase(transaction) == 1 ? QMI_SERVICE_ERR : QMI_NO_ERR;
}

void Client::receive_packets() {
    Packet packet{};
    while (true) {
        const int received = qmi_wire::receive(fd_, packet, 0);
        if (received < 0 && errno == EINTR)
            continue;
        if (received <= 0)
            break;
        const Head head = qmi_wire::get_head(packet);
        if (head.kind == Kind::response)
            complete(head.transaction, &packet);
        else if (head.kind == Kind::indication)
            indicate(packet);
    }
    complete_all();
}

// Without a packet: the service has gone.
void Client::complete(uint32_t transaction, const Packet* packet) {
    Pending pending{};
    {
        const std::lock_guard lock(mutex_);
        const auto found = pending_.find(transaction);
        if (found == pending_.end())
            return;
        pending = found->second;
        pending_.erase(found);
    }
    qmi_client_error_type error = QMI_SERVICE_ERR;
    if (packet != nullptr)
        error = qmi_idl_message_decode(service_, QMI_IDL_RESPONSE, pending.id, packet->tlvs(),
                                       packet->tlvs_length(), pending.response,
                                       pending.response_length) == QMI_IDL_NO_ERR
                    ? QMI_NO_ERR
                    : QMI_DECODE_ERR;
    pending.callback(static_cast<Handle*>(this), pending.id, pending.response,
                     pending.response_length, pending.cb_data, error);
}

void Client::complete_all() {
    while (true) {
        uint32_t transaction = 0;
        {
            const std::lock_guard lock(mutex_);
            is_gone_ = true;
            if (pending_.empty())
                return;
            transaction = pending_.begin()->first;
        }
        complete(transaction, nullptr);
    }
}

void Client::indicate(const Packet& packet) {
    const unsigned id = qmi_wire::get_head(packet).id;
    const unsigned size = qmi_idl_record_size(service_, QMI_IDL_INDICATION, id);
    if (size == 0 || ind_cb_ == nullptr)
        return;
    const auto record = std::make_unique<uint8_t[]>(size);
    if (qmi_idl_message_decode(service_, QMI_IDL_INDICATION, id, packet.tlvs(),
                               packet.tlvs_length(), record.get(), size) == QMI_IDL_NO_ERR)
        ind_cb_(static_cast<Handle*>(this), id, record.get(), size, ind_cb_data_);
}

void set_signal(qmi_client_os_params& signal) {
    pthread_mutex_lock(&signal.mutex);
    signal.is_set = true;
    pthread_cond_broadcast(&signal.cond);
    pthread_mutex_unlock(&signal.mutex);
}

class Notifier : public Handle {
  public:
    explicit Notifier(qmi_client_os_params& signal)
        : signal_(signal),
          watch_fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)),
          stop_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~Notifier() override {
        eventfd_write(stop_fd_, 1);
        if (watcher_.joinable())
            watcher_.join();
        close(watch_fd_);
        close(stop_fd_);
    }
    // The service's socket appears in its folder by being renamed.
    bool start() {
        const std::string path = qmi_wire::socket_path();
        if (!qmi_wire::prepare_folder(path) || stop_fd_ < 0 ||
            inotify_add_watch(watch_fd_, qmi_wire::folder_of(path).c_str(), IN_MOVED_TO) < 0)
            return false;
        watcher_ = std::thread([this] { watch(); });
        return true;
    }

  private:
    void watch() {
        std::array<pollfd, 2> polled = {{{watch_fd_, POLLIN, 0}, {stop_fd_, POLLIN, 0}}};
        alignas(inotify_event) std::array<char, 4096> events{};
        while (true) {
            poll(polled.data(), polled.size(), -1);
            if (polled[1].revents != 0)
                return;
            if (read(watch_fd_, events.data(), events.size()) > 0)
                set_signal(signal_);
        }
    }

    qmi_client_os_params& signal_;
    const int watch_fd_;
    const int stop_fd_;
    std::thread watcher_;
};

}  // namespace

qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type service,
                                               qmi_client_os_params* os_params,
                                               qmi_client_type* notifier) {
    if (service == nullptr || os_params == nullptr || notifier == nullptr)
        return QMI_CLIENT_PARAM_ERR;
    auto made = std::make_unique<Notifier>(*os_params);
    if (!made->start())
        return QMI_INTERNAL_ERR;
    *notifier = static_cast<Handle*>(made.release());
    return QMI_NO_ERR;
}

qmi_client_error_type qmi_client_get_service_list(qmi_idl_service_object_type service,
                                                  qmi_service_info* list, unsigned* num_entries,
                                                  unsigned* num_services) {
    if (service == nullptr || num_services == nullptr)
        return QMI_CLIENT_PARAM_ERR;
    *num_services = 0;
    const unsigned room = list != nullptr && num_entries != nullptr ? *num_entries : 0;
    if (num_entries != nullptr)
        *num_entries = 0;
    const int fd = qmi_wire::connect_to_service();
    if (fd < 0)
        return QMI_SERVICE_ERR;
    close(fd);
    *num_services = 1;
    if (room > 0) {
        list[0] = {service->service_id, 0};
        *num_entries = 1;
    }
    return QMI_NO_ERR;
}

qmi_client_error_type qmi_client_init(const qmi_service_info* info,
                                      qmi_idl_service_object_type service, qmi_client_ind_cb ind_cb,
                                      void* ind_cb_data, qmi_client_os_params* os_params,
                                      qmi_client_type* client) {
    if (info == nullptr || service == nullptr || os_params == nullptr || client == nullptr)
        return QMI_CLIENT_PARAM_ERR;
    const int fd = qmi_wire::connect_to_service();
    if (fd < 0)
        return QMI_SERVICE_ERR;
    auto made = std::make_unique<Client>(fd, service, ind_cb, ind_cb_data);
    const qmi_client_error_type result = made->attach();
    if (result == QMI_NO_ERR)
        *client = static_cast<Handle*>(made.release());
    return result;
}

qmi_client_error_type qmi_client_send_msg_async(qmi_client_type client, unsigned msg_id,
                                                void* request, unsigned request_length,
                                                void* response, unsigned response_length,
                                                qmi_client_recv_msg_async_cb callback,
                                                void* cb_data, qmi_txn_handle* txn) {
    if (client == nullptr || callback == nullptr || response == nullptr)
        return QMI_CLIENT_PARAM_ERR;
    return static_cast<Client*>(static_cast<Handle*>(client))
        ->send_request(msg_id, request, request_length,
                       {msg_id, response, response_length, callback, cb_data}, txn);
}

qmi_client_error_type qmi_client_release(qmi_client_type client_or_notifier) {
    if (client_or_notifier == nullptr)
        return QMI_CLIENT_PARAM_ERR;
    delete static_cast<Handle*>(client_or_notifier);
    return QMI_NO_ERR;
}

void qmi_cci_os_signal_wait(qmi_client_os_params* os_params, unsigned timeout_ms) {
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += timeout_ms / 1000;
    deadline.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1'000'000;
    if (deadline.tv_nsec >= 1'000'000'000) {
        deadline.tv_nsec -= 1'000'000'000;
        ++deadline.tv_sec;
    }
    pthread_mutex_lock(&os_params->mutex);
    int error = 0;
    while (!os_params->is_set && error == 0)
        error = timeout_ms == 0
                    ? pthread_cond_wait(&os_params->cond, &os_params->mutex)
                    : pthread_cond_timedwait(&os_params->cond, &os_params->mutex, &deadline);
    os_params->is_set = false;
    pthread_mutex_unlock(&os_params->mutex);
}
