#include "vexa_mbim_at_service.h"

#include <sys/select.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "log.h"
#include "mbim_udp_relay.h"
#include "vexa_mbim_service_v01.h"

service_context_type service_cookie{};
client_info_type g_client_info{};

namespace {

using RequestHandler = qmi_csi_cb_error (*)(client_info_type* client_info,
                                            qmi_req_handle req_handle, unsigned msg_id,
                                            void* request, unsigned request_length, void* cookie);

// Relays the request's text and collects the answer's in `response`; 0, or -1.
int relay_request(const vexa_mbim_at_req_msg_v01& request, vexa_mbim_at_resp_msg_v01& response) {
    if (request.data_len > sizeof(request.data))
        return -1;
    if (socket_fd < 0 && udp_socket_init() != 0) {
        printf("===udp socket failed! %d.%d.%d\n", socket_fd, 0, 0);
        return -1;
    }
    if (send_at_with_udp_socket({request.data, request.data_len}) != 0)
        return -1;
    if (recv_at_with_udp_socket(response.data, sizeof(response.data), VEXA_MBIM_AT_RSP) == 0)
        return 0;
    printf("===udp socket failed! %d.%d.%d\n", socket_fd, 0, 0);
    return -1;
}

void print_request(const vexa_mbim_at_req_msg_v01& request) {
    const std::size_t room = std::min<std::size_t>(request.data_len, sizeof(request.data));
    printf("========AT Over Mbim Service: %.*s len:%d=====\n",
           static_cast<int>(strnlen(request.data, room)), request.data,
           static_cast<int>(request.data_len));
}

qmi_csi_cb_error mbim_data_response(client_info_type* client_info, qmi_req_handle req_handle,
                                    unsigned msg_id, void* request, unsigned request_length,
                                    void* /*cookie*/) {
    if (request == nullptr || request_length < sizeof(vexa_mbim_at_req_msg_v01))
        return QMI_CSI_CB_INTERNAL_ERR;
    const auto& at_request = *static_cast<const vexa_mbim_at_req_msg_v01*>(request);
    print_request(at_request);
    const std::unique_ptr<vexa_mbim_at_resp_msg_v01> response(new (std::nothrow)
                                                                  vexa_mbim_at_resp_msg_v01{});
    if (response == nullptr)
        return QMI_CSI_CB_INTERNAL_ERR;
    if (relay_request(at_request, *response) != 0)
        response->resp = {QMI_RESULT_FAILURE_V01, QMI_ERR_INTERNAL_V01};
    response->data_len = static_cast<uint32_t>(strnlen(response->data, sizeof(response->data) - 1));
    const qmi_csi_error error =
        qmi_csi_send_resp(req_handle, msg_id, response.get(), sizeof(*response));
    if (error == QMI_CSI_NO_ERR)
        update_client_info(client_info);
    else
        printf("qmi_csi_send_resp returned error: %d.%d.%d\n", error, 0, 0);
    printf("QMI Response Sent, DataLen: %d Data:(%s)\n", static_cast<int>(response->data_len),
           response->data);
    return error == QMI_CSI_NO_ERR ? QMI_CSI_CB_NO_ERR : QMI_CSI_CB_INTERNAL_ERR;
}

// By message id.
constexpr std::array<RequestHandler, 2> req_handle_table = {nullptr, mbim_data_response};
static_assert(req_handle_table.size() == kMbimAtMessageId + 1);

// Text that the modem said outside a request goes to the client that was answered last.
void forward_unsolicited_text() {
    std::array<char, kMbimAtTextSize> text{};
    if (recv_at_with_udp_socket(text.data(), text.size(), VEXA_MBIM_AT_IND) != 0)
        return;
    const std::unique_ptr<vexa_mbim_at_ind_msg_v01> indication(new (std::nothrow)
                                                                   vexa_mbim_at_ind_msg_v01{});
    if (indication == nullptr || get_client_info()->clnt == nullptr) {
        printf("====Indication msg allocation failed\n");
        return;
    }
    memcpy(indication->indication, text.data(), text.size());
    const qmi_csi_error error = qmi_csi_send_ind(get_client_info()->clnt, kMbimAtMessageId,
                                                 indication.get(), sizeof(*indication));
    if (error != QMI_CSI_NO_ERR)
        printf("qmi_csi_send_ind returned error: %d\n", error);
    printf("Indications Sent\n");
}

void serve_once(const qmi_csi_os_params& os_params) {
    qmi_csi_os_params ready = os_params;
    // Lost after a failed send; the next request makes it anew.
    const bool has_socket = socket_fd >= 0 && socket_fd < FD_SETSIZE;
    if (has_socket)
        FD_SET(socket_fd, &ready.fds);
    printf("====1 socket_fd:%d\n", socket_fd);
    const int highest = has_socket ? std::max(os_params.max_fd, socket_fd) : os_params.max_fd;
    if (select(highest + 1, &ready.fds, nullptr, nullptr, nullptr) < 0)
        return;
    if (has_socket && FD_ISSET(socket_fd, &ready.fds))
        forward_unsolicited_text();
    else
        qmi_csi_handle_event(service_cookie.service_handle, &ready);
}

}  // namespace

