#include "mhi_monitor.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "shared_int.h"
#include "system_calls.h"

namespace {

using namespace std::string_literals;
using ::testing::HasSubstr;
using ::testing::Not;

class MhiMonitor : public ::testing::Test {
  protected:
    void SetUp() override {
        store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_UNKNOWN);
        ASSERT_EQ(sem_init(&g_mhi_monitor_semaphore, 0, 0), 0);
    }
    void TearDown() override {
        store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_UNKNOWN);
        store_shared(g_vexa_pcie_enabled, VEXA_LINUX_TRISTATE_UNKNOWN);
        sem_destroy(&g_mhi_monitor_semaphore);
    }

    static int posts() {
        int value = -1;
        sem_getvalue(&g_mhi_monitor_semaphore, &value);
        return value;
    }

    // What one kernel message does, as the monitor thread applies it.
    static std::string serve(std::string uevent) {
        testing::internal::CaptureStdout();
        const auto state =
            vexa_linux_parse_mhi_uevent(uevent.data(), static_cast<int>(uevent.size()));
        if (state != VEXA_MHI_CTRL_UNKNOWN) {
            EXPECT_EQ(vexa_linux_update_mhi_channel_state(state), 1);
        }
        return testing::internal::GetCapturedStdout();
    }
};

constexpr const char* kNoAction =
    "no action is taken apart from current_mhi_channel_state update: 0,0,0\r\n";

TEST_F(MhiMonitor, BothHalvesOneByOneGive4Then6AndOnePost) {
    serve("ACTION=change\0MHI_CHANNEL_STATE_32=CONNECTED\0"s);
    EXPECT_EQ(g_mhi_ctrl_state, VEXA_MHI_CTRL_CONNECTED_R);
    EXPECT_EQ(posts(), 0);
    serve("ACTION=change\0MHI_CHANNEL_STATE_33=CONNECTED\0"s);
    EXPECT_EQ(g_mhi_ctrl_state, VEXA_MHI_CTRL_CONNECTED_FULL);
    EXPECT_EQ(posts(), 1);
}

TEST_F(MhiMonitor, BothChannelsInOneMessageGive6Directly) {
    serve("ACTION=change\0MHI_CHANNEL_STATE_32=CONNECTED\0MHI_CHANNEL_STATE_33=CONNECTED\0"s);
    EXPECT_EQ(g_mhi_ctrl_state, VEXA_MHI_CTRL_CONNECTED_FULL);
    EXPECT_EQ(posts(), 1);
}

TEST_F(MhiMonitor, AMessageWithoutChannelStatesChangesNothing) {
    serve("MHI_CHANNEL_STATE_32=CONNECTED\0"s);
    EXPECT_EQ(serve("ACTION=add\0DEVPATH=/devices/virtual/net/lo\0SUBSYSTEM=net\0"s), "");
    EXPECT_EQ(g_mhi_ctrl_state, VEXA_MHI_CTRL_CONNECTED_R);
    EXPECT_EQ(posts(), 0);
}

TEST_F(MhiMonitor, EachArrivalAtConnectedPostsAgain) {
    const std::string both = "MHI_CHANNEL_STATE_32=CONNECTED\0MHI_CHANNEL_STATE_33=CONNECTED\0"s;
    serve(both);
    serve(both);  // a repeat counts as an arrival too
    EXPECT_EQ(posts(), 2);
    serve("MHI_CHANNEL_STATE_32=DISCONNECTED\0"s);
    serve("MHI_CHANNEL_STATE_33=DISCONNECTED\0"s);
    EXPECT_EQ(g_mhi_ctrl_state, VEXA_MHI_CTRL_DISCONNECTED_FULL);
    EXPECT_EQ(posts(), 2);
    serve("MHI_CHANNEL_STATE_33=CONNECTED\0"s);
    serve("MHI_CHANNEL_STATE_32=CONNECTED\0"s);
    EXPECT_EQ(posts(), 3);
}

