#include "vexa_mbim_at_test_client.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "log.h"
#include "shared_int.h"
#include "vexa_mbim_service_v01.h"

int pending_inds = 0;
int pending_async = 0;
unsigned service_connect = 0;
int iterations = 1;
int num_bytes = 100;

namespace {

constexpr useconds_t kTriggerPause = 100;  // microseconds
constexpr useconds_t kAnswerPause = 500;
constexpr unsigned kMostInstances = 10;

struct Trigger {
    const char* path;
    std::string_view text;
};
// The first that exists counts.
constexpr std::array<Trigger, 2> kTriggers = {{
    {"/tmp/1", "at+mtsm=1\r\n"},
    {"/tmp/2", "at+mtsm=2\r\n"},
}};

void add_shared(int& value, int difference) {
    std::atomic_ref<int>(value).fetch_add(difference);
}

int text_length(const char* text, unsigned size) {
    return static_cast<int>(strnlen(text, size));
}

bool is_triggered() {
    return std::any_of(kTriggers.begin(), kTriggers.end(),
                       [](const Trigger& trigger) { return access(trigger.path, F_OK) == 0; });
}

// Leaves the request empty when no trigger is there.
void take_trigger(vexa_mbim_at_req_msg_v01& request) {
    for (const Trigger& trigger : kTriggers) {
        if (access(trigger.path, F_OK) != 0)
            continue;
        memcpy(request.data, trigger.text.data(), trigger.text.size());
        request.data_len = static_cast<uint32_t>(trigger.text.size());
        unlink(trigger.path);
        return;
    }
}

void wait_for_service(qmi_idl_service_object_type service, qmi_client_os_params& os_params) {
    while (true) {
        unsigned num_services = 0;
        const int result = qmi_client_get_service_list(service, nullptr, nullptr, &num_services);
        printf("TEST: qmi_client_get_service_list() returned %d num_services = %d\n", result,
               static_cast<int>(num_services));
        if (result == QMI_NO_ERR)
            return;
        qmi_cci_os_signal_wait(&os_params, 0);
    }
}

qmi_service_info choose_service(qmi_idl_service_object_type service) {
    std::array<qmi_service_info, kMostInstances> found{};
    unsigned num_entries = kMostInstances;
    unsigned num_services = 0;
    const int result =
        qmi_client_get_service_list(service, found.data(), &num_entries, &num_services);
    printf("TEST: qmi_client_get_service_list() returned %d num_entries = %d num_services = %d\n",
           result, static_cast<int>(num_entries), static_cast<int>(num_services));
    if (service_connect >= num_entries)
        service_connect = 0;
    printf("%d Test Services found: Choosing service %d(numbered starting at 0)\n",
           static_cast<int>(num_services), static_cast<int>(service_connect));
    return found[service_connect];
}

}  // namespace

void* vexa_mbim_at_thread_entry(void* /*arg*/) {
    const qmi_idl_service_object_type service = vexa_mbim_get_service_object_internal_v01(
        kMbimServiceMajor, kMbimServiceMinor, kMbimServiceLibrary);
    if (service == nullptr)
        printf(
            "TEST: vexa_mbim_get_serivce_object failed, verify vexa_mbim_service_v01: check the "
            "service's declaration and its definition against each other\n");
    qmi_client_os_params os_params;
    qmi_client_type notifier = nullptr;
    qmi_client_notifier_init(service, &os_params, &notifier);
    wait_for_service(service, os_params);
    const qmi_service_info info = choose_service(service);
    qmi_client_os_params client_params;
    qmi_client_type client = nullptr;
    const int result =
        qmi_client_init(&info, service, vexa_mbim_service_ind_cb, nullptr, &client_params, &client);
    printf("TEST: qmi_client_init returned %d\n", result);
    qmi_txn_handle txn = nullptr;
    while (true) {
        usleep(kTriggerPause);
        if (is_triggered())
            vexa_mbim_service_data_test(&client, &txn, iterations, num_bytes);
    }
}

void vexa_mbim_service_data_test(qmi_client_type* clnt, qmi_txn_handle* txn, int num_msgs,
                                 int msg_size) {
    const std::unique_ptr<vexa_mbim_at_req_msg_v01> request(new (std::nothrow)
                                                                vexa_mbim_at_req_msg_v01{});
    if (request == nullptr) {
        printf("data_req memory alloc failed\n");
        return;
    }
    const std::unique_ptr<vexa_mbim_at_resp_msg_v01> response(new (std::nothrow)
                                                                  vexa_mbim_at_resp_msg_v01{});
    if (response == nullptr) {
        printf("data_resp memory alloc failed\n");
        return;
    }
    take_trigger(*request);
    VEXA_LOG("TEST: Data Test with %d async data messages of size %d.%d.\n", num_msgs, msg_size, 0);
    for (int i = 0; i < num_msgs; ++i) {
        const int result = qmi_client_send_msg_async(
            *clnt, kMbimAtMessageId, request.get(), sizeof(*request), response.get(),
            sizeof(*response), vexa_mbim_service_rx_cb, nullptr, txn);
        printf("TEST: qmi_client_send_msg_async returned %d on loop %d\n", result, i);
        if (result != QMI_NO_ERR) {
            printf("TEST: send_msg_async error: %d\n", result);
            exit(1);
        }
        add_shared(pending_async, 1);
        usleep(kAnswerPause);
    }
    while (load_shared(pending_async) != 0) usleep(kAnswerPause);
}

void vexa_mbim_service_rx_cb(qmi_client_type /*client*/, unsigned msg_id, void* response,
                             unsigned /*response_length*/, void* /*cb_data*/,
                             qmi_client_error_type /*transport_error*/) {
    if (msg_id == kMbimAtMessageId) {
        const auto& record = *static_cast<const vexa_mbim_at_resp_msg_v01*>(response);
        printf("TEST: Async Test DatD : %.*s\n", text_length(record.data, sizeof(record.data)),
               record.data);
    }
    // Last: the sender frees the response when nothing is pending.
    add_shared(pending_async, -1);
}

void vexa_mbim_service_ind_cb(qmi_client_type /*client*/, unsigned msg_id, void* indication,
                              unsigned indication_length, void* /*cb_data*/) {
    add_shared(pending_inds, -1);
    const auto* text = static_cast<const char*>(indication);
    printf("TEST_SERVICE: Indication: msg_id=0x%x buf_len=%d ind_buf(%.*s) pending_ind=%d\n",
           msg_id, static_cast<int>(indication_length), text_length(text, indication_length), text,
           load_shared(pending_inds));
}
