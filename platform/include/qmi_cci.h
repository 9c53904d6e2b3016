// QMI common client interface (libqmi_cci) as the service's self-test and the bench call it.
#pragma once

#include <pthread.h>

#include "qmi_idl.h"

// Signalled when a service appears; remembers one signal that nobody waited for.
struct qmi_cci_os_signal_type {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    bool is_set = false;
};
using qmi_client_os_params = qmi_cci_os_signal_type;

using qmi_client_type = void*;
using qmi_txn_handle = void*;

enum qmi_client_error_type : int {
    QMI_NO_ERR = 0,
    QMI_INTERNAL_ERR = 1,
    QMI_SERVICE_ERR = 2,  // no such service, or it has gone
    QMI_CLIENT_PARAM_ERR = 3,
    QMI_CONN_REFUSED_ERR = 4,
    QMI_ENCODE_ERR = 5,
    QMI_DECODE_ERR = 6,
};

// One running instance of a service.
struct qmi_service_info {
    uint32_t service_id;
    uint32_t instance;
};

// Both run on the library's own thread, one at a time for a client. They may not release it.
using qmi_client_recv_msg_async_cb = void (*)(qmi_client_type client, unsigned msg_id,
                                              void* response, unsigned response_length,
                                              void* cb_data, qmi_client_error_type transport_error);
// `indication` is the decoded record.
using qmi_client_ind_cb = void (*)(qmi_client_type client, unsigned msg_id, void* indication,
                                   unsigned indication_length, void* cb_data);

extern "C" {
// Signals `os_params` whenever a service appears, until the notifier is released.
qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type service,
                                               qmi_client_os_params* os_params,
                                               qmi_client_type* notifier);
// QMI_NO_ERR with *num_services running instances, QMI_SERVICE_ERR (and 0) without any. A `list`
// takes *num_entries entries at most and gets their number back; both may be null.
qmi_client_error_type qmi_client_get_service_list(qmi_idl_service_object_type service,
                                                  qmi_service_info* list, unsigned* num_entries,
                                                  unsigned* num_services);
qmi_client_error_type qmi_client_init(const qmi_service_info* info,
                                      qmi_idl_service_object_type service, qmi_client_ind_cb ind_cb,
                                      void* ind_cb_data, qmi_client_os_params* os_params,
                                      qmi_client_type* client);
// On QMI_NO_ERR `callback` comes exactly once, with a transport error when the service goes away;
// `response` must live until then.
qmi_client_error_type qmi_client_send_msg_async(qmi_client_type client, unsigned msg_id,
                                                void* request, unsigned request_length,
                                                void* response, unsigned response_length,
                                                qmi_client_recv_msg_async_cb callback,
                                                void* cb_data, qmi_txn_handle* txn);
qmi_client_error_type qmi_client_release(qmi_client_type client_or_notifier);
// Waits for the signal and takes it; 0 ms waits for ever.
void qmi_cci_os_signal_wait(qmi_client_os_params* os_params, unsigned timeout_ms);
}