TEST_F(MhiMonitor, TheHitsAndTheChangeAreLoggedInOrder) {
    const std::string log =
        serve("MHI_CHANNEL_STATE_33=CONFIGURED\0MHI_CHANNEL_STATE_32=CONFIGURED\0"s);
    const std::string texts[] = {
        "Received MHI uevent with MHI_CHANNEL_STATE_32=CONFIGURED state: 0,0,0\r\n",
        "Received MHI uevent with MHI_CHANNEL_STATE_33=CONFIGURED state: 0,0,0\r\n",
        "MHI channel state: 0,9,0\r\n",
        kNoAction,
    };
    std::size_t from = 0;
    for (const std::string& text : texts) {
        from = log.find(text, from);
        ASSERT_NE(from, std::string::npos) << text << " is missing or out of order in\n" << log;
    }
}

TEST_F(MhiMonitor, AWholePairIsEnteredWithoutTheNoActionLine) {
    EXPECT_THAT(serve("MHI_CHANNEL_STATE_32=DISCONNECTED\0MHI_CHANNEL_STATE_33=DISCONNECTED\0"s),
                Not(HasSubstr(kNoAction)));
    EXPECT_THAT(serve("MHI_CHANNEL_STATE_32=CONNECTED\0MHI_CHANNEL_STATE_33=CONNECTED\0"s),
                Not(HasSubstr(kNoAction)));
    EXPECT_THAT(serve("MHI_CHANNEL_STATE_32=DISCONNECTED\0"s), HasSubstr(kNoAction));
}

TEST_F(MhiMonitor, TheStateUnknownIsAppliedWhenAsked) {
    store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_CONNECTED_R);
    testing::internal::CaptureStdout();
    EXPECT_EQ(vexa_linux_update_mhi_channel_state(VEXA_MHI_CTRL_UNKNOWN), 1);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("MHI channel state: 4,0,0\r\n"));
    EXPECT_EQ(g_mhi_ctrl_state, VEXA_MHI_CTRL_UNKNOWN);
}

TEST_F(MhiMonitor, KeysBehindTheTextAreaAreNotSeen) {
    const std::string key = "MHI_CHANNEL_STATE_32=CONNECTED\0"s;
    const std::size_t shown = key.size() - 1;
    // The text holds 1,023 characters: the key ends with the last of them, or one behind it.
    EXPECT_THAT(serve(std::string(1023 - shown, 'x') + key), HasSubstr("state: 0,4,0"));
    store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_UNKNOWN);
    EXPECT_EQ(serve(std::string(1024 - shown, 'x') + key), "");
    EXPECT_EQ(g_mhi_ctrl_state, VEXA_MHI_CTRL_UNKNOWN);
}

TEST_F(MhiMonitor, NothingToParseIsStateUnknown) {
    char text[] = "MHI_CHANNEL_STATE_32=CONNECTED";
    EXPECT_EQ(vexa_linux_parse_mhi_uevent(nullptr, 5), VEXA_MHI_CTRL_UNKNOWN);
    EXPECT_EQ(vexa_linux_parse_mhi_uevent(text, 0), VEXA_MHI_CTRL_UNKNOWN);
    EXPECT_EQ(vexa_linux_parse_mhi_uevent(text, -1), VEXA_MHI_CTRL_UNKNOWN);
}

struct LiveRow {
    int enabled;
    int state;
    bool live;
};

