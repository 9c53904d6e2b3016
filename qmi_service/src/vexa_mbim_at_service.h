// QMI service that carries AT commands: each request goes to the local UDP AT server and is
// answered with the text that comes back. The daemon carries it and does not start it.
#pragma once

#include "qmi_csi.h"

// The record behind a connection handle, and the last client that was answered.
struct client_info_type {
    qmi_client_handle clnt;
};
static_assert(sizeof(client_info_type) == sizeof(void*));

struct service_context_type {
    volatile int cleanup;
    qmi_csi_service_handle service_handle;
    int num_requests;  // every request callback, handled or not
};

// Service thread only.
extern service_context_type service_cookie;
extern client_info_type g_client_info;  // target of indications; null until a response went out

// The service handle, or null when the service cannot be registered.
void* vexa_mbim_service_register(qmi_csi_os_params* os_params);
// Thread entry; ends only when the service cannot be registered. The argument is not used.
void* vexa_mbim_at_data_handler(void* thread_info);

qmi_csi_cb_error vexa_mbim_connect_cb(qmi_client_handle client, void* cookie,
                                      void** connection_handle);
void vexa_mbim_disconnect_cb(void* connection_handle, void* cookie);
qmi_csi_cb_error vexa_mbim_handle_req_cb(void* connection_handle, qmi_req_handle req_handle,
                                         unsigned msg_id, void* request, unsigned request_length,
                                         void* cookie);

client_info_type* get_client_info();
void update_client_info(client_info_type* client_info);
