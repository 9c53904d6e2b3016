// QMI common service interface (libqmi_csi) as the AT service calls it. One thread per service.
#pragma once

#include <sys/select.h>

#include "qmi_idl.h"

// What a service waits for: select on `fds` up to `max_fd`, then qmi_csi_handle_event() with the
// descriptors that are ready in a copy's `fds`. Kept up to date by the library.
struct qmi_csi_os_params {
    fd_set fds;
    int max_fd;
};

using qmi_csi_service_handle = void*;
using qmi_client_handle = void*;  // never null, never used twice
using qmi_req_handle = void*;     // valid until it is answered or its client has left

enum qmi_csi_error : int {
    QMI_CSI_NO_ERR = 0,
    QMI_CSI_NO_MEM = 1,
    QMI_CSI_INVALID_ARGS = 2,
    QMI_CSI_INTERNAL_ERR = 3,
    QMI_CSI_CONN_GONE = 4,
    QMI_CSI_ENCODE_ERR = 5,
};

// What a callback returns.
enum qmi_csi_cb_error : int {
    QMI_CSI_CB_NO_ERR = 0,
    QMI_CSI_CB_NO_MEM = 1,
    QMI_CSI_CB_CONN_REFUSED = 2,
    QMI_CSI_CB_INTERNAL_ERR = 3,
};

using qmi_csi_connect = qmi_csi_cb_error (*)(qmi_client_handle client, void* cookie,
                                             void** connection_handle);
using qmi_csi_disconnect = void (*)(void* connection_handle, void* cookie);
// `request` is the decoded record, null for a message that the service object does not know. A
// result other than QMI_CSI_CB_NO_ERR makes the library answer with a failure and that number.
using qmi_csi_process_req = qmi_csi_cb_error (*)(void* connection_handle, qmi_req_handle req_handle,
                                                 unsigned msg_id, void* request,
                                                 unsigned request_length, void* cookie);

extern "C" {
qmi_csi_error qmi_csi_register(qmi_idl_service_object_type service, qmi_csi_connect connect_cb,
                               qmi_csi_disconnect disconnect_cb, qmi_csi_process_req request_cb,
                               void* cookie, qmi_csi_os_params* os_params,
                               qmi_csi_service_handle* service_handle);
qmi_csi_error qmi_csi_handle_event(qmi_csi_service_handle service_handle,
                                   qmi_csi_os_params* os_params);
qmi_csi_error qmi_csi_send_resp(qmi_req_handle req_handle, unsigned msg_id, void* response,
                                unsigned response_length);
qmi_csi_error qmi_csi_send_ind(qmi_client_handle client, unsigned msg_id, void* indication,
                               unsigned indication_length);
// Disconnects every client and forgets the service.
qmi_csi_error qmi_csi_unregister(qmi_csi_service_handle service_handle);
}
