// The QMI AT service's callbacks.
#include "vexa_mbim_at_service.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "mbim_udp_relay.h"
#include "shared_int.h"
#include "system_calls.h"
#include "vexa_mbim_at_test_client.h"
#include "vexa_mbim_service_v01.h"

namespace {

// What the code under test handed to the QMI libraries, and what they say to it.
struct Response {
    qmi_req_handle handle;
    unsigned id;
    unsigned length;
    vexa_mbim_at_resp_msg_v01 record;
};
struct Request {
    unsigned id;
    unsigned length;
    unsigned response_length;
    vexa_mbim_at_req_msg_v01 record;
};
struct QmiLibraries {
    std::vector<Response> responses;
    std::vector<Request> requests;
    qmi_csi_error response_error = QMI_CSI_NO_ERR;
    qmi_client_error_type request_error = QMI_NO_ERR;
};
thread_local QmiLibraries* libraries = nullptr;

}  // namespace

// The linker leads the calls here (--wrap); without a test that looks they go through.
extern "C" {

qmi_csi_error __real_qmi_csi_send_resp(qmi_req_handle handle, unsigned id, void* response,
                                       unsigned length);
qmi_csi_error __wrap_qmi_csi_send_resp(qmi_req_handle handle, unsigned id, void* response,
                                       unsigned length) {
    if (libraries == nullptr)
        return __real_qmi_csi_send_resp(handle, id, response, length);
    libraries->responses.push_back(
        {handle, id, length, *static_cast<const vexa_mbim_at_resp_msg_v01*>(response)});
    return libraries->response_error;
}

qmi_client_error_type __real_qmi_client_send_msg_async(qmi_client_type client, unsigned id,
                                                       void* request, unsigned length,
                                                       void* response, unsigned response_length,
                                                       qmi_client_recv_msg_async_cb callback,
                                                       void* cb_data, qmi_txn_handle* txn);
qmi_client_error_type __wrap_qmi_client_send_msg_async(qmi_client_type client, unsigned id,
                                                       void* request, unsigned length,
                                                       void* response, unsigned response_length,
                                                       qmi_client_recv_msg_async_cb callback,
                                                       void* cb_data, qmi_txn_handle* txn) {
    if (libraries == nullptr)
        return __real_qmi_client_send_msg_async(client, id, request, length, response,
                                                response_length, callback, cb_data, txn);
    libraries->requests.push_back(
        {id, length, response_length, *static_cast<const vexa_mbim_at_req_msg_v01*>(request)});
    if (libraries->request_error == QMI_NO_ERR)
        callback(client, id, response, response_length, cb_data, QMI_NO_ERR);
    return libraries->request_error;
}
}

