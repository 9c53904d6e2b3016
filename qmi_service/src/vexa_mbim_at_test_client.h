// Self-test of the QMI service: a client driven by trigger files. An outside starter runs it.
#pragma once

#include "qmi_cci.h"

// Shared by the test's thread and the library's, through shared_int.h.
extern int pending_inds;   // goes down with each indication
extern int pending_async;  // requests whose answer has not come

extern unsigned service_connect;  // which instance of the service to take, from 0
extern int iterations;            // requests per trigger
extern int num_bytes;             // their size as the test's log tells it

// Thread entry; never ends, but ends the process when a request cannot be sent.
void* vexa_mbim_at_thread_entry(void* arg);
// Sends the text that the present trigger file asks for and waits for every answer.
void vexa_mbim_service_data_test(qmi_client_type* clnt, qmi_txn_handle* txn, int num_msgs,
                                 int msg_size);
void vexa_mbim_service_rx_cb(qmi_client_type client, unsigned msg_id, void* response,
                             unsigned response_length, void* cb_data,
                             qmi_client_error_type transport_error);
void vexa_mbim_service_ind_cb(qmi_client_type client, unsigned msg_id, void* indication,
                              unsigned indication_length, void* cb_data);