void* vexa_mbim_service_register(qmi_csi_os_params* os_params) {
    const qmi_csi_error error =
        qmi_csi_register(vexa_mbim_get_service_object_internal_v01(
                             kMbimServiceMajor, kMbimServiceMinor, kMbimServiceLibrary),
                         vexa_mbim_connect_cb, vexa_mbim_disconnect_cb, vexa_mbim_handle_req_cb,
                         &service_cookie, os_params, &service_cookie.service_handle);
    if (error == QMI_CSI_NO_ERR)
        return service_cookie.service_handle;
    printf("===QMI_NO_ERR\n");
    return nullptr;
}

void* vexa_mbim_at_data_handler(void* /*thread_info*/) {
    qmi_csi_os_params os_params{};
    if (vexa_mbim_service_register(&os_params) == nullptr) {
        printf("Unable to register service!\n");
        return nullptr;
    }
    udp_socket_init();
    VEXA_LOG("11===os_params.max_fd:%d.%d.%d\n", os_params.max_fd, 0, 0);
    while (true) serve_once(os_params);
}

qmi_csi_cb_error vexa_mbim_connect_cb(qmi_client_handle client, void* /*cookie*/,
                                      void** connection_handle) {
    printf("A client connected to this service.%d.%d.%d\n", 0, 0, 0);
    auto* const client_info = new (std::nothrow) client_info_type{client};
    if (client_info == nullptr)
        return QMI_CSI_CB_NO_MEM;
    *connection_handle = client_info;
    return QMI_CSI_CB_NO_ERR;
}

void vexa_mbim_disconnect_cb(void* connection_handle, void* /*cookie*/) {
    if (connection_handle == nullptr)
        return;
    printf("A client disconnected to this service.%d.%d.%d\n", 0, 0, 0);
    delete static_cast<client_info_type*>(connection_handle);
}

qmi_csi_cb_error vexa_mbim_handle_req_cb(void* connection_handle, qmi_req_handle req_handle,
                                         unsigned msg_id, void* request, unsigned request_length,
                                         void* cookie) {
    ++static_cast<service_context_type*>(cookie)->num_requests;
    if (msg_id >= req_handle_table.size())
        return QMI_CSI_CB_INTERNAL_ERR;
    const RequestHandler handler = req_handle_table[msg_id];
    if (handler == nullptr) {
        VEXA_LOG("No function defined to handle request for message ID: %d.%d.%d\n",
                 static_cast<int>(msg_id), 0, 0);
        return QMI_CSI_CB_INTERNAL_ERR;
    }
    return handler(static_cast<client_info_type*>(connection_handle), req_handle, msg_id, request,
                   request_length, cookie);
}

client_info_type* get_client_info() {
    return &g_client_info;
}

void update_client_info(client_info_type* client_info) {
    if (client_info != nullptr)
        g_client_info.clnt = client_info->clnt;
}
