// The stand-ins of the QMI libraries: messages as TLVs, and their way between service and client.
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "qmi_at_client.h"
#include "qmi_cci.h"
#include "qmi_csi.h"
#include "vexa_mbim_service_v01.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
constexpr auto kDeadline = seconds(60);

qmi_idl_service_object_type at_service() {
    return vexa_mbim_get_service_object_internal_v01(1, 1, 6);
}

std::vector<uint8_t> response_bytes() {
    vexa_mbim_at_resp_msg_v01 record{};
    record.resp = {QMI_RESULT_FAILURE_V01, QMI_ERR_INTERNAL_V01};
    record.data_len = 0x01020304;
    strcpy(record.data, "OK");
    std::vector<uint8_t> bytes(4096);
    unsigned length = 0;
    EXPECT_EQ(qmi_idl_message_encode(at_service(), QMI_IDL_RESPONSE, 1, &record, sizeof(record),
                                     bytes.data(), 4096, &length),
              QMI_IDL_NO_ERR);
    bytes.resize(length);
    return bytes;
}

int decode_response(const std::vector<uint8_t>& bytes, vexa_mbim_at_resp_msg_v01& record) {
    return qmi_idl_message_decode(at_service(), QMI_IDL_RESPONSE, 1, bytes.data(),
                                  static_cast<unsigned>(bytes.size()), &record, sizeof(record));
}

TEST(QmiCoding, AResponseIsThreeTlvs) {
    std::vector<uint8_t> wanted = {0x02, 4, 0, 1,   0,  3, 0,  // result 1, error 3
                                   0x03, 4, 0, 4,   3,  2, 1,  // data_len
                                   0x04, 0, 4, 'O', 'K'};      // data, 1,024 bytes
    wanted.resize(wanted.size() + 1022);
    EXPECT_EQ(response_bytes(), wanted);
}

// The numbers of the TLVs are what a host's own client was built with.
TEST(QmiCoding, ARequestIsTwoTlvsAndAnIndicationOne) {
    std::array<uint8_t, 2048> bytes{};
    unsigned length = 0;
    vexa_mbim_at_req_msg_v01 request{};
    request.data_len = 3;
    ASSERT_EQ(qmi_idl_message_encode(at_service(), QMI_IDL_REQUEST, 1, &request, sizeof(request),
                                     bytes.data(), bytes.size(), &length),
              QMI_IDL_NO_ERR);
    EXPECT_EQ(length, 7 + 3 + 1024U);
    EXPECT_THAT(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 10),
                testing::ElementsAre(0x01, 4, 0, 3, 0, 0, 0,  // data_len
                                     0x02, 0, 4));            // data, 1,024 bytes
    vexa_mbim_at_ind_msg_v01 indication{};
    ASSERT_EQ(qmi_idl_message_encode(at_service(), QMI_IDL_INDICATION, 1, &indication,
                                     sizeof(indication), bytes.data(), bytes.size(), &length),
              QMI_IDL_NO_ERR);
    EXPECT_EQ(length, 3 + 1024U);
    EXPECT_THAT(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 3),
                testing::ElementsAre(0x01, 0, 4));
}

TEST(QmiCoding, WhatWasCodedComesBack) {
    vexa_mbim_at_resp_msg_v01 record{};
    ASSERT_EQ(decode_response(response_bytes(), record), QMI_IDL_NO_ERR);
    EXPECT_EQ(record.resp.result, QMI_RESULT_FAILURE_V01);
    EXPECT_EQ(record.resp.error, QMI_ERR_INTERNAL_V01);
    EXPECT_EQ(record.data_len, 0x01020304U);
    EXPECT_STREQ(record.data, "OK");
}

TEST(QmiCoding, ACutMessageIsRefusedAtEveryLength) {
    const std::vector<uint8_t> whole = response_bytes();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        vexa_mbim_at_resp_msg_v01 record{};
        const int result =
            decode_response({whole.begin(), whole.begin() + static_cast<long>(length)}, record);
        // A failure's result code is enough, when nothing is cut off behind it.
        const bool is_enough = length == 7 || length == 14;
        EXPECT_EQ(result == QMI_IDL_NO_ERR, is_enough) << length;
    }
}

struct BadTlvs {
    std::vector<uint8_t> bytes;
    int result;
};

