// What the rooms do when the system refuses them a socket, a lock or an answer.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "mbim_udp_relay.h"
#include "mutex_guard.h"
#include "platform_link.h"
#include "port_records.h"
#include "recorded_sleeps.h"
#include "shared_int.h"
#include "system_calls.h"
#include "target.h"
#include "udp_server.h"
#include "vexa_mbim_service_v01.h"
#include "vexa_socket_client.h"
#include "vexa_socket_server.h"

namespace {

using testing::HasSubstr;

std::string log_of(const std::function<void()>& call) {
    testing::internal::CaptureStdout();
    call();
    return testing::internal::GetCapturedStdout();
}

class Refusals : public testing::Test {
  protected:
    SystemCalls system_;
};

// A mutex that knows its owner refuses instead of waiting for ever.
class OwnedMutex {
  public:
    OwnedMutex() {
        pthread_mutexattr_t kind;
        pthread_mutexattr_init(&kind);
        pthread_mutexattr_settype(&kind, PTHREAD_MUTEX_ERRORCHECK);
        pthread_mutex_init(&mutex, &kind);
        pthread_mutexattr_destroy(&kind);
    }
    ~OwnedMutex() { pthread_mutex_destroy(&mutex); }
    OwnedMutex(const OwnedMutex&) = delete;
    OwnedMutex& operator=(const OwnedMutex&) = delete;
    pthread_mutex_t mutex;
};

TEST_F(Refusals, AGuardThatCannotLockSaysSoAndLeavesTheLockAlone) {
    OwnedMutex owned;
    ASSERT_EQ(pthread_mutex_lock(&owned.mutex), 0);
    EXPECT_THAT(log_of([&] { const MutexGuard guard(&owned.mutex); }),
                testing::MatchesRegex(".*mutex lock failed \\[0x0x[0-9a-f]+\\] " +
                                      std::string(strerror(EDEADLK)) + "\r\n"));
    EXPECT_EQ(pthread_mutex_unlock(&owned.mutex), 0) << "it is still held from before";
}

#ifndef __SANITIZE_THREAD__  // which rightly reports what is done wrong here on purpose
TEST_F(Refusals, AGuardThatCannotUnlockSaysSo) {
    OwnedMutex owned;
    EXPECT_THAT(log_of([&] {
                    const MutexGuard guard(&owned.mutex);
                    pthread_mutex_unlock(&owned.mutex);
                }),
                testing::MatchesRegex(".*mutex unlock failed \\[0x0x[0-9a-f]+\\] " +
                                      std::string(strerror(EPERM)) + "\r\n"));
}
#endif

TEST_F(Refusals, WithoutASocketAPortHasNoPlatformConnection) {
    for (const PortRecord& port : g_ports) {
        close_platform_connection(port);  // of a test before this one in the process
        system_.answer(Call::socket, -1, EMFILE);
        EXPECT_THAT(log_of([&] { EXPECT_EQ(open_platform_connection(port), kNoSocket); }),
                    HasSubstr("client socket failed, info:Too many open files"));
        EXPECT_LT(load_shared(port.platform_socket), 0);
        close_platform_connection(port);  // nothing to close
        EXPECT_LT(load_shared(port.platform_socket), 0);
    }
}

TEST_F(Refusals, TheUdpServerGetsNoSocketOrNoPort) {
    system_.answer(Call::socket, -1, EMFILE);
    testing::internal::CaptureStderr();
    EXPECT_EQ(init_udp_at_server_socket(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "init_udp_at_server_socket error.: Too many open files\n");
    EXPECT_EQ(system_.count(Call::bind), 0);
    system_.answer(Call::bind, -1, EADDRINUSE);
    testing::internal::CaptureStderr();
    EXPECT_EQ(init_udp_at_server_socket(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "init_udp_at_server_socket bind error.: Address already in use\n");
}

TEST_F(Refusals, TheUdpServersSocketIsADatagramSocketAndIsLogged) {
    system_.answer(Call::bind, 0);  // the port may be in use here
    int sockfd = -1;
    const std::string log = log_of([&] { sockfd = init_udp_at_server_socket(); });
    ASSERT_GE(sockfd, 0);
    EXPECT_THAT(log, HasSubstr("init_udp_at_server_socket exit. fd:" + std::to_string(sockfd) +
                               ",0,0.\r\n"));
    int protocol = 0;
    socklen_t size = sizeof protocol;
    EXPECT_EQ(getsockopt(sockfd, SOL_SOCKET, SO_PROTOCOL, &protocol, &size), 0);
    EXPECT_EQ(protocol, 17);
    close(sockfd);
}

// Two sockets that cannot have the port, then one that has a datagram; the client's own socket
// cannot be made, which ends the server.
void serve_after_two_refusals(std::vector<unsigned>& pauses) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    const auto own_address = [&] { return reinterpret_cast<sockaddr*>(&address); };
    const int served = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int client = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(served, own_address(), size), 0);
    ASSERT_EQ(getsockname(served, own_address(), &size), 0);
    ASSERT_EQ(sendto(client, "AT\r", 3, 0, own_address(), size), 3);
    SystemCalls system;
    for (int i = 0; i < 2; ++i) {
        system.answer(Call::inet_socket, socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        system.answer(Call::bind, -1, EADDRINUSE);
    }
    system.answer(Call::inet_socket, served);
    system.answer(Call::bind, 0);
    system.answer(Call::inet_socket, -1, EMFILE);
    const RecordedSleeps sleeps;
    thread_info_t record = kModemAt;
    EXPECT_EQ(remote_udp_data_handler(&record), nullptr);
    pauses = sleeps.seconds;
    close(client);
    close(served);
}

TEST_F(Refusals, TheUdpServersPortIsTriedAgainEveryFiveSeconds) {
    std::vector<unsigned> pauses;
    const std::string log = log_of([&pauses] {
        std::thread server([&pauses] { serve_after_two_refusals(pauses); });
        server.join();
    });
    EXPECT_EQ(pauses, (std::vector<unsigned>{5, 5}));
    EXPECT_THAT(log, HasSubstr("init_udp_at_server_socket error sleep try again.....\r\n"));
    store_shared(g_loc_udp_at_server_socket, -1);
    store_shared(g_at_over_sokcet_enable, 0);
    g_udp_sock_client_addr_array[0] = {};
}

TEST_F(Refusals, TheRelayGetsNoSocketOrNoTimeOut) {
    system_.answer(Call::socket, -1, EMFILE);
    EXPECT_THAT(log_of([] { EXPECT_EQ(udp_socket_init(), -1); }),
                HasSubstr("init_udp_at_server_socket error.-1.0.0\r\n"));
    EXPECT_EQ(socket_fd, -1);
    system_.answer(Call::setsockopt, -1, ENOMEM);
    EXPECT_THAT(log_of([] { EXPECT_EQ(udp_socket_init(), -1); }),
                HasSubstr("set timeout failed error."));
    EXPECT_EQ(socket_fd, -1);
}

struct SendRow {
    int error;
    bool names_all;  // the three connections are named in the log
};

TEST_F(Refusals, AFailedSendIsLoggedAndAnAbsentPlatformNamesAllConnections) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    for (const SendRow& row : {SendRow{ENOENT, true}, SendRow{EPIPE, false}}) {
        system_.answer(Call::send, -1, row.error);
        char answer[8];
        int length = 0;
        vexa_ext_info ext_info{MSG_SYNC, CMD_AT_CMD, 3};
        const std::string log = log_of([&] {
            EXPECT_EQ(client_send_msg(ends[0], "AT\r", 3, 0, answer, &length, &ext_info), -1);
        });
        EXPECT_THAT(log, HasSubstr("send data failed,fd:"));
        const std::string all =
            "close all socket it and reconnect. m_fd:" +
            std::to_string(load_shared(g_loc_client_socket)) +
            ", at_fd:" + std::to_string(load_shared(g_loc_client_socket_atport)) +
            ", uart_fd:" + std::to_string(load_shared(g_loc_client_socket_uartport)) + ".\r\n";
        EXPECT_EQ(log.find(all) != log.npos, row.names_all);
    }
    close(ends[0]);
    close(ends[1]);
}

TEST_F(Refusals, AReceiveWithTimeOutChecksItsDescriptorAndItsLength) {
    char area[4];
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    ASSERT_EQ(write(ends[1], "text", 4), 4);
    EXPECT_EQ(recv_with_timeout(ends[0], area, -1, 0, 0), kTimedOut);
    // A number that a set of descriptors does not hold.
    const int beyond = fcntl(ends[0], F_DUPFD_CLOEXEC, FD_SETSIZE);
    if (beyond >= 0) {
        EXPECT_EQ(recv_with_timeout(beyond, area, 4, 0, 0), kTimedOut);
        close(beyond);
    }
    EXPECT_EQ(recv_with_timeout(ends[0], area, 4, 0, 0), 4) << "nothing was taken before";
    close(ends[0]);
    close(ends[1]);
}

TEST(RefusalsDeathTest, ATargetThatNeedsSmdOnAKernelThatCannotBeAskedEndsTheProcess) {
    EXPECT_EXIT(
        {
            SystemCalls system;
            system.answer(Call::uname, -1, EFAULT);
            setenv("VEXA_DS_TARGET", "26", 1);
            dup2(STDERR_FILENO, STDOUT_FILENO);
            pb_targetinfo found{};
            pb_resolve_target(found);
        },
        testing::ExitedWithCode(1),
        "Unsupported target: DS_TARGET_JACALA - Check for char_bridge on this target!\r\n"
        ".*Failed to resolve target info. Dying...");
}

}  // namespace
