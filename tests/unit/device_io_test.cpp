// Writing to devices, closing them, and the signal text.
#include "device_io.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "descriptors.h"
#include "mutex_guard.h"
#include "recorded_sleeps.h"
#include "shared_int.h"
#include "system_calls.h"
#include "udp_server.h"
#include "vexa_common_def.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

struct SignalRow {
    int bits;
    const char* text;
};

TEST(SignalText, NamesTheFourLinesAndLeavesTheRest) {
    const SignalRow rows[] = {
        {0x47, "0x1 | DTR | CD | RTS"},
        {0x00, "0x0"},
        {0x02, "0x0 | DTR"},
        {0x04, "0x0 | RTS"},
        {0x40, "0x0 | CD"},
        {0x80, "0x0 | RI"},
        {0xC6, "0x0 | DTR | CD | RI | RTS"},  // RTS last, although its bit is lower
        {0x129, "0x129"},                     // no named bit
        {0x1FF, "0x139 | DTR | CD | RI | RTS"},
    };
    for (const SignalRow& row : rows) {
        char text[64];
        construct_signal_string(text, sizeof(text), row.bits);
        EXPECT_STREQ(text, row.text);
    }
}

TEST(SignalText, IsCutToItsArea) {
    char text[8] = "zzzzzzz";
    construct_signal_string(text, 6, 0x02);
    EXPECT_STREQ(text, "0x0 |");
    EXPECT_EQ(text[6], 'z');
}

class WriteToDevice : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(pipe2(ends_, O_CLOEXEC | O_NONBLOCK), 0);
        testing::internal::CaptureStdout();
    }
    void TearDown() override {
        if (!output_taken_)
            output();
        close(ends_[0]);
        if (ends_[1] >= 0)
            close(ends_[1]);
    }

    std::string output() {
        output_taken_ = true;
        return testing::internal::GetCapturedStdout();
    }
    // Fills the pipe, so that the next write is refused with EAGAIN.
    void fill() const {
        const std::vector<char> block(4096, 'x');
        while (write(ends_[1], block.data(), block.size()) > 0) {
        }
    }
    std::string drain() const {
        std::string all;
        char buffer[4096];
        ssize_t count = 0;
        while ((count = read(ends_[0], buffer, sizeof(buffer))) > 0)
            all.append(buffer, static_cast<std::size_t>(count));
        return all;
    }

    int ends_[2] = {-1, -1};
    bool output_taken_ = false;
};

TEST_F(WriteToDevice, WritesTheWholeBuffer) {
    EXPECT_EQ(write_to_device(ends_[1], "/dev/smd7", 9, "AT+CGMR\r\n"), 0);
    EXPECT_EQ(drain(), "AT+CGMR\r\n");
    const std::string said = output();
    const std::string fd = std::to_string(ends_[1]);
    EXPECT_THAT(said, HasSubstr("====>>>write_to_device in, g_loc_udp_at_server_send_socket:-1, "
                                "to_filename:/dev/smd7, to_fd:" +
                                fd + ".\r\n"));
    EXPECT_THAT(said, HasSubstr("====>>>write_to_device in, g_loc_udp_at_server_socket:-1, "
                                "g_at_over_sokcet_enable:0, :9.\r\n"));
    EXPECT_THAT(said, HasSubstr("====>>>bytes_remaining :9,0,0. \r\n"));
    EXPECT_THAT(said,
                HasSubstr("====>>>num_written :9, to_fd:" + fd + ", bytes_remaining:9. \r\n"));
    EXPECT_THAT(said, HasSubstr("write to '/dev/smd7' returned 9, bytes_remaining: 0.\n"));
    EXPECT_THAT(said, HasSubstr("<<<====write_to_device out.num_written:9,ret:0,0.\r\n"));
}

TEST_F(WriteToDevice, NoBytesAreASuccessWithoutAWrite) {
    EXPECT_EQ(write_to_device(ends_[1], "/dev/smd7", 0, "x"), 0);
    EXPECT_EQ(drain(), "");
    EXPECT_THAT(output(), testing::Not(HasSubstr("num_written :")));
}

TEST_F(WriteToDevice, ClosedDescriptorFailsAtOnce) {
    EXPECT_EQ(write_to_device(-1, "/dev/smd7", 2, "AT"), -1);
    EXPECT_THAT(output(), HasSubstr("====>>>to_fd=in. to_fd:-1,0,0. \r\n"));
}

TEST_F(WriteToDevice, OtherErrorsFailWithoutARetry) {
    RecordedSleeps sleeps([] {});
    EXPECT_EQ(write_to_device(ends_[0], "/dev/smd7", 2, "AT"), -1) << "a read end refuses writes";
    EXPECT_TRUE(sleeps.seconds.empty());
    EXPECT_THAT(output(), HasSubstr("Failed to write to '/dev/smd7' due to err [Bad file "
                                    "descriptor]\n"));
}