TEST_F(MhiMonitor, ThePipeIsLiveOnPcieWithBothChannelsConnected) {
    const LiveRow rows[] = {
        {VEXA_LINUX_TRISTATE_TRUE, VEXA_MHI_CTRL_CONNECTED_FULL, true},
        {VEXA_LINUX_TRISTATE_FALSE, VEXA_MHI_CTRL_CONNECTED_FULL, false},
        {VEXA_LINUX_TRISTATE_UNKNOWN, VEXA_MHI_CTRL_CONNECTED_FULL, false},
        {VEXA_LINUX_TRISTATE_TRUE, VEXA_MHI_CTRL_CONNECTED_W, false},
        {VEXA_LINUX_TRISTATE_TRUE, VEXA_MHI_CTRL_CONFIGURED_R, false},
        {VEXA_LINUX_TRISTATE_TRUE, VEXA_MHI_CTRL_UNKNOWN, false},
    };
    for (const LiveRow& row : rows) {
        store_shared(g_vexa_pcie_enabled, row.enabled);
        store_shared(g_mhi_ctrl_state, row.state);
        EXPECT_EQ(is_pcie_live(), row.live) << row.enabled << " " << row.state;
        EXPECT_EQ(vexa_pcie_is_enabled(), row.enabled == VEXA_LINUX_TRISTATE_TRUE ? 1 : 0);
    }
}

TEST_F(MhiMonitor, WithoutTheControlDeviceTheLinkIsUsbAndNothingIsStarted) {
    if (access("/dev/mhi_ctrl", F_OK) == 0)
        GTEST_SKIP() << "this machine has a /dev/mhi_ctrl";
    testing::internal::CaptureStdout();
    vexa_linux_dev_init();
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_THAT(log, HasSubstr("mhi_ctrl file does not exist. MBIM is over USB Interface: " +
                               std::to_string(ENOENT) + ",0,0\r\n"));
    EXPECT_EQ(g_vexa_pcie_enabled, VEXA_LINUX_TRISTATE_FALSE);
    testing::internal::CaptureStdout();
    vexa_linux_dev_init();  // decided once
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

int option_of(int fd, int option) {
    int value = -1;
    socklen_t size = sizeof value;
    getsockopt(fd, SOL_SOCKET, option, &value, &size);
    return value;
}

TEST_F(MhiMonitor, TheSocketListensToKernelUeventsUnderTheProcessId) {
    int bytes = 0;  // of the receive buffer; the kernel makes no buffer as small as that
    int buffer_of = -1;
    int fd = -1;
    {
        TakenCalls taken;
        taken.setsockopt = [&](int set_fd, int level, int name, const void* value, socklen_t size) {
            if (level == SOL_SOCKET && name == SO_RCVBUF && size == sizeof bytes)
                memcpy(&bytes, value, sizeof bytes);
            buffer_of = set_fd;
            return 0;
        };
        fd = vexa_linux_open_netlink_socket();
    }
    ASSERT_GE(fd, 0);
    EXPECT_EQ(bytes, 1024);
    EXPECT_EQ(buffer_of, fd);
    sockaddr_nl address{};
    socklen_t size = sizeof address;
    ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
    EXPECT_EQ(address.nl_pid, static_cast<unsigned>(getpid()));
    EXPECT_EQ(address.nl_groups, 1U);
    EXPECT_EQ(option_of(fd, SO_TYPE), SOCK_DGRAM);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    // The port id is taken now: a second one cannot be bound.
    testing::internal::CaptureStdout();
    EXPECT_EQ(vexa_linux_open_netlink_socket(), -1);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("Error binding netlink socket: 0,0,0\r\n"));
    // So a monitor ends at once, and leaves the state alone.
    store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_CONFIGURED_R);
    testing::internal::CaptureStdout();
    EXPECT_EQ(vexa_linux_monitor_thread_entry(nullptr), nullptr);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("MHI Monitor Thread ends without a netlink socket: 0,0,0\r\n"));
    EXPECT_EQ(g_mhi_ctrl_state, VEXA_MHI_CTRL_CONFIGURED_R);
    close(fd);
}

TEST_F(MhiMonitor, WithoutTheStateFileTheStateIsUnknown) {
    if (access("/sys/devices/virtual/mhi/mhi_ctrl/uevent", F_OK) == 0)
        GTEST_SKIP() << "this machine has an MHI control device";
    testing::internal::CaptureStdout();
    EXPECT_EQ(vexa_linux_get_mhi_state_from_uevent_file(), VEXA_MHI_CTRL_UNKNOWN);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("Error opening MHI uevent file: 0,0,0\r\n"));
}

}  // namespace
