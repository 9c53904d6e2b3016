// The QMI AT service's callbacks.
#include "vexa_mbim_at_service.h"

#include "vexa_mbim_service_v01.h"

namespace {

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
    EXPECT_EQ(vexa_mbim_handle_req_cb(nullptr, nullptr, 1, nullptr, 0, &context),
              QMI_CSI_CB_INTERNAL_ERR);
    EXPECT_EQ(context.num_requests, 1);
}

TEST(MbimAtService, AConnectionIsARecordOfItsClient) {
    int client = 0;
    void* connection = nullptr;
    CaptureStdout();
    ASSERT_EQ(vexa_mbim_connect_cb(&client, nullptr, &connection), QMI_CSI_CB_NO_ERR);
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(static_cast<client_info_type*>(connection)->clnt, &client);
    vexa_mbim_disconnect_cb(connection, nullptr);
    vexa_mbim_disconnect_cb(nullptr, nullptr);
    EXPECT_EQ(GetCapturedStdout(),
              "A client connected to this service.0.0.0\n"
              "A client disconnected to this service.0.0.0\n");
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