TEST(QmiCoding, BadTlvsAreRefused) {
    const std::vector<BadTlvs> rows = {
        {{}, QMI_IDL_MISSING_TLV},
        {{0x02, 4, 0, 0, 0, 0, 0}, QMI_IDL_MISSING_TLV},       // success alone is not enough
        {{0x02, 3, 0, 1, 0, 3}, QMI_IDL_MALFORMED_TLV},        // too short
        {{0x02, 5, 0, 1, 0, 3, 0, 0}, QMI_IDL_MALFORMED_TLV},  // too long
        {{0x02, 0xff, 0xff, 1}, QMI_IDL_MALFORMED_TLV},        // longer than what came
        {{0x02}, QMI_IDL_MALFORMED_TLV},
        {{0x10, 1, 0, 9, 0x02, 4, 0, 1, 0, 3, 0}, QMI_IDL_NO_ERR},  // an unknown one is passed over
    };
    for (const BadTlvs& row : rows) {
        vexa_mbim_at_resp_msg_v01 record{};
        EXPECT_EQ(decode_response(row.bytes, record), row.result);
    }
}

TEST(QmiCoding, RecordsOfAnotherSizeAreRefused) {
    vexa_mbim_at_req_msg_v01 record{};
    std::array<uint8_t, 64> small{};
    unsigned length = 77;
    EXPECT_EQ(qmi_idl_message_encode(at_service(), QMI_IDL_REQUEST, 1, &record, sizeof(record) - 1,
                                     small.data(), 64, &length),
              QMI_IDL_BAD_LENGTH);
    EXPECT_EQ(qmi_idl_message_encode(at_service(), QMI_IDL_REQUEST, 1, &record, sizeof(record),
                                     small.data(), 64, &length),
              QMI_IDL_BAD_LENGTH);
    EXPECT_EQ(qmi_idl_message_encode(at_service(), QMI_IDL_REQUEST, 2, &record, sizeof(record),
                                     small.data(), 64, &length),
              QMI_IDL_UNKNOWN_MESSAGE);
    EXPECT_EQ(length, 77U);
}

// A service on a thread of its own, with callbacks that the test sets.
class QmiService : public testing::Test {
  protected:
    void SetUp() override {
        std::string folder = testing::TempDir() + "vexa-qmi-XXXXXX";
        ASSERT_NE(mkdtemp(folder.data()), nullptr);
        folder_ = folder;
        setenv("VEXA_QMI_SOCKET", (folder_ + "/service").c_str(), 1);
        stop_fd_ = eventfd(0, EFD_CLOEXEC);
    }
    void TearDown() override {
        stop_service();
        close(stop_fd_);
        std::filesystem::remove_all(folder_);
    }
    qmi_csi_error register_service() {
        return qmi_csi_register(
            at_service(),
            [](qmi_client_handle client, void* self, void** connection) {
                auto& test = *static_cast<QmiService*>(self);
                *connection = client;
                test.clients_ += 1;
                return test.on_connect_.load();
            },
            [](void*, void* self) { static_cast<QmiService*>(self)->gone_ += 1; },
            [](void* connection, qmi_req_handle handle, unsigned id, void* request, unsigned,
               void* self) {
                return static_cast<QmiService*>(self)->on_request_(
                    connection, handle, id, static_cast<vexa_mbim_at_req_msg_v01*>(request));
            },
            this, &os_params_, &service_);
    }
    void start_service() {
        ASSERT_EQ(register_service(), QMI_CSI_NO_ERR);
        serving_ = std::thread([this] { serve(); });
    }
    void stop_service() {
        if (!serving_.joinable())
            return;
        eventfd_write(stop_fd_, 1);
        serving_.join();
        qmi_csi_unregister(service_);
    }
    static qmi_csi_cb_error answer(qmi_req_handle handle, const std::string& text) {
        vexa_mbim_at_resp_msg_v01 response{};
        response.data_len = static_cast<uint32_t>(text.size());
        text.copy(response.data, sizeof(response.data) - 1);
        const bool is_sent =
            qmi_csi_send_resp(handle, 1, &response, sizeof(response)) == QMI_CSI_NO_ERR;
        return is_sent ? QMI_CSI_CB_NO_ERR : QMI_CSI_CB_INTERNAL_ERR;
    }
    // False at the deadline.
    static bool wait_for(const std::function<bool()>& done) {
        const auto deadline = steady_clock::now() + kDeadline;
        while (!done() && steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return done();
    }

    std::string folder_;
    std::atomic<int> clients_ = 0;
    std::atomic<int> gone_ = 0;
    std::atomic<int> passes_ = 0;
    std::atomic<qmi_csi_cb_error> on_connect_ = QMI_CSI_CB_NO_ERR;
    std::function<qmi_csi_cb_error(void*, qmi_req_handle, unsigned, vexa_mbim_at_req_msg_v01*)>
        on_request_ = [](void*, qmi_req_handle handle, unsigned, auto* request) {
            return answer(handle, "echo " + std::string(request->data, request->data_len));
        };
    qmi_csi_os_params os_params_{};
    qmi_csi_service_handle service_ = nullptr;

  private:
    void serve() {
        while (true) {
            qmi_csi_os_params ready = os_params_;
            FD_SET(stop_fd_, &ready.fds);
            if (select(std::max(ready.max_fd, stop_fd_) + 1, &ready.fds, nullptr, nullptr,
                       nullptr) < 0)
                continue;
            if (FD_ISSET(stop_fd_, &ready.fds))
                return;
            qmi_csi_handle_event(service_, &ready);
            ++passes_;
        }
    }

    int stop_fd_ = -1;
    std::thread serving_;
};

TEST_F(QmiService, ARequestIsAnswered) {
    start_service();
    bench::QmiAtClient client;
    ASSERT_TRUE(client.connect(kDeadline));
    const bench::QmiAnswer answer = client.ask("AT");
    EXPECT_TRUE(answer.arrived);
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.text, "echo AT");
}