namespace {

static_assert(QMI_CSI_CB_INTERNAL_ERR == 3 && QMI_CSI_CB_NO_MEM == 1);
static_assert(QMI_RESULT_FAILURE_V01 == 1 && QMI_ERR_INTERNAL_V01 == 3);
static_assert(sizeof(vexa_mbim_at_req_msg_v01) == 1028 &&
              sizeof(vexa_mbim_at_resp_msg_v01) == 1036);
static_assert(offsetof(vexa_mbim_at_req_msg_v01, data) == 4);
static_assert(offsetof(qmi_response_type_v01, error) > offsetof(qmi_response_type_v01, result));
static_assert(offsetof(vexa_mbim_at_resp_msg_v01, data_len) == 8 &&
              offsetof(vexa_mbim_at_resp_msg_v01, data) == 12);

using testing::HasSubstr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

TEST(MbimAtService, ARequestWithMessageIdZeroOrTwoIsRefusedAndCounted) {
    service_context_type context{};
    vexa_mbim_at_req_msg_v01 request{};
    CaptureStdout();
    EXPECT_EQ(vexa_mbim_handle_req_cb(nullptr, nullptr, 0, &request, sizeof(request), &context),
              QMI_CSI_CB_INTERNAL_ERR);
    EXPECT_EQ(vexa_mbim_handle_req_cb(nullptr, nullptr, 2, &request, sizeof(request), &context),
              QMI_CSI_CB_INTERNAL_ERR);
    const std::string output = GetCapturedStdout();
    EXPECT_EQ(context.num_requests, 2);
    EXPECT_THAT(output, HasSubstr("No function defined to handle request for message ID: 0.0.0\n"));
    EXPECT_THAT(output, testing::Not(HasSubstr("message ID: 2")));
}

TEST(MbimAtService, ARequestWithoutARecordIsRefusedAndCounted) {
    service_context_type context{};
    vexa_mbim_at_req_msg_v01 request{};
    struct {
        void* record;
        unsigned length;
        const char* why;
    } const rows[] = {
        {nullptr, 0, "neither"},
        {nullptr, sizeof(request), "a length alone"},
        {&request, sizeof(request) - 1, "a record that is cut"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(vexa_mbim_handle_req_cb(nullptr, nullptr, 1, row.record, row.length, &context),
                  QMI_CSI_CB_INTERNAL_ERR)
            << row.why;
    EXPECT_EQ(context.num_requests, 3);
}

// One request of one client; nothing reaches the modem's road but what a test lets through.
class MbimRequest : public testing::Test {
  protected:
    void SetUp() override {
        libraries = &libraries_;
        store_client(nullptr);
    }
    void TearDown() override {
        libraries = nullptr;
        store_client(nullptr);
        if (socket_fd >= 0)
            close(socket_fd);
        socket_fd = -1;
    }
    static void store_client(qmi_client_handle client) {
        client_info_type info{client};
        update_client_info(&info);
    }
    qmi_csi_cb_error ask(std::string_view text) {
        vexa_mbim_at_req_msg_v01 request{};
        text.copy(request.data, sizeof(request.data));
        request.data_len = static_cast<uint32_t>(text.size());
        CaptureStdout();
        const qmi_csi_cb_error result =
            vexa_mbim_handle_req_cb(&client_, &handle_, 1, &request, sizeof(request), &context_);
        output_ = GetCapturedStdout();
        return result;
    }
    void expect_failure_response(const char* why) {
        ASSERT_FALSE(libraries_.responses.empty()) << why;
        const Response& response = libraries_.responses.back();
        EXPECT_EQ(response.handle, &handle_) << why;
        EXPECT_EQ(response.id, 1U) << why;
        EXPECT_EQ(response.length, 1036U) << why;
        EXPECT_EQ(response.record.resp.result, 1) << why;
        EXPECT_EQ(response.record.resp.error, 3) << why;
        EXPECT_EQ(response.record.data_len, 0U) << why;
        EXPECT_STREQ(response.record.data, "") << why;
    }

    QmiLibraries libraries_;
    SystemCalls system_;
    service_context_type context_{};
    int peer_ = 0;
    int handle_ = 0;
    client_info_type client_{&peer_};
    std::string output_;
};

TEST_F(MbimRequest, WithoutASocketIsAnsweredWithAFailure) {
    system_.answer(Call::socket, -1, EMFILE);
    EXPECT_EQ(ask("AT\r"), QMI_CSI_CB_NO_ERR);
    expect_failure_response("no socket");
    EXPECT_THAT(output_, HasSubstr("========AT Over Mbim Service: AT\r len:3=====\n"));
    EXPECT_THAT(output_, HasSubstr("===udp socket failed! -1.0.0\n"));
    EXPECT_THAT(output_, HasSubstr("QMI Response Sent, DataLen: 0 Data:()\n"));
    EXPECT_EQ(system_.count(Call::sendto), 0);
    EXPECT_EQ(get_client_info()->clnt, &peer_) << "it was answered all the same";
}

TEST_F(MbimRequest, AFailedSendIsAFailureAndTheNextRequestMakesASocketAnew) {
    for (const int sockets : {1, 2}) {
        system_.answer(Call::sendto, -1, ENETUNREACH);
        EXPECT_EQ(ask("AT\r"), QMI_CSI_CB_NO_ERR);
        expect_failure_response("send");
        EXPECT_EQ(socket_fd, -1);
        EXPECT_EQ(system_.count(Call::socket), sockets);
        EXPECT_EQ(system_.count(Call::recvfrom), 0);
    }
}

TEST_F(MbimRequest, AsMuchTextAsARecordHoldsIsSent) {
    system_.answer(Call::sendto, 1024);
    for (int i = 0; i < 7; ++i) system_.answer(Call::recvfrom, -1, EAGAIN);
    EXPECT_EQ(ask(std::string(1024, 'A')), QMI_CSI_CB_NO_ERR);
    EXPECT_EQ(system_.count(Call::sendto), 1);
}

TEST_F(MbimRequest, SilenceIsAFailureThatKeepsTheSocket) {
    system_.answer(Call::sendto, 3);
    for (int i = 0; i < 7; ++i) system_.answer(Call::recvfrom, -1, EAGAIN);
    EXPECT_EQ(ask("AT\r"), QMI_CSI_CB_NO_ERR);
    expect_failure_response("silence");
    EXPECT_GE(socket_fd, 0);
    EXPECT_THAT(output_,
                HasSubstr("===udp socket failed! " + std::to_string(socket_fd) + ".0.0\n"));
}

TEST_F(MbimRequest, WithoutMemoryThereIsNoResponse) {
    system_.answer(Call::allocation, -1);
    EXPECT_EQ(ask("AT\r"), QMI_CSI_CB_INTERNAL_ERR);
    EXPECT_TRUE(libraries_.responses.empty());
    EXPECT_EQ(context_.num_requests, 1);
    EXPECT_EQ(get_client_info()->clnt, nullptr);
}

TEST_F(MbimRequest, AResponseThatIsNotTakenLeavesTheIndicationsTargetAlone) {
    system_.answer(Call::socket, -1, EMFILE);
    libraries_.response_error = QMI_CSI_CONN_GONE;
    EXPECT_EQ(ask("AT\r"), QMI_CSI_CB_INTERNAL_ERR);
    EXPECT_EQ(get_client_info()->clnt, nullptr);
    EXPECT_THAT(output_, HasSubstr("qmi_csi_send_resp returned error: 4.0.0\n"));
    EXPECT_THAT(output_, HasSubstr("QMI Response Sent, DataLen: 0 Data:()\n"));
}

TEST_F(MbimRequest, AConnectionWithoutMemoryIsRefused) {
    system_.answer(Call::allocation, -1);
    void* connection = &peer_;
    CaptureStdout();
    EXPECT_EQ(vexa_mbim_connect_cb(&peer_, nullptr, &connection), QMI_CSI_CB_NO_MEM);
    GetCapturedStdout();
}

// The self-test's client, one trigger at a time.
class MbimSelfTest : public testing::Test {
  protected:
    void SetUp() override { libraries = &libraries_; }
    void TearDown() override { libraries = nullptr; }
    // `first` and `second`: which of the two trigger files exist.
    std::string run(bool first, bool second, int messages = 1) {
        system_.answer(Call::access, first ? 0 : -1, ENOENT);
        if (!first)
            system_.answer(Call::access, second ? 0 : -1, ENOENT);
        system_.answer(Call::unlink, 0);
        int client = 0;
        qmi_client_type handle = &client;
        qmi_txn_handle txn = nullptr;
        CaptureStdout();
        vexa_mbim_service_data_test(&handle, &txn, messages, 100);
        return GetCapturedStdout();
    }

    QmiLibraries libraries_;
    SystemCalls system_;
};

TEST_F(MbimSelfTest, TheFirstTriggerFileCountsWhenBothAreThere) {
    const std::string output = run(true, true);
    ASSERT_EQ(libraries_.requests.size(), 1U);
    const Request& request = libraries_.requests[0];
    EXPECT_EQ(request.id, 1U);
    EXPECT_EQ(request.length, 1028U);
    EXPECT_EQ(request.response_length, 1036U);
    EXPECT_STREQ(request.record.data, "at+mtsm=1\r\n");
    EXPECT_EQ(request.record.data_len, 11U);
    EXPECT_EQ(system_.count(Call::unlink), 1);
    EXPECT_THAT(output, HasSubstr("TEST: Data Test with 1 async data messages of size 100.0.\n"));
    EXPECT_THAT(output, HasSubstr("TEST: qmi_client_send_msg_async returned 0 on loop 0\n"));
    EXPECT_THAT(output, HasSubstr("TEST: Async Test DatD : \n"));
    EXPECT_EQ(load_shared(pending_async), 0);
}

TEST_F(MbimSelfTest, TheSecondTriggerFileHasItsOwnText) {
    run(false, true);
    ASSERT_EQ(libraries_.requests.size(), 1U);
    EXPECT_EQ(iterations, 1);
    EXPECT_EQ(num_bytes, 100);
    EXPECT_STREQ(libraries_.requests[0].record.data, "at+mtsm=2\r\n");
    EXPECT_EQ(libraries_.requests[0].record.data_len, 11U);
}

TEST_F(MbimSelfTest, SendsAsManyMessagesAsItIsToldAndPausesAfterEach) {
    std::vector<useconds_t> pauses;
    TakenCalls taken;
    taken.usleep = [&pauses](useconds_t microseconds) {
        pauses.push_back(microseconds);
        return 0;
    };
    EXPECT_THAT(run(true, false, 3), HasSubstr("returned 0 on loop 2\n"));
    EXPECT_EQ(pauses, (std::vector<useconds_t>{500, 500, 500}));
    EXPECT_EQ(libraries_.requests.size(), 3U);
    EXPECT_EQ(load_shared(pending_async), 0);
}

TEST_F(MbimSelfTest, WithoutMemoryNothingIsSent) {
    system_.answer(Call::allocation, -1);
    EXPECT_EQ(run(true, true), "data_req memory alloc failed\n");
    EXPECT_EQ(system_.count(Call::unlink), 0) << "the trigger stays";
    EXPECT_TRUE(libraries_.requests.empty());
}

TEST_F(MbimSelfTest, WithoutMemoryForTheResponseNothingIsSent) {
    system_.answer(Call::allocation, 0);
    system_.answer(Call::allocation, -1);
    EXPECT_EQ(run(true, true), "data_resp memory alloc failed\n");
    EXPECT_EQ(system_.count(Call::unlink), 0) << "the trigger stays";
    EXPECT_TRUE(libraries_.requests.empty());
}

TEST(MbimSelfTestDeathTest, ARequestThatCannotBeSentEndsTheProcess) {
    EXPECT_EXIT(
        {
            QmiLibraries refusing;
            refusing.request_error = QMI_CLIENT_PARAM_ERR;
            libraries = &refusing;
            SystemCalls system;
            system.answer(Call::access, -1, ENOENT);
            system.answer(Call::access, -1, ENOENT);
            dup2(STDERR_FILENO, STDOUT_FILENO);
            qmi_client_type client = &refusing;
            qmi_txn_handle txn = nullptr;
            vexa_mbim_service_data_test(&client, &txn, 1, 100);
            _exit(9);
        },
        testing::ExitedWithCode(1), "TEST: send_msg_async error: [1-9][0-9]*\n");
}

TEST(MbimAtService, AConnectionIsARecordOfItsClient) {
    int client = 0;
    void* connection = nullptr;
    CaptureStdout();
    ASSERT_EQ(vexa_mbim_connect_cb(&client, nullptr, &connection), QMI_CSI_CB_NO_ERR);
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(static_cast<client_info_type*>(connection)->clnt, &client);
    vexa_mbim_disconnect_cb(connection, nullptr);
    EXPECT_EQ(GetCapturedStdout(),
              "A client connected to this service.0.0.0\n"
              "A client disconnected to this service.0.0.0\n");
    CaptureStdout();
    vexa_mbim_disconnect_cb(nullptr, nullptr);
    EXPECT_EQ(GetCapturedStdout(), "") << "it never connected";
}

TEST(MbimAtService, TheLastAnsweredClientIsCopied) {
    EXPECT_EQ(get_client_info()->clnt, nullptr);
    int client = 0;
    client_info_type info{&client};
    update_client_info(&info);
    EXPECT_EQ(get_client_info()->clnt, &client);
    EXPECT_NE(get_client_info(), &info);
    info = {};
    update_client_info(&info);
    EXPECT_EQ(get_client_info()->clnt, nullptr);
}

TEST(MbimAtService, OnlyItsOwnVersionIsDescribed) {
    EXPECT_NE(vexa_mbim_get_service_object_internal_v01(1, 1, 6), nullptr);
    EXPECT_EQ(vexa_mbim_get_service_object_internal_v01(2, 1, 6), nullptr);
    EXPECT_EQ(vexa_mbim_get_service_object_internal_v01(1, 0, 6), nullptr);
    EXPECT_EQ(vexa_mbim_get_service_object_internal_v01(1, 1, 5), nullptr);
}

}  // namespace