std::string diag_text() {
    std::ifstream file(getenv("VEXA_DIAG_LOG"));
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST_F(WriteToDevice, DiagnosticSinkKeepsOnlyThePlainLines) {
    const std::size_t before = diag_text().size();
    store_shared(g_qxdm_log, 1);
    EXPECT_EQ(write_to_device(ends_[1], "/dev/smd7", 2, "AT"), 0);
    store_shared(g_qxdm_log, 0);
    const std::string told = diag_text().substr(before);
    EXPECT_THAT(told, HasSubstr("write to '/dev/smd7' returned 2, bytes_remaining: 0."));
    EXPECT_THAT(told, testing::Not(HasSubstr("bytes_remaining :"))) << "standard output's alone";
    EXPECT_EQ(output(), "====>>>num_written :2, to_fd:" + std::to_string(ends_[1]) +
                            ", bytes_remaining:2. \r\n");
}

TEST_F(WriteToDevice, SixRefusalsInARowAreAFailureAfterFivePauses) {
    fill();
    RecordedSleeps sleeps([] {});
    EXPECT_EQ(write_to_device(ends_[1], "/dev/smd7", 2, "AT"), -1);
    EXPECT_THAT(sleeps.seconds, ElementsAre(1, 2, 3, 4, 5));
    const std::string said = output();
    const std::string fd = std::to_string(ends_[1]);
    EXPECT_THAT(said, HasSubstr("retrying now... Failed to write to '/dev/smd7'[" + fd +
                                "] due to err [Resource temporarily unavailable] or num_written "
                                "[-1], retry_count:4.\n"));
    EXPECT_THAT(said, HasSubstr("\nFailed to write to '/dev/smd7' due to err [Resource temporarily "
                                "unavailable]\n"));
    EXPECT_THAT(said, HasSubstr("<<<====write_to_device out.num_written:-1,ret:-1,0.\r\n"));
}

TEST_F(WriteToDevice, FiveRefusalsThenSuccessLoseNothing) {
    fill();
    int pauses = 0;
    RecordedSleeps sleeps([&] {
        if (++pauses == 5)
            drain();
    });
    EXPECT_EQ(write_to_device(ends_[1], "/dev/smd7", 2, "AT"), 0);
    EXPECT_THAT(sleeps.seconds, ElementsAre(1, 2, 3, 4, 5));
    EXPECT_EQ(drain(), "AT");
}

TEST_F(WriteToDevice, AWriteOfNothingCountsByItsErrno) {
    errno = EAGAIN;  // somebody else's, from before
    std::vector<int> errors = {EAGAIN, 0};
    RecordedSleeps sleeps([] {});
    TakenCalls taken;
    taken.write = [&errors](int, const void*, std::size_t) {
        if (errors.empty())
            return ssize_t{-1};  // asked too often
        if (errors.front() != 0)
            errno = errors.front();
        errors.erase(errors.begin());
        return ssize_t{0};
    };
    EXPECT_EQ(write_to_device(ends_[1], "/dev/smd7", 2, "AT"), -1);
    taken.write = nullptr;
    EXPECT_TRUE(errors.empty());
    EXPECT_THAT(sleeps.seconds, ElementsAre(1)) << "tried again once, after EAGAIN";
    EXPECT_THAT(output(), HasSubstr("or num_written [0], retry_count:0.\n"));
}

TEST_F(WriteToDevice, EveryWrittenByteStartsTheRetriesAnew) {
    // Room for a part at a time: the long text needs several rounds of refusals.
    const std::string text(200000, 'y');
    std::string received;
    RecordedSleeps sleeps([&] { received += drain(); });
    EXPECT_EQ(write_to_device(ends_[1], "/dev/smd7", static_cast<int>(text.size()), text.c_str()),
              0);
    received += drain();
    EXPECT_EQ(received, text);
    EXPECT_GE(sleeps.seconds.size(), 2u);
    for (const unsigned seconds : sleeps.seconds) EXPECT_EQ(seconds, 1u);
}

// A UDP client that is being served: answers for the USB AT port go to it.
class UdpDiversion : public WriteToDevice {
  protected:
    void SetUp() override {
        WriteToDevice::SetUp();
        client_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(bind(client_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        socklen_t size = sizeof(address);
        ASSERT_EQ(getsockname(client_, reinterpret_cast<sockaddr*>(&address), &size), 0);
        g_udp_sock_to_client_addr = address;
        sender_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        store_shared(g_loc_udp_at_server_send_socket, sender_);
        store_shared(g_at_over_sokcet_enable, 1);
    }
    void TearDown() override {
        store_shared(g_at_over_sokcet_enable, 0);
        store_shared(g_loc_udp_at_server_send_socket, -1);
        close(sender_);
        close(client_);
        WriteToDevice::TearDown();
    }

    int client_ = -1;
    int sender_ = -1;
};

TEST_F(UdpDiversion, TakesAtPortBytesAndReturnsTheResultOfTheSend) {
    EXPECT_EQ(write_to_device(ends_[1], "/dev/at_usb1", 4, "OK\r\n"), 4);
    EXPECT_EQ(drain(), "");
    char received[16] = {};
    ASSERT_EQ(recv(client_, received, sizeof(received) - 1, 0), 4);
    EXPECT_STREQ(received, "OK\r\n");
}

// Nobody can be sent anything at port 0. The answer is lost: it is not the device's.
TEST_F(UdpDiversion, AFailedSendIsTheWritersFailureAndNothingForTheDevice) {
    g_udp_sock_to_client_addr.sin_port = 0;
    EXPECT_EQ(write_to_device(ends_[1], "/dev/at_usb1", 4, "OK\r\n"), -1);
    EXPECT_EQ(drain(), "");
}

TEST_F(UdpDiversion, ComesBeforeTheTestOfTheDescriptor) {
    EXPECT_EQ(write_to_device(-1, "/dev/at_usb1", 2, "OK"), 2);
}

TEST_F(UdpDiversion, NameIsASubstring) {
    EXPECT_EQ(write_to_device(-1, "/alt/dev/at_usb1_copy", 2, "OK"), 2);
}

TEST_F(UdpDiversion, LeavesEverythingElseToTheDevice) {
    EXPECT_EQ(write_to_device(ends_[1], "/dev/at_usb0", 1, "0"), 0) << "another port";
    store_shared(g_at_over_sokcet_enable, 0);
    EXPECT_EQ(write_to_device(ends_[1], "/dev/at_usb1", 1, "1"), 0) << "not switched";
    store_shared(g_at_over_sokcet_enable, 2);
    EXPECT_EQ(write_to_device(ends_[1], "/dev/at_usb1", 1, "2"), 0) << "exactly 1 switches";
    store_shared(g_at_over_sokcet_enable, 1);
    store_shared(g_loc_udp_at_server_send_socket, -1);
    EXPECT_EQ(write_to_device(ends_[1], "/dev/at_usb1", 1, "3"), 0) << "no socket to send on";
    EXPECT_EQ(drain(), "0123");
}

TEST(CloseFdMutexed, ClosesStoresMinusOneAndSaysSo) {
    mdm_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    ASSERT_GE(mdm_fd, 0);
    const int fd = mdm_fd;
    testing::internal::CaptureStdout();
    close_fd_mutexed("/dev/at_mdm0", &mdm_fd, &mdm_mutex);
    const std::string said = testing::internal::GetCapturedStdout();
    EXPECT_EQ(mdm_fd, -1);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_THAT(said, HasSubstr("close_fd_mutexed file_path enter:/dev/at_mdm0, fd:" +
                                std::to_string(fd) + ".0\r\n"));
    EXPECT_THAT(said, HasSubstr("\nclose_fd_Mutexed file_path close:/dev/at_mdm0, fd:-1.\r\n"));
    EXPECT_THAT(said, HasSubstr("close_fd_mutexed file_path close:/dev/at_mdm0, fd:-1.0.\r\n"));
    EXPECT_EQ(pthread_mutex_trylock(&mdm_mutex), 0) << "the mutex is free again";
    pthread_mutex_unlock(&mdm_mutex);
}

// A mutex whose second lock by the same thread fails instead of waiting.
void make_checking(pthread_mutex_t& mutex) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

TEST(CloseFdMutexedDeathTest, FailingLockEndsTheProcessWithStatus1) {
    pthread_mutex_t mutex;
    make_checking(mutex);
    int fd = -1;
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            pthread_mutex_lock(&mutex);
            close_fd_mutexed("/dev/smd7", &fd, &mutex);
        },
        testing::ExitedWithCode(1),
        "pthread_mutex_lock for '/dev/smd7' returned [0-9]+.  Exiting!.0.");
    pthread_mutex_destroy(&mutex);
}

TEST(CloseFdMutexedDeathTest, FailingUnlockEndsTheProcessWithStatus1) {
    int fd = -1;
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            TakenCalls taken;
            taken.pthread_mutex_unlock = [](pthread_mutex_t* mutex) {
                return mutex == &mdm_mutex ? EPERM : 0;
            };
            close_fd_mutexed("/dev/smd7", &fd, &mdm_mutex);
        },
        testing::ExitedWithCode(1),
        "close_fd_Mutexed file_path close:/dev/smd7, fd:-1.*"
        "pthread_mutex_unlock for '/dev/smd7' returned 1.  Exiting!0.");
}

TEST(OsMutex, FailingLockIsOnlyReported) {
    pthread_mutex_t mutex;
    make_checking(mutex);
    EXPECT_EQ(vexa_os_mutex_lock(&mutex), 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(vexa_os_mutex_lock(&mutex), 0);
    EXPECT_THAT(
        testing::internal::GetCapturedStdout(),
        HasSubstr("Error while trying to lock mutex: " + std::to_string(EDEADLK) + ",0,0\r\n"));
    pthread_mutex_unlock(&mutex);
    pthread_mutex_destroy(&mutex);
    EXPECT_EQ(vexa_os_mutex_init(&mutex), 0);
    EXPECT_EQ(vexa_os_mutex_lock(&mutex), 1);
    pthread_mutex_unlock(&mutex);
    pthread_mutex_destroy(&mutex);
}

}  // namespace