TEST_F(QmiService, ACallbacksErrorBecomesAFailure) {
    on_request_ = [](auto...) { return QMI_CSI_CB_INTERNAL_ERR; };
    start_service();
    bench::QmiAtClient client;
    ASSERT_TRUE(client.connect(kDeadline));
    const bench::QmiAnswer answer = client.ask("AT");
    EXPECT_TRUE(answer.arrived);
    EXPECT_EQ(answer.result, 1);
    EXPECT_EQ(answer.error, 3);
    EXPECT_EQ(answer.text, "");
}

TEST_F(QmiService, OnlyItsOwnUserReachesTheSocket) {
    start_service();
    struct stat info {};
    ASSERT_EQ(stat((folder_ + "/service").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600U);
}

TEST_F(QmiService, AFolderThatOthersMayWriteIsRefused) {
    chmod(folder_.c_str(), 0777);
    EXPECT_EQ(register_service(), QMI_CSI_INTERNAL_ERR);
}

TEST_F(QmiService, ASecondServiceAtTheSamePlaceIsRefused) {
    start_service();
    const auto handle = service_;
    EXPECT_EQ(register_service(), QMI_CSI_INTERNAL_ERR);
    EXPECT_EQ(service_, handle);
    bench::QmiAtClient client;
    ASSERT_TRUE(client.connect(kDeadline));
    EXPECT_EQ(client.ask("AT").text, "echo AT");
}

TEST_F(QmiService, ASocketThatADeadServiceLeftIsReplaced) {
    ASSERT_EQ(register_service(), QMI_CSI_NO_ERR);
    rename((folder_ + "/service").c_str(), (folder_ + "/kept").c_str());
    qmi_csi_unregister(service_);
    rename((folder_ + "/kept").c_str(), (folder_ + "/service").c_str());
    start_service();
    bench::QmiAtClient client;
    ASSERT_TRUE(client.connect(kDeadline));
    EXPECT_EQ(client.ask("AT").text, "echo AT");
}

TEST_F(QmiService, AClientThatIsRefusedIsNotConnected) {
    on_connect_ = QMI_CSI_CB_NO_MEM;
    start_service();
    bench::QmiAtClient client;
    EXPECT_FALSE(client.connect(kDeadline));
    EXPECT_EQ(clients_, 1);
    stop_service();
    EXPECT_EQ(gone_, 0);
}

TEST_F(QmiService, ANotifierTellsOfAServiceThatComesLater) {
    qmi_client_os_params signal;
    qmi_client_type notifier = nullptr;
    ASSERT_EQ(qmi_client_notifier_init(at_service(), &signal, &notifier), QMI_NO_ERR);
    unsigned services = 7;
    EXPECT_EQ(qmi_client_get_service_list(at_service(), nullptr, nullptr, &services),
              QMI_SERVICE_ERR);
    EXPECT_EQ(services, 0U);
    start_service();
    qmi_cci_os_signal_wait(&signal, 0);
    EXPECT_EQ(qmi_client_get_service_list(at_service(), nullptr, nullptr, &services), QMI_NO_ERR);
    EXPECT_EQ(services, 1U);
    EXPECT_EQ(qmi_client_release(notifier), QMI_NO_ERR);
    // Asking which services there are is not being a client.
    EXPECT_EQ(clients_, 0);
}

TEST_F(QmiService, AServiceThatGoesAwayEndsItsRequests) {
    std::promise<void> began;
    std::promise<void> may_end;
    on_request_ = [&](auto...) {
        began.set_value();
        may_end.get_future().wait();
        return QMI_CSI_CB_NO_ERR;
    };
    start_service();
    bench::QmiAtClient client;
    ASSERT_TRUE(client.connect(kDeadline));
    const auto answer = std::make_shared<std::promise<bench::QmiAnswer>>();
    client.ask_later("AT", [answer](const auto& got) { answer->set_value(got); });
    began.get_future().wait();
    may_end.set_value();
    stop_service();
    auto future = answer->get_future();
    ASSERT_EQ(future.wait_for(kDeadline), std::future_status::ready);
    EXPECT_FALSE(future.get().arrived);
    EXPECT_FALSE(client.ask("AT").arrived);
}

TEST_F(QmiService, AClientThatLeavesBeforeItsAnswerIsForgotten) {
    std::promise<void> began;
    std::promise<void> may_answer;
    std::atomic<int> sent = -1;
    std::atomic<int> indicated = -1;
    void* connection_kept = nullptr;
    on_request_ = [&](void* connection, qmi_req_handle handle, unsigned, auto*) {
        connection_kept = connection;
        began.set_value();
        may_answer.get_future().wait();
        sent = answer(handle, "too late");
        return QMI_CSI_CB_NO_ERR;
    };
    start_service();
    {
        bench::QmiAtClient client;
        ASSERT_TRUE(client.connect(kDeadline));
        client.ask_later("AT", [](const auto&) {});
        began.get_future().wait();
    }
    may_answer.set_value();
    ASSERT_TRUE(wait_for([&] { return gone_ == 1; }));
    stop_service();
    EXPECT_EQ(sent, QMI_CSI_CB_INTERNAL_ERR);
    vexa_mbim_at_ind_msg_v01 indication{};
    indicated = qmi_csi_send_ind(connection_kept, 1, &indication, sizeof(indication));
    EXPECT_EQ(indicated, QMI_CSI_CONN_GONE);
}

TEST_F(QmiService, AnIndicationReachesItsClient) {
    on_request_ = [](void* connection, qmi_req_handle handle, unsigned, auto*) {
        vexa_mbim_at_ind_msg_v01 indication{};
        strcpy(indication.indication, "+CREG: 1");
        qmi_csi_send_ind(connection, 1, &indication, sizeof(indication));
        return answer(handle, "OK");
    };
    start_service();
    const auto heard = std::make_shared<std::promise<std::string>>();
    bench::QmiAtClient client([heard](const std::string& text) { heard->set_value(text); });
    ASSERT_TRUE(client.connect(kDeadline));
    EXPECT_EQ(client.ask("AT").text, "OK");
    auto future = heard->get_future();
    ASSERT_EQ(future.wait_for(kDeadline), std::future_status::ready);
    EXPECT_EQ(future.get(), "+CREG: 1");
}

TEST_F(QmiService, AHundredClientsComeAndLeave) {
    start_service();
    for (int i = 0; i < 100; ++i) {
        bench::QmiAtClient client;
        ASSERT_TRUE(client.connect(kDeadline));
        EXPECT_EQ(client.ask("AT").text, "echo AT");
    }
    ASSERT_TRUE(wait_for([&] { return gone_ == 100; }));
    EXPECT_EQ(clients_, 100);
}

TEST_F(QmiService, WithoutDescriptorsLeftItRestsAndServesAgainLater) {
    start_service();
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const int waiting = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const int first_free = dup(waiting);
    close(first_free);
    const rlimit none = {static_cast<rlim_t>(first_free), limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto start = steady_clock::now();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, (folder_ + "/service").c_str());
    ASSERT_EQ(connect(waiting, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    // Three tries and three ends of a rest, 100 ms each; without the rest they take microseconds.
    EXPECT_TRUE(wait_for([&] { return passes_ >= 6; }));
    EXPECT_GE(steady_clock::now() - start, std::chrono::milliseconds(200));
    setrlimit(RLIMIT_NOFILE, &limit);
    bench::QmiAtClient client;
    ASSERT_TRUE(client.connect(kDeadline));
    EXPECT_EQ(client.ask("AT").text, "echo AT");
    close(waiting);
}

}  // namespace
