// Commands on their way to the platform and its answers on their way to the host ports, over
// socket pairs in place of the three connections.
#include "platform_link.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "line_settings.h"
#include "mhi_monitor.h"
#include "mux_session.h"
#include "platform_pack.h"
#include "platform_receiver.h"
#include "shared_int.h"
#include "system_calls.h"
#include "vexa_socket_client.h"

namespace {

using namespace std::literals;
using testing::HasSubstr;
using Clock = std::chrono::steady_clock;

constexpr auto kDeadline = 60s;

std::string pack_of(std::string_view payload, cmd_enum_type cmd_type = CMD_AT_CMD) {
    std::string area(payload.size() + kPackHeadsSize, '\0');
    build_pack(area, cmd_type, payload);
    return area;
}

// Reads until `size` bytes came; what came by the deadline otherwise.
std::string read_bytes(int fd, std::size_t size) {
    std::string bytes;
    const auto deadline = Clock::now() + kDeadline;
    while (bytes.size() < size && Clock::now() < deadline) {
        pollfd entry{fd, POLLIN, 0};
        if (poll(&entry, 1, 1000) < 1)
            continue;
        char chunk[4096];
        const ssize_t count = read(fd, chunk, std::min(sizeof chunk, size - bytes.size()));
        if (count <= 0)
            break;
        bytes.append(chunk, static_cast<std::size_t>(count));
    }
    return bytes;
}

std::array<int, 2> make_pair() {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    return ends;
}

int send_command(const PortRecord& port, std::string_view command, int mode = USB_PORT_ATCMD_MODE) {
    char answer[kAnswerAreaSize] = {};
    int answer_length = 0;
    return send_data_to_app_platform(&port, -1, command.data(), static_cast<int>(command.size()), 0,
                                     answer, &answer_length, mode);
}

// A connection of a port to a platform in the test's hands, for the length of a test.
class Connection {
  public:
    explicit Connection(const PortRecord& port) : port_(port), ends_(make_pair()) {
        store_shared(port.platform_socket, ends_[0]);
    }
    ~Connection() {
        if (load_shared(port_.platform_socket) == ends_[0]) {
            store_shared(port_.platform_socket, -1);
            close(ends_[0]);
        }
        close(ends_[1]);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    int daemon() const { return ends_[0]; }
    int platform() const { return ends_[1]; }

  private:
    const PortRecord& port_;
    std::array<int, 2> ends_;
};

TEST(SendDataToAppPlatform, GoesOutOnThePortsConnection) {
    for (const PortRecord& port : g_ports) {
        const Connection connection(port);
        testing::internal::CaptureStdout();
        EXPECT_EQ(send_command(port, "AT+CGMR\r\n"), 53);
        EXPECT_THAT(testing::internal::GetCapturedStdout(),
                    HasSubstr("client_send_sync_msg sucess:53,9,0.\r\n"));
        EXPECT_EQ(read_bytes(connection.platform(), 53), pack_of("AT+CGMR\r\n"));
    }
}

TEST(SendDataToAppPlatform, FindsThePortByItsSocket) {
    const Connection connection(g_ports[kAtPort]);
    char answer[8];
    int length = 9;
    EXPECT_EQ(send_data_to_app_platform(connection.daemon(), "AT\r", 3, 0, answer, &length, 0), 47);
    EXPECT_STREQ(g_ports[kAtPort].echo_text.text(), "AT\r");
}

TEST(SendDataToAppPlatform, KeepsTheCommandForItsEchoPerPort) {
    const struct {
        std::string_view command;
        const char* kept;
    } rows[] = {
        {"AT+CSQ\r\n", "AT+CSQ\r"},  // all but the final LF
        {"AT+CSQ\r", "AT+CSQ\r"},   {"AT+CSQ\n", "AT+CSQ\n"}, {"\r\n", "\r"}, {"A", "A"},
    };
    g_ports[kModemPort].echo_text.assign("other");
    const Connection connection(g_ports[kAtPort]);
    for (const auto& row : rows) {
        send_command(g_ports[kAtPort], row.command);
        EXPECT_STREQ(g_ports[kAtPort].echo_text.text(), row.kept);
    }
    EXPECT_STREQ(g_ports[kModemPort].echo_text.text(), "other");
}

TEST(SendDataToAppPlatform, BadArgumentsAreRefused) {
    const PortRecord& port = g_ports[kAtPort];
    const Connection connection(port);
    char answer[8];
    int length = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(send_data_to_app_platform(&port, -1, "AT", 0, 0, answer, &length, 0), -1);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("send_data_to_plat_modem input error.\r\n"));
    EXPECT_EQ(send_data_to_app_platform(&port, -1, nullptr, 2, 0, answer, &length, 0), -1);
    EXPECT_EQ(send_data_to_app_platform(&port, -1, "AT", 2, 0, nullptr, &length, 0), -1);
    EXPECT_EQ(send_data_to_app_platform(&port, -1, "AT", 2, 0, answer, nullptr, 0), -1);
}

TEST(SendDataToAppPlatform, ACommandNotWorthWaitingForIsCps) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(send_command(g_ports[kModemPort], "AT+CSQ\r"), -6);
    EXPECT_EQ(send_command(g_ports[kModemPort], std::string(3000, 'x')), -6);
    testing::internal::GetCapturedStdout();
}

