#include "qmi_at_client.h"

#include <algorithm>
#include <cstring>
#include <future>
#include <memory>

#include "vexa_mbim_service_v01.h"

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

qmi_idl_service_object_type service_object() {
    return vexa_mbim_get_service_object_internal_v01(kMbimServiceMajor, kMbimServiceMinor,
                                                     kMbimServiceLibrary);
}

// One request on its way; it owns both records and ends itself with its answer.
struct Exchange {
    vexa_mbim_at_req_msg_v01 request{};
    vexa_mbim_at_resp_msg_v01 response{};
    QmiAtClient::OnAnswer on_answer;
};

std::string text_of(const char* area, std::size_t size) {
    return {area, strnlen(area, size)};
}

void take_answer(qmi_client_type /*client*/, unsigned /*id*/, void* /*response*/,
                 unsigned /*length*/, void* cb_data, qmi_client_error_type error) {
    const std::unique_ptr<Exchange> exchange(static_cast<Exchange*>(cb_data));
    const vexa_mbim_at_resp_msg_v01& response = exchange->response;
    if (error != QMI_NO_ERR) {
        exchange->on_answer({});
        return;
    }
    exchange->on_answer({true, response.resp.result, response.resp.error,
                         text_of(response.data, sizeof(response.data))});
}

}  // namespace

void QmiAtClient::take_indication(qmi_client_type /*client*/, unsigned /*id*/, void* indication,
                                  unsigned length, void* self) {
    const auto& on_indication = static_cast<QmiAtClient*>(self)->on_indication_;
    if (on_indication)
        on_indication(text_of(static_cast<const char*>(indication), length));
}

bool QmiAtClient::connect(Milliseconds at_most) {
    qmi_service_info info{};
    return (find_service(info) || wait_for_service(info, at_most)) &&
           qmi_client_init(&info, service_object(), take_indication, this, &signal_, &client_) ==
               QMI_NO_ERR;
}

bool QmiAtClient::find_service(qmi_service_info& info) {
    unsigned entries = 1;
    unsigned services = 0;
    return qmi_client_get_service_list(service_object(), &info, &entries, &services) == QMI_NO_ERR;
}

bool QmiAtClient::wait_for_service(qmi_service_info& info, Milliseconds at_most) {
    const auto deadline = Clock::now() + at_most;
    qmi_client_type notifier = nullptr;
    if (qmi_client_notifier_init(service_object(), &signal_, &notifier) != QMI_NO_ERR)
        return false;
    bool is_found = find_service(info);
    while (!is_found) {
        const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now());
        if (left.count() <= 0)
            break;
        qmi_cci_os_signal_wait(&signal_, static_cast<unsigned>(left.count()));
        is_found = find_service(info);
    }
    qmi_client_release(notifier);
    return is_found;
}

void QmiAtClient::disconnect() {
    if (client_ == nullptr)
        return;
    qmi_client_release(client_);
    client_ = nullptr;
}

QmiAnswer QmiAtClient::ask(std::string_view text, std::size_t announced) {
    // Shared: this thread may be done with the answer before the other has left set_value().
    const auto answer = std::make_shared<std::promise<QmiAnswer>>();
    ask_later(text, announced, [answer](const QmiAnswer& got) { answer->set_value(got); });
    return answer->get_future().get();
}

void QmiAtClient::ask_later(std::string_view text, std::size_t announced, OnAnswer on_answer) {
    auto exchange = std::make_unique<Exchange>();
    const std::size_t length = std::min(text.size(), sizeof(exchange->request.data));
    memcpy(exchange->request.data, text.data(), length);
    exchange->request.data_len = static_cast<uint32_t>(announced);
    exchange->on_answer = std::move(on_answer);
    qmi_txn_handle txn = nullptr;
    // From a request that was sent on, the answer owns the exchange.
    Exchange* const sent = exchange.release();
    if (qmi_client_send_msg_async(client_, kMbimAtMessageId, &sent->request, sizeof(sent->request),
                                  &sent->response, sizeof(sent->response), take_answer, sent,
                                  &txn) == QMI_NO_ERR)
        return;
    exchange.reset(sent);
    exchange->on_answer({});
}

}  // namespace bench
