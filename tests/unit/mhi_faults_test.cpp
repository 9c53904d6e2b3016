// What the PCIe monitor does when the system refuses it something.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>

#include "mhi_monitor.h"
#include "shared_int.h"
#include "system_calls.h"

namespace {

using testing::HasSubstr;

int open_descriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<int>(std::distance(begin(entries), end(entries)));
}

class MhiFaults : public testing::Test {
  protected:
    void SetUp() override { forget(); }
    void TearDown() override { forget(); }

    static void forget() {
        store_shared(g_vexa_pcie_enabled, VEXA_LINUX_TRISTATE_UNKNOWN);
        store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_UNKNOWN);
    }
    static std::string log_of(const std::function<void()>& call) {
        testing::internal::CaptureStdout();
        call();
        return testing::internal::GetCapturedStdout();
    }

    SystemCalls system_;
};

TEST_F(MhiFaults, AnythingButAnAbsentDeviceIsLoggedWithItsNumberAndMeansUsb) {
    for (const int error : {EACCES, ELOOP, ENOTDIR, ENOMEM}) {
        forget();
        system_.answer(Call::access, -1, error);
        EXPECT_THAT(
            log_of(vexa_linux_dev_init),
            HasSubstr("Error checking for mhi_ctrl file: " + std::to_string(error) + ",0,0\r\n"));
        EXPECT_EQ(g_vexa_pcie_enabled, VEXA_LINUX_TRISTATE_FALSE);
    }
    EXPECT_EQ(system_.count(Call::sem_init), 0);
    EXPECT_EQ(system_.count(Call::pthread_create), 0);
}

TEST_F(MhiFaults, WithoutASemaphoreThereIsNoMonitor) {
    system_.answer(Call::access, 0);
    system_.answer(Call::sem_init, -1, ENOSYS);
    EXPECT_THAT(log_of(vexa_linux_dev_init),
                HasSubstr("Failed to create semaphore, error. Bailing out.: 0,0,0\r\n"));
    EXPECT_EQ(system_.count(Call::pthread_create), 0);
    EXPECT_EQ(system_.count(Call::sem_destroy), 0) << "there is none";
    EXPECT_EQ(vexa_pcie_is_enabled(), 1) << "the link is PCIe all the same";
}

TEST_F(MhiFaults, AThreadThatCannotBeStartedIsLogged) {
    system_.answer(Call::access, 0);
    system_.answer(Call::pthread_create, EAGAIN);
    EXPECT_THAT(log_of(vexa_linux_dev_init),
                HasSubstr("Failed to spawn mhi_monitor thread:Bailing out.: 0,0,0\r\n"));
    EXPECT_EQ(vexa_pcie_is_enabled(), 1);
    EXPECT_FALSE(is_pcie_live());
    EXPECT_EQ(system_.count(Call::sem_destroy), 1) << "nobody would ever post it";
}

TEST_F(MhiFaults, ALinkThatIsKnownAlreadyIsNotLookedForAgain) {
    store_shared(g_vexa_pcie_enabled, VEXA_LINUX_TRISTATE_TRUE);
    system_.answer(Call::pthread_create, EAGAIN);
    EXPECT_THAT(log_of(vexa_linux_dev_init), HasSubstr("Failed to spawn mhi_monitor thread"));
    store_shared(g_vexa_pcie_enabled, VEXA_LINUX_TRISTATE_FALSE);
    EXPECT_EQ(log_of(vexa_linux_dev_init), "");
    EXPECT_EQ(system_.count(Call::access), 0);
    EXPECT_EQ(system_.count(Call::sem_init), 1);
}

struct SocketRow {
    Call call;
    const char* log;
};

TEST_F(MhiFaults, ASocketThatCannotBeSetUpLeavesNothingOpen) {
    const SocketRow rows[] = {
        {Call::socket, "Error creating uevent netlink socket: 0,0,0\r\n"},
        {Call::setsockopt, "Error setting netlink socket options: 0,0,0\r\n"},
        {Call::bind, "Error binding netlink socket: 0,0,0\r\n"},
    };
    const int before = open_descriptors();
    for (const SocketRow& row : rows) {
        system_.answer(row.call, -1, ENOBUFS);
        int fd = 0;
        EXPECT_THAT(log_of([&fd] { fd = vexa_linux_open_netlink_socket(); }), HasSubstr(row.log));
        EXPECT_EQ(fd, -1);
        EXPECT_EQ(open_descriptors(), before) << row.log;
        // The monitor then ends, and nobody's state is touched.
        store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_CONFIGURED_R);
        system_.answer(row.call, -1, ENOBUFS);
        EXPECT_THAT(log_of([] { vexa_linux_monitor_thread_entry(nullptr); }),
                    HasSubstr("MHI Monitor Thread ends without a netlink socket: 0,0,0\r\n"));
        EXPECT_EQ(g_mhi_ctrl_state, VEXA_MHI_CTRL_CONFIGURED_R);
        EXPECT_EQ(open_descriptors(), before) << row.log;
    }
}

constexpr const char* kPollFailed = "Poll from mhi_ctrl file returned with error: 0,0,0\r\n";

TEST_F(MhiFaults, AFailedPollEndsTheMonitorAndClosesItsSocket) {
    const int before = open_descriptors();
    system_.answer(Call::poll, -1, ENOMEM);
    EXPECT_THAT(log_of([] { vexa_linux_monitor_thread_entry(nullptr); }), HasSubstr(kPollFailed));
    EXPECT_EQ(system_.count(Call::recv), 0);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(MhiFaults, APollThatTellsNothingReceivesNothing) {
    system_.answer(Call::poll, 0);
    system_.answer(Call::poll, -1, ENOMEM);
    EXPECT_THAT(log_of([] { vexa_linux_monitor_thread_entry(nullptr); }), HasSubstr(kPollFailed));
    EXPECT_EQ(system_.count(Call::recv), 0);
}

TEST_F(MhiFaults, AFailedOrEmptyReceiveIsLoggedAndTheMonitorGoesOn) {
    const struct {
        int result;
        int error;
        const char* log;
    } rows[] = {
        {-1, ENOBUFS, "Error receving uevent msg . Ignoring msg: 0,0,0\r\n"},
        {0, 0, "Error recevied empty uevent msg. Ignoring msg: 0,0,0\r\n"},
        {1024, 0, "Error uevent datagram is truncated: 0,0,0\r\n"},
    };
    for (const auto& row : rows) {
        system_.answer(Call::recv, row.result, row.error);
        system_.answer(Call::poll, 1);
        system_.answer(Call::poll, -1, ENOMEM);
        const std::string log = log_of([] { vexa_linux_monitor_thread_entry(nullptr); });
        const auto received = log.find(row.log);
        ASSERT_NE(received, std::string::npos) << log;
        EXPECT_NE(log.find(kPollFailed, received), std::string::npos) << log;
        // One merge, that of the state file; what could not be received is none.
        EXPECT_EQ(log.find("MHI channel state"), log.rfind("MHI channel state"));
    }
}

TEST_F(MhiFaults, ADatagramThatJustFitsIsTaken) {
    system_.answer(Call::recv, 1023);
    system_.answer(Call::poll, 1);
    system_.answer(Call::poll, -1, ENOMEM);
    EXPECT_THAT(log_of([] { vexa_linux_monitor_thread_entry(nullptr); }),
                testing::Not(HasSubstr("Error uevent datagram is truncated")));
}

}  // namespace