TEST(SendDataToAppPlatform, ADeadConnectionIsAFailedSendAndNoSignal) {
    const PortRecord& port = g_ports[kModemPort];
    const Connection connection(port);
    shutdown(connection.platform(), SHUT_RDWR);
    testing::internal::CaptureStdout();
    EXPECT_EQ(send_command(port, "AT+CSQ\r"), kSendToCp);
    testing::internal::GetCapturedStdout();
}

TEST(SendDataToAppPlatform, ARetryUsesThePortsCurrentConnection) {
    const PortRecord& port = g_ports[kUartPort];
    int result = 0;
    testing::internal::CaptureStdout();
    std::thread sender([&] { result = send_command(port, "AT+GTDNS=1\r"); });
    const Connection connection(port);
    EXPECT_EQ(read_bytes(connection.platform(), 55), pack_of("AT+GTDNS=1\r"));
    sender.join();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, 55);
}

TEST(SendDataToAppPlatform, RetriesFiftyTimesAndThenReportsTheLastFailure) {
    std::vector<useconds_t> pauses;
    TakenCalls taken;
    taken.usleep = [&pauses](useconds_t microseconds) {
        pauses.push_back(microseconds);
        return 0;
    };
    testing::internal::CaptureStdout();
    const int result = send_command(g_ports[kUartPort], "at+gtdns=1\r\n");
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(pauses, std::vector<useconds_t>(50, 100'000));
    EXPECT_THAT(log, HasSubstr("Couldn't wait plat init."));
    std::size_t attempts = 0;
    for (auto at = log.find("client_send_sync_msg input error."); at != std::string::npos;
         at = log.find("client_send_sync_msg input error.", at + 1))
        ++attempts;
    EXPECT_EQ(attempts, 51u);
}

TEST(ClosePlatformConnection, FreesASenderThatIsStuck) {
    const PortRecord& port = g_ports[kModemPort];
    const Connection connection(port);
    const std::string large(kSentPayloadMax, 'x');
    // The platform does not read: sooner or later a send waits for ever.
    std::thread sender([&] {
        while (send_command(port, large, USB_PORT_DATA_MODE) > 0) {
        }
    });
    int queued = 0;
    for (const auto deadline = Clock::now() + kDeadline; queued == 0 && Clock::now() < deadline;)
        ioctl(connection.platform(), FIONREAD, &queued);
    EXPECT_GT(queued, 0);
    close_platform_connection(port);
    sender.join();
    EXPECT_EQ(load_shared(port.platform_socket), -1);
}

TEST(OpenPlatformConnection, KeepsAnOpenOne) {
    const PortRecord& port = g_ports[kAtPort];
    const Connection connection(port);
    testing::internal::CaptureStdout();
    EXPECT_EQ(open_platform_connection(port), 0);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("g_loc_client_socket > 0, no need create"));
    EXPECT_EQ(load_shared(port.platform_socket), connection.daemon());
}

TEST(OpenPlatformConnection, WithoutAPlatformLeavesASocketThatHangsUp) {
    for (const auto& [open, port] :
         {std::pair(&init_socket_client, &g_ports[kModemPort]),
          std::pair(&init_socket_client_atport, &g_ports[kAtPort]),
          std::pair(&init_socket_client_uartport, &g_ports[kUartPort])}) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(open(), kConnectFailed);
        EXPECT_THAT(testing::internal::GetCapturedStdout(),
                    HasSubstr("client conenct failed, info:"));
        pollfd entry{load_shared(port->platform_socket), POLLIN, 0};
        ASSERT_GE(entry.fd, 0);
        EXPECT_NE(fcntl(entry.fd, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_EQ(fcntl(entry.fd, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_EQ(poll(&entry, 1, 0), 1);
        EXPECT_NE(entry.revents & POLLHUP, 0);
        close_platform_connection(*port);
    }
}

TEST(OpenPlatformConnection, TakesNumberZeroForNoConnection) {
    const PortRecord& port = g_ports[kAtPort];
    store_shared(port.platform_socket, 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(open_platform_connection(port), kConnectFailed);
    testing::internal::GetCapturedStdout();
    EXPECT_GT(load_shared(port.platform_socket), 0);
    close_platform_connection(port);
}

TEST(OpenPlatformConnection, GivesTheAddressThatEndsWithThePathsNul) {
    const SystemCalls system;
    testing::internal::CaptureStdout();
    EXPECT_EQ(open_platform_connection(g_ports[kAtPort]), kConnectFailed);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(system.connect_length(), 36U);
    close_platform_connection(g_ports[kAtPort]);
}

// The receiver never returns, so one serves all tests of a run.
class Receiver : public testing::Test {
  protected:
    struct End {
        std::array<int, 2> connection;
        std::array<int, 2> host;
        pthread_mutex_t host_mutex = PTHREAD_MUTEX_INITIALIZER;
    };

    static void SetUpTestSuite() {
        static std::array<thread_info_t, kPortCount> bridges{};
        for (const PortRecord& port : g_ports) {
            End& end = ends_[port.index];
            end.connection = make_pair();
            end.host = make_pair();
            store_shared(port.platform_socket, end.connection[0]);
            thread_info_t& bridge = bridges[port.index];
            bridge.to_file_path = port.host_path;
            bridge.to_fd = &end.host[0];
            bridge.to_mutex = &end.host_mutex;
        }
        pipe_ = make_pair();
        bridges[kAtPort].to_file_path_pcie = "/dev/mhi_pipe_32";
        bridges[kAtPort].to_fd_pcie = pipe_.data();
        std::thread(recv_data_handler, bridges.data()).detach();
    }

    void SetUp() override {
        store_shared(g_client_ate_status, kEchoOff);
        store_shared(g_is_single_char_input, 0);
        store_shared(g_uart_port_status, 0);
        store_shared(g_mux_atcmd_dlc, 0);
        for (const PortRecord& port : g_ports) {
            port.echo_text.clear();
            store_shared(port.mode, USB_PORT_ATCMD_MODE);
            store_shared(port.send_done, 0);
        }
    }

    static void platform_sends(PortIndex port, std::string_view bytes) {
        ASSERT_EQ(send(ends_[port].connection[1], bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

    static void platform_answers(PortIndex port, std::string_view text,
                                 cmd_enum_type cmd_type = CMD_IND) {
        platform_sends(port, pack_of(text, cmd_type));
    }

    static std::string host_reads(PortIndex port, std::size_t size) {
        return read_bytes(ends_[port].host[1], size);
    }

    // Sends an answer and checks what the host gets for it, nothing before it included.
    static void expect_answer(PortIndex port, std::string_view answer, const std::string& expected,
                              cmd_enum_type cmd_type = CMD_IND) {
        platform_answers(port, answer, cmd_type);
        EXPECT_EQ(host_reads(port, expected.size()), expected);
    }

    // The receiver has these bytes before the next ones come, or both would be one read: its queue
    // is empty, and it has gone on to another port.
    static void platform_sends_alone(PortIndex port, std::string_view bytes) {
        platform_sends(port, bytes);
        int queued = 1;
        for (const auto limit = Clock::now() + kDeadline; queued > 0 && Clock::now() < limit;)
            ioctl(ends_[port].connection[0], FIONREAD, &queued);
        expect_answer(port == kModemPort ? kAtPort : kModemPort, "next port", "next port");
    }

    static std::array<End, kPortCount> ends_;
    static std::array<int, 2> pipe_;
};

std::array<Receiver::End, kPortCount> Receiver::ends_;
std::array<int, 2> Receiver::pipe_;

TEST_F(Receiver, WritesEachAnswerToThePortOfItsConnection) {
    for (const PortRecord& port : g_ports) expect_answer(port.index, port.log_name, port.log_name);
}

TEST_F(Receiver, JoinsThePacksOfOneRead) {
    platform_sends(kAtPort, pack_of("\r\n+CSQ: 20,99\r\n") + pack_of("\r\nOK\r\n"));
    EXPECT_EQ(host_reads(kAtPort, 21), "\r\n+CSQ: 20,99\r\n\r\nOK\r\n");
}

TEST_F(Receiver, WritesByTheCountOfThePacks) {
    expect_answer(kAtPort, "A\0B"sv, "A\0\0"s);
    expect_answer(kAtPort, "next", "next");
}

TEST_F(Receiver, PutsTheKeptCommandInFrontWhileEchoIsOn) {
    store_shared(g_client_ate_status, kEchoOn);
    for (const PortRecord& port : g_ports) {
        port.echo_text.assign("AT"s + port.log_name + "\r");
        expect_answer(port.index, "\r\nOK\r\n", "AT"s + port.log_name + "\r\r\nOK\r\n");
        expect_answer(port.index, "\r\n+IND\r\n", "AT"s + port.log_name + "\r\r\n+IND\r\n");
    }
}

TEST_F(Receiver, EchoCountsTheTextAlone) {
    store_shared(g_client_ate_status, kEchoOn);
    g_ports[kAtPort].echo_text.assign("AT\r");
    expect_answer(kAtPort, "A\0B"sv, "AT\rA");
    expect_answer(kAtPort, "next", "AT\rnext");
}

TEST_F(Receiver, EchoAndAnswerAreBoundedByTheWorkArea) {
    store_shared(g_client_ate_status, kEchoOn);
    const std::string echo(kDeviceReadSize - 4, 'e');
    g_ports[kAtPort].echo_text.assign(echo);
    expect_answer(kAtPort, "123456", echo + "1234");
    g_ports[kAtPort].echo_text.clear();
    expect_answer(kAtPort, "next", "next");
}

TEST_F(Receiver, NoEchoWhenItIsOffOrTheHostTypesSingleCharacters) {
    g_ports[kAtPort].echo_text.assign("AT\r");
    expect_answer(kAtPort, "off", "off");
    store_shared(g_client_ate_status, kEchoOn);
    store_shared(g_is_single_char_input, 1);
    expect_answer(kAtPort, "single", "single");
}

TEST_F(Receiver, ModesMoveBetweenCommandAndDataOnly) {
    const struct {
        int before;
        cmd_enum_type cmd_type;
        int after;
    } rows[] = {
        {USB_PORT_ATCMD_MODE, CMD_AT_DATA, USB_PORT_DATA_MODE},
        {USB_PORT_DATA_MODE, CMD_AT_DATA, USB_PORT_DATA_MODE},
        {USB_PORT_DATA_MODE, CMD_AT_CMD, USB_PORT_ATCMD_MODE},
        {USB_PORT_ATCMD_MODE, CMD_AT_CMD, USB_PORT_ATCMD_MODE},
        {USB_PORT_DATA_MODE, CMD_IND, USB_PORT_DATA_MODE},
        {USB_PORT_DATA_MODE, CMD_AT_ONLINE_CMD, USB_PORT_DATA_MODE},
        {USB_PORT_HEX_MODE, CMD_AT_CMD, USB_PORT_HEX_MODE},
        {USB_PORT_SMS_MODE, CMD_AT_CMD, USB_PORT_SMS_MODE},
        {USB_PORT_SMS_MODE, CMD_AT_DATA, USB_PORT_SMS_MODE},
        {USB_PORT_PPP_MODE, CMD_AT_CMD, USB_PORT_PPP_MODE},
        {USB_PORT_PPP_MODE, CMD_AT_DATA, USB_PORT_PPP_MODE},
        {USB_PORT_CMUX_MODE, CMD_AT_DATA, USB_PORT_CMUX_MODE},
    };
    for (const PortRecord& port : g_ports) {
        for (const auto& row : rows) {
            store_shared(port.mode, row.before);
            expect_answer(port.index, "x", "x", row.cmd_type);
            EXPECT_EQ(load_shared(port.mode), row.after) << row.before << ' ' << row.cmd_type;
        }
    }
}

// The host may type data as soon as it has read the answer.
TEST_F(Receiver, DataModeBeginsBeforeTheAnswerThatAsksForItIsWritten) {
    for (const PortRecord& port : g_ports) {
        End& end = ends_[port.index];
        pthread_mutex_lock(&end.host_mutex);
        platform_answers(port.index, "CONNECT", CMD_AT_DATA);
        for (const auto limit = Clock::now() + kDeadline;
             load_shared(port.mode) != USB_PORT_DATA_MODE && Clock::now() < limit;)
            std::this_thread::yield();
        EXPECT_EQ(load_shared(port.mode), USB_PORT_DATA_MODE) << port.log_name;
        pollfd entry{end.host[1], POLLIN, 0};
        EXPECT_EQ(poll(&entry, 1, 0), 0) << port.log_name;
        pthread_mutex_unlock(&end.host_mutex);
        EXPECT_EQ(host_reads(port.index, 7), "CONNECT");
    }
}

TEST_F(Receiver, TheLastPackOfAReadDecidesTheMode) {
    platform_sends(kAtPort, pack_of("a", CMD_AT_DATA) + pack_of("b", CMD_IND));
    EXPECT_EQ(host_reads(kAtPort, 2), "ab");
    EXPECT_EQ(load_shared(g_usb_at_port_mode), USB_PORT_ATCMD_MODE);
}

TEST_F(Receiver, TheMultiplexerKeepsTheUartsModeAndGetsFrames) {
    store_shared(g_uart_port_status, 1);
    store_shared(g_mux_atcmd_dlc, 0x0B);
    store_shared(g_usb_uart_port_mode, USB_PORT_ATCMD_MODE);
    platform_answers(kUartPort, "OK", CMD_AT_DATA);
    const std::string frame = host_reads(kUartPort, 8);
    EXPECT_EQ(frame.substr(0, 6), "\xf9\x09\xef\x05OK") << "27.010 5.2: UIH on the stored address";
    EXPECT_EQ(frame.back(), '\xf9');
    EXPECT_EQ(load_shared(g_usb_uart_port_mode), USB_PORT_ATCMD_MODE);
    store_shared(g_usb_at_port_mode, USB_PORT_ATCMD_MODE);
    expect_answer(kAtPort, "plain", "plain", CMD_AT_DATA);
    EXPECT_EQ(load_shared(g_usb_at_port_mode), USB_PORT_DATA_MODE) << "the UART's alone";
}

TEST_F(Receiver, AnAtAnswerTakesTheLivePcieAlone) {
    store_shared(g_vexa_pcie_enabled, VEXA_LINUX_TRISTATE_TRUE);
    store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_CONNECTED_FULL);
    platform_answers(kAtPort, "piped");
    EXPECT_EQ(read_bytes(pipe_[1], 5), "piped");
    expect_answer(kModemPort, "modem", "modem");
    const int open_pipe = load_shared(pipe_[0]);
    store_shared(pipe_[0], -1);  // not opened yet, or lost: the answer goes nowhere
    platform_sends_alone(kAtPort, pack_of("lost"));
    store_shared(pipe_[0], open_pipe);
    store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_DISCONNECTED_FULL);
    expect_answer(kAtPort, "usb", "usb");
    store_shared(g_vexa_pcie_enabled, VEXA_LINUX_TRISTATE_FALSE);
    pollfd entry{pipe_[1], POLLIN, 0};
    EXPECT_EQ(poll(&entry, 1, 0), 0) << "nothing but the first";
}

TEST_F(Receiver, LogsAnAnswerForALivePcieThatIsClosed) {
    store_shared(g_vexa_pcie_enabled, VEXA_LINUX_TRISTATE_TRUE);
    store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_CONNECTED_FULL);
    const int open_pipe = load_shared(pipe_[0]);
    store_shared(pipe_[0], -1);
    testing::internal::CaptureStdout();
    platform_sends_alone(kAtPort, pack_of("lost"));
    const std::string log = testing::internal::GetCapturedStdout();
    store_shared(pipe_[0], open_pipe);
    store_shared(g_mhi_ctrl_state, VEXA_MHI_CTRL_DISCONNECTED_FULL);
    store_shared(g_vexa_pcie_enabled, VEXA_LINUX_TRISTATE_FALSE);
    const auto dropped =
        log.find("'/dev/mhi_pipe_32' is closed, 4 bytes of an answer dropped.\r\n");
    EXPECT_NE(dropped, std::string::npos);
    EXPECT_NE(log.find(" atport app-plat<<<<", dropped), std::string::npos)
        << "its command is woken all the same";
}

// The signal is lost on a command that does not wait yet, so answers come until one wakes it.
TEST_F(Receiver, WakesTheCommandThatWaits) {
    for (const PortRecord& port : g_ports) {
        int result = ETIMEDOUT;
        std::size_t answers = 0;
        pthread_mutex_lock(&port.response_mutex);
        for (const auto limit = Clock::now() + kDeadline; result != 0 && Clock::now() < limit;) {
            platform_answers(port.index, "x");
            ++answers;
            timespec deadline{};
            clock_gettime(CLOCK_REALTIME, &deadline);
            deadline.tv_sec += 1;
            result = pthread_cond_timedwait(&port.response_cond, &port.response_mutex, &deadline);
        }
        pthread_mutex_unlock(&port.response_mutex);
        EXPECT_EQ(result, 0) << port.log_name;
        EXPECT_EQ(host_reads(port.index, answers), std::string(answers, 'x'));
    }
}

// Right code never fails here, however slow; wrong code does within the pause.
TEST_F(Receiver, WritesUnderTheHostPortsMutex) {
    for (const PortRecord& port : g_ports) {
        End& end = ends_[port.index];
        pthread_mutex_lock(&end.host_mutex);
        platform_answers(port.index, "after");
        pollfd entry{end.host[1], POLLIN, 0};
        EXPECT_EQ(poll(&entry, 1, 100), 0) << port.log_name;
        pthread_mutex_unlock(&end.host_mutex);
        EXPECT_EQ(host_reads(port.index, 5), "after");
    }
}

// What is behind an answer in the log is there when the next one has come.
TEST_F(Receiver, LogsTheRoadOfAnAnswer) {
    store_shared(g_client_ate_status, kEchoOn);
    for (const PortRecord& port : g_ports) {
        const std::string name = port.log_name;
        port.echo_text.assign("AT\r");
        testing::internal::CaptureStdout();
        platform_sends_alone(port.index, "junk");
        expect_answer(port.index, "y", "AT\ry");
        expect_answer(kModemPort, "z", port.index == kModemPort ? "AT\rz" : "z");
        const std::string log = testing::internal::GetCapturedStdout();
        EXPECT_THAT(log, HasSubstr("read data error.\r\n"));
        EXPECT_THAT(log, HasSubstr("atcmd response(" + name + "). open ate1 <AT\r>...<y>,4.\r\n"));
        EXPECT_THAT(log, HasSubstr("!!!!!<<<<<<<<<<<<<<<<<<<< " + name +
                                   " app-plat<<<<<<<<<<<<<<<<<<<!!!!!\r\n"));
        EXPECT_THAT(log, testing::Not(HasSubstr(" timeout <<<<")));
        port.echo_text.clear();
    }
}

// The wait has no predicate, so the test signals until the answer is there.
TEST_F(Receiver, WaitsForTheModemsSideOfACommandThatWentToBoth) {
    store_shared(g_ports[kModemPort].send_done, 1);
    platform_answers(kModemPort, "after CP");
    pollfd entry{ends_[kModemPort].host[1], POLLIN, 0};
    for (const auto limit = Clock::now() + kDeadline;
         poll(&entry, 1, 10) == 0 && Clock::now() < limit;)
        pthread_cond_signal(&g_cond_ap_with_cp);
    EXPECT_EQ(host_reads(kModemPort, 8), "after CP");
}

TEST_F(Receiver, WaitsFiveSecondsForAModemThatSaysNothing) {
    store_shared(g_ports[kModemPort].send_done, 1);
    const auto start = Clock::now();
    expect_answer(kModemPort, "late", "late");
    EXPECT_GE(Clock::now() - start, 5s);
}

TEST_F(Receiver, LogsTheEndOfItsWaitForTheModem) {
    for (const PortRecord& port : g_ports) {
        store_shared(port.send_done, 1);
        testing::internal::CaptureStdout();
        platform_answers(port.index, "x");
        pollfd entry{ends_[port.index].host[1], POLLIN, 0};
        for (const auto limit = Clock::now() + kDeadline;
             poll(&entry, 1, 10) == 0 && Clock::now() < limit;)
            pthread_cond_signal(&g_cond_ap_with_cp);
        EXPECT_EQ(host_reads(port.index, 1), "x");
        char pair[64];
        snprintf(pair, sizeof pair, "cond:%p, mutex:%p, 0.\r\n",
                 static_cast<void*>(&g_cond_ap_with_cp), static_cast<void*>(&g_mut_ap_with_cp));
        EXPECT_THAT(testing::internal::GetCapturedStdout(),
                    HasSubstr("!!!!!<<<<<<<<<<<<<<<<<<<< "s + port.log_name +
                              " timeout <<<<<<<<<<<<<<<<<<<!!!!! " + pair));
        store_shared(port.send_done, 0);
    }
}

TEST_F(Receiver, BadHeadsReachNoHostAndTheNextAnswerDoes) {
    const std::string good = pack_of("good");
    for (const std::string& bad :
         {"junk"s, good.substr(0, 43), good.substr(0, 47), std::string(100, '\0'), good + "kcap"}) {
        platform_sends_alone(kAtPort, bad);
        expect_answer(kAtPort, "good", "good");
    }
}

}  // namespace
