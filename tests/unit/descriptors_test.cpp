// The shared descriptors: closing them wakes their readers, and nobody takes a stale number.
#include "descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "device_io.h"
#include "refusing_mutex.h"
#include "shared_device.h"
#include "vexa_common_def.h"

namespace {

struct SlotRow {
    const char* name;
    int* slot;
    pthread_mutex_t* mutex;
};
const std::array<SlotRow, 7> kSlots = {{
    {"mdm", &mdm_fd, &mdm_mutex},
    {"usb", &usb_fd, &usb_mutex},
    {"mdm_atport", &mdm_atport_fd, &mdm_atport_mutex},
    {"usb_atport", &usb_atport_fd, &usb_atport_mutex},
    {"pcie", &usb_atport_fd_pcie, &usb_atport_mutex},
    {"mdm_uartport", &mdm_uartport_fd, &mdm_uartport_mutex},
    {"usb_uartport", &usb_uartport_fd, &usb_uartport_mutex},
}};

class QuietStdout {
  public:
    QuietStdout() { testing::internal::CaptureStdout(); }
    ~QuietStdout() { testing::internal::GetCapturedStdout(); }
    QuietStdout(const QuietStdout&) = delete;
    QuietStdout& operator=(const QuietStdout&) = delete;
};

struct Pipe {
    int read_end = -1;
    int write_end = -1;
    Pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) == 0) {
            read_end = ends[0];
            write_end = ends[1];
        }
    }
    ~Pipe() { close(write_end); }  // the read end belongs to the slot
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
};

// Until the thread was seen asleep five times, a millisecond apart: in its poll, and not for a
// moment in the log's lock or the C library's on the way there.
void wait_until_asleep(pid_t thread) {
    const std::string path = "/proc/self/task/" + std::to_string(thread) + "/stat";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (int looks = 0; looks < 5; std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "it does not wait";
        std::ifstream file(path);
        std::string text;
        std::getline(file, text);
        looks = text.at(text.rfind(')') + 2) == 'S' ? looks + 1 : 0;
    }
}

TEST(SharedDevice, PollWakesWhenAnotherThreadCloses) {
    const QuietStdout quiet;
    for (const SlotRow& row : kSlots) {
        const Pipe pipe;
        store_device({row.name, row.slot, row.mutex}, pipe.read_end);
        DevicePoll polled{};
        std::atomic<pid_t> thread = 0;
        std::thread reader([&] {
            thread = gettid();
            polled = poll_shared_device(row.slot, row.mutex, POLLIN);  // no time-out
        });
        while (thread == 0) std::this_thread::yield();
        wait_until_asleep(thread);
        close_fd_mutexed(row.name, row.slot, row.mutex);
        reader.join();
        EXPECT_TRUE(polled.closed) << row.name;
        EXPECT_EQ(polled.fd, pipe.read_end) << row.name << ": it was polled";
        EXPECT_EQ(*row.slot, -1) << row.name;
    }
}

TEST(SharedDevice, WakeUpOfAnEarlierDescriptorIsNotTakenForThisOne) {
    const QuietStdout quiet;
    for (const SlotRow& row : kSlots) {
        const DeviceEnd device = {row.name, row.slot, row.mutex};
        {
            const Pipe first;
            store_device(device, first.read_end);
            poll_shared_device(row.slot, row.mutex, POLLIN, 0);
            close_fd_mutexed(row.name, row.slot, row.mutex);
        }
        const Pipe second;
        store_device(device, second.read_end);
        const DevicePoll polled = poll_shared_device(row.slot, row.mutex, POLLIN, 0);
        EXPECT_FALSE(polled.closed) << row.name;
        EXPECT_EQ(polled.result, 0) << row.name;
        EXPECT_EQ(polled.fd, second.read_end) << row.name;
        close_fd_mutexed(row.name, row.slot, row.mutex);
    }
}

TEST(SharedDevice, PollOfAClosedSlotReturnsAtOnce) {
    const DevicePoll polled = poll_shared_device(&mdm_fd, &mdm_mutex, POLLIN);
    EXPECT_TRUE(polled.closed);
    EXPECT_EQ(polled.fd, -1);
}

TEST(SharedDevice, ReadRefusesANumberThatIsNotTheSlotsAnyMore) {
    const QuietStdout quiet;
    const Pipe pipe;
    ASSERT_EQ(write(pipe.write_end, "secret", 6), 6);
    const DeviceEnd device = {"mdm", &mdm_fd, &mdm_mutex};
    store_device(device, pipe.read_end);
    char buffer[kDeviceReadSize + 1] = {};
    EXPECT_EQ(read_device(device, pipe.read_end + 1, buffer), kDeviceGone);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(read_device(device, pipe.read_end, buffer), 6);
    EXPECT_STREQ(buffer, "secret");
    close_fd_mutexed("mdm", &mdm_fd, &mdm_mutex);
}

TEST(SharedDevice, HangUpIsRememberedForTheReader) {
    const QuietStdout quiet;
    int master = -1;
    int slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    close(master);
    store_device({"usb", &usb_fd, &usb_mutex}, slave);
    close_fd_mutexed("usb", &usb_fd, &usb_mutex);
    EXPECT_TRUE(take_hang_up(&usb_fd, &usb_mutex));
    EXPECT_FALSE(take_hang_up(&usb_fd, &usb_mutex)) << "it is told once";
}

TEST(SharedDevice, AHangUpIsTheOwnReadersAlone) {
    const QuietStdout quiet;
    for (const SlotRow& row : kSlots) {
        int master = -1;
        int slave = -1;
        ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        close(master);
        store_device({row.name, row.slot, row.mutex}, slave);
        close_fd_mutexed(row.name, row.slot, row.mutex);
        for (const SlotRow& other : kSlots) {
            if (other.slot != row.slot) {
                EXPECT_FALSE(take_hang_up(other.slot, other.mutex)) << row.name << other.name;
            }
        }
        EXPECT_TRUE(take_hang_up(row.slot, row.mutex)) << row.name;
    }
}

TEST(SharedDevice, CloseWithoutHangUpIsNotTakenForOne) {
    const QuietStdout quiet;
    const Pipe pipe;
    store_device({"usb", &usb_fd, &usb_mutex}, pipe.read_end);
    close_fd_mutexed("usb", &usb_fd, &usb_mutex);
    EXPECT_FALSE(take_hang_up(&usb_fd, &usb_mutex));
}

TEST(SharedDevice, NodesAreTheFixedOnes) {
    EXPECT_STREQ(usb_file_path, "/dev/at_usb0");
    EXPECT_STREQ(mhi_file_path, "/dev/mhi_pipe_32");
    EXPECT_STREQ(glink_file_path, "/dev/at_mdm0");
    EXPECT_STREQ(kUsbAtPortPath, "/dev/at_usb1");
    EXPECT_STREQ(kAtChannelPath, "/dev/smd7");
    EXPECT_STREQ(kUartChannelPath, "/dev/smd8");
    EXPECT_STREQ(kUartPath, "/dev/ttyMSM1");
}

TEST(SharedDevice, SlotsStartClosed) {
    for (const SlotRow& row : kSlots) EXPECT_EQ(*row.slot, -1) << row.name;
}

TEST(DeviceLocks, EachCallOnADeviceIsMadeUnderItsMutexAlone) {
    for (const SlotRow& row : kSlots) {
        const Pipe pipe;
        ASSERT_EQ(write(pipe.write_end, "x", 1), 1);
        const DeviceEnd device = {row.name, row.slot, row.mutex};
        {
            const RefusingMutex held(*row.mutex);
            EXPECT_EQ(held.tries_of([&] { store_device(device, pipe.read_end); }), 1) << row.name;
            EXPECT_EQ(*row.slot, pipe.read_end) << "it is done all the same";
            char buffer[kDeviceReadSize + 1] = {};
            EXPECT_EQ(held.tries_of([&] { read_device(device, pipe.read_end, buffer); }), 1);
            EXPECT_STREQ(buffer, "x");
            int lines = 0;
            EXPECT_EQ(held.tries_of([&] { get_control_lines(device, lines); }), 1) << row.name;
            EXPECT_EQ(held.tries_of([&] { set_control_lines(device, lines); }), 1) << row.name;
        }
        const QuietStdout quiet;
        close_fd_mutexed(row.name, row.slot, row.mutex);
    }
}

TEST(SharedDevice, OpenedDevicesCloseOnExecAndAreNoControllingTerminal) {
    const int fd = open_device("/dev/null");
    ASSERT_GE(fd, 0);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    close(fd);
    EXPECT_EQ(open_device("/dev/vexa_not_there"), -1);
}

}  // namespace
