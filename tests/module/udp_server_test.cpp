// AT over UDP: who is served, where answers go, and what a hostile or unlucky peer can do.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>

#include "module.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr std::string_view kNewClient = "!!!!!  the client we recv msg is a different one new fd:";
constexpr std::string_view kSameClient =
    "!!!!!  the client we recv msg is the same one  !!!!!!!.\r\n";
constexpr std::string_view kUnsolicited = "\r\n+CREG: 1\r\n";

sockaddr_in loopback(uint32_t host, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(host);
    return address;
}

void bind_to(const UdpClient& client, const sockaddr_in& address) {
    ASSERT_EQ(bind(client.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
        << strerror(errno);
}

// One byte is echoed at once and then dropped: the shortest way through the engine, which waits
// for nobody.
void expect_echo(UdpClient& client, std::string_view byte) {
    client.send(byte);
    client.expect(byte);
}

// While there is no platform the daemon tries it again and again, with a descriptor for a moment.
void expect_no_more_descriptors_than(Module& module, int count, Here here = Here::current()) {
    module.wait_until([&] { return module.count_descriptors() <= count; },
                      "no more than " + std::to_string(count) + " descriptors", here);
}

// --- Who gets the answers

TEST(UdpServer, WithoutAClientAnswersGoToTheAtPort) {
    Module module;
    module.at_channel().send(kUnsolicited);
    module.at_port().expect(kUnsolicited);
}

TEST(UdpServer, AClientIsAnsweredByTheModemAndHearsUnsolicitedText) {
    Module module;
    UdpClient client = module.udp_client();
    client.send("AT+CFUN?\r");
    module.at_channel().expect("AT+CFUN?\r");
    module.at_channel().send("\r\n+CFUN: 1\r\n\r\nOK\r\n");
    client.expect("\r\n+CFUN: 1\r\n\r\nOK\r\n");
    module.at_channel().send(kUnsolicited);
    client.expect(kUnsolicited);
    EXPECT_EQ(module.at_port().received(), "");
}

TEST(UdpServer, EveryLocalAddressIsServed) {
    Module module;
    const bench::UniqueFd client = module.socket(AF_INET, SOCK_DGRAM);
    const sockaddr_in server = loopback(INADDR_LOOPBACK + 1, 5555);
    ASSERT_EQ(
        sendto(client.get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&server), sizeof server),
        1);
    char byte = 0;
    module.wait_until([&] { return recv(client.get(), &byte, 1, MSG_DONTWAIT) == 1; }, "the echo");
    EXPECT_EQ(byte, 'x');
}

TEST(UdpServer, TheLogTellsEachStep) {
    Module module;
    module.wait_for_log("udp_server_data_handler enter.0,0,0.\r\n");
    UdpClient client = module.udp_client();
    client.send("AT+CFUN?\r");
    module.at_channel().expect("AT+CFUN?\r");
    module.at_channel().send("\r\nOK\r\n");
    client.expect("\r\nOK\r\n");
    module.wait_for_log("proc atcmd succesfully than send result to udp client .");
    // The server may wait before the AT port and its channel are open: -1.
    const std::string wait =
        "recv_udp_cmd_from_client before wait from:</dev/at_usb1>, fd:<-?[0-9]+>, "
        "to:</dev/smd7>, fd:<-?[0-9]+>. \r\n";
    EXPECT_THAT(module.log(),
                testing::ContainsRegex(
                    wait + ".*recv_udp_cmd_from_client\\(read_len:9\\):> 127.0.0.1 [0-9]+ says >: "
                           ".*set g_at_over_sokcet_enable in udp.1,0,0.\r\n.*"
                           "recv_udp_cmd_from_client g_loc_udp_at_server_send_socket:<-1>, "
                           "last_addr:<0.0.0.0>, new_addr:<127.0.0.1>, last_port:<0>, "
                           "new_port:<[0-9]+>. \r\n"));
}

TEST(UdpServer, ALineMayComeInSeveralDatagrams) {
    Module module;
    UdpClient client = module.udp_client();
    client.send("AT+C");
    client.send("FUN?");
    client.send("\r\n");
    module.at_channel().expect("AT+CFUN?\r\n");
}

TEST(UdpServer, AnswersComeFromAPortOfTheirOwn) {
    Module module;
    UdpClient client = module.udp_client();
    client.send("x");
    sockaddr_in sender{};
    std::array<char, 16> bytes{};
    module.wait_until(
        [&] {
            socklen_t length = sizeof sender;
            return recvfrom(client.fd(), bytes.data(), bytes.size(), MSG_DONTWAIT,
                            reinterpret_cast<sockaddr*>(&sender), &length) == 1;
        },
        "an answer");
    EXPECT_NE(ntohs(sender.sin_port), 5555);
    EXPECT_EQ(ntohl(sender.sin_addr.s_addr), INADDR_LOOPBACK);
}

TEST(UdpServer, TheSameClientKeepsItsSendSocket) {
    Module module;
    UdpClient client = module.udp_client();
    expect_echo(client, "x");
    const int descriptors = module.count_descriptors();
    expect_echo(client, "y");
    module.wait_for_log(kSameClient);
    EXPECT_EQ(module.log_count(kNewClient), 1);
    expect_no_more_descriptors_than(module, descriptors);
}

TEST(UdpServer, TwoClientsAlternatingEachReplaceTheSendSocket) {
    Module module;
    UdpClient first = module.udp_client();
    UdpClient second = module.udp_client();
    expect_echo(first, "x");
    const int descriptors = module.count_descriptors();
    for (int i = 0; i < 5; ++i) {
        expect_echo(second, "y");
        expect_echo(first, "x");
    }
    // Each change is one new socket for one old one.
    EXPECT_EQ(module.log_count(kNewClient), 11);
    expect_no_more_descriptors_than(module, descriptors);
    EXPECT_EQ(module.log_count(kSameClient), 0);
}

TEST(UdpServer, AnswersToAnEarlierClientsCommandGoToTheNewestClient) {
    Module module;
    UdpClient first = module.udp_client();
    UdpClient second = module.udp_client();
    first.send("AT+CFUN?\r");
    module.at_channel().expect("AT+CFUN?\r");
    module.at_channel().send("\r\nOK\r\n");
    first.expect("\r\nOK\r\n");
    expect_echo(second, "y");
    module.at_channel().send("\r\n+LATE: 1\r\n");
    second.expect("\r\n+LATE: 1\r\n");
    // The first is served again, and the marker is the first thing that it hears.
    expect_echo(first, "x");
}

TEST(UdpServer, TwoClientsWithOnePortOnDifferentAddressesCountAsOne) {
    Module module;
    UdpClient first = module.udp_client();
    UdpClient second = module.udp_client();
    bind_to(first, loopback(INADDR_LOOPBACK, 6001));
    bind_to(second, loopback(INADDR_LOOPBACK + 1, 6001));
    expect_echo(first, "x");
    second.send("y");
    first.expect("y");
    module.wait_for_log(kSameClient);
    EXPECT_EQ(module.log_count(kNewClient), 1);
    EXPECT_THAT(module.log(), HasSubstr("last_addr:<127.0.0.1>, new_addr:<127.0.0.2>, "
                                        "last_port:<6001>, new_port:<6001>. "));
}

// RFC 768: a sender that expects no reply may leave its port out, which is 0 then.
void send_from_port_0(Module& module, std::string_view text) {
    const bench::UniqueFd raw = module.socket(AF_INET, SOCK_RAW, IPPROTO_UDP);
    udphdr head{};  // with the checksum left out as well
    head.dest = htons(5555);
    head.len = htons(static_cast<uint16_t>(sizeof head + text.size()));
    std::string datagram(sizeof head, '\0');
    memcpy(datagram.data(), &head, sizeof head);
    datagram += text;
    const sockaddr_in server = loopback(INADDR_LOOPBACK, 0);
    ASSERT_EQ(sendto(raw.get(), datagram.data(), datagram.size(), 0,
                     reinterpret_cast<const sockaddr*>(&server), sizeof server),
              static_cast<ssize_t>(datagram.size()))
        << strerror(errno);
}

constexpr std::string_view kUnanswerable = "has no port to be answered at, dropped.";

// With such a client every answer would be a failed write, which closes the AT port.
TEST(UdpServer, ADatagramWithoutASendersPortIsDropped) {
    Module module;
    send_from_port_0(module, "AT+CFUN?\r");
    module.wait_for_log("recv_udp_cmd_from_client(read_len:9):> 127.0.0.1 0 says >: AT+CFUN?\r");
    module.wait_for_log(kUnanswerable);
    module.at_channel().send(kUnsolicited);
    module.at_port().expect(kUnsolicited);
    EXPECT_EQ(module.log_count("set g_at_over_sokcet_enable in udp."), 0);
    EXPECT_EQ(module.log_count("close_fd_mutexed file_path enter:/dev/at_usb1"), 0);
    UdpClient client = module.udp_client();
    client.send("AT+NEXT\r");
    module.at_channel().expect("AT+NEXT\r");  // the first that the modem hears
}

TEST(UdpServer, ADatagramWithoutASendersPortLeavesTheClientItsAnswers) {
    Module module;
    UdpClient client = module.udp_client();
    expect_echo(client, "x");
    send_from_port_0(module, "AT+CFUN?\r");
    module.wait_for_log(kUnanswerable);
    module.at_channel().send(kUnsolicited);
    client.expect(kUnsolicited);
    expect_echo(client, "y");
    EXPECT_EQ(module.log_count(kNewClient), 1);
}

// --- Redirection on and off

TEST(UdpServer, InputOnTheAtPortTakesTheAnswersBackUntilTheNextDatagram) {
    Module module;
    UdpClient client = module.udp_client();
    expect_echo(client, "x");
    const int descriptors = module.count_descriptors();
    module.at_port().write("AT+CFUN?\r");
    module.at_channel().expect("AT+CFUN?\r");
    module.at_channel().send("\r\nOK\r\n");
    module.at_port().expect("\r\nOK\r\n");
    module.at_channel().send(kUnsolicited);
    module.at_port().expect(kUnsolicited);
    // Client and send socket were kept.
    expect_no_more_descriptors_than(module, descriptors);
    expect_echo(client, "y");
    EXPECT_EQ(module.log_count(kNewClient), 1);
    module.at_channel().send(kUnsolicited);
    client.expect(kUnsolicited);
}

TEST(UdpServer, InputOnTheUartTakesTheAnswersBack) {
    Module module;
    UdpClient client = module.udp_client();
    expect_echo(client, "x");
    module.uart_port().write("AT+CFUN?\r");
    module.uart_channel().expect("AT+CFUN?\r");
    module.at_channel().send(kUnsolicited);
    module.at_port().expect(kUnsolicited);
}

TEST(UdpServer, InputOnTheModemPortLeavesTheAnswersWithTheClient) {
    Module module;
    UdpClient client = module.udp_client();
    expect_echo(client, "x");
    module.modem_port().write("AT+CFUN?\r");
    module.modem_channel().expect("AT+CFUN?\r");
    module.at_channel().send(kUnsolicited);
    client.expect(kUnsolicited);
}

TEST(UdpServer, AnEmptyDatagramIsIgnored) {
    Module module;
    UdpClient client = module.udp_client();
    client.send("");
    module.wait_for_log("recv_udp_cmd_from_client nothing sleep. ");
    module.at_channel().send(kUnsolicited);
    module.at_port().expect(kUnsolicited);
    EXPECT_EQ(module.log_count("set g_at_over_sokcet_enable in udp."), 0);
    EXPECT_EQ(module.log_count(kNewClient), 0);
    expect_echo(client, "x");
}

// --- Sizes and bytes

TEST(UdpServer, ADatagramOfTheWholeBufferIsOneLine) {
    Module module;
    UdpClient client = module.udp_client();
    std::string line = "AT+X=";
    line.append(16383 - line.size(), 'x');
    line += '\r';
    client.send(line);
    module.at_channel().expect(line);
}

TEST(UdpServer, ALargerDatagramIsCutAndDropped) {
    Module module;
    UdpClient client = module.udp_client();
    client.send(std::string(20000, 'x'));
    module.wait_for_log("recv_udp_cmd_from_client(read_len:16384):> 127.0.0.1 ");
    expect_echo(client, "y");
}

TEST(UdpServer, BinaryDatagramsHarmNobody) {
    Module module;
    UdpClient client = module.udp_client();
    std::string bytes;
    for (int i = 0; i < 1024; ++i) bytes += static_cast<char>(i * 7);
    client.send(bytes);
    client.send(std::string("\0\0\0", 3));
    client.send(std::string("%s%n%x\xff\xfe", 8));
    expect_echo(client, "x");
}

// --- Faults

TEST(UdpServer, AClientThatVanishesBeforeItsAnswerIsReplacedByTheNext) {
    Module module;
    {
        UdpClient gone = module.udp_client();
        gone.send("AT+CFUN?\r");
        module.at_channel().expect("AT+CFUN?\r");
    }
    module.at_channel().send("\r\nOK\r\n");
    UdpClient next = module.udp_client();
    expect_echo(next, "x");
    module.at_channel().send(kUnsolicited);
    next.expect(kUnsolicited);
}

TEST(UdpServer, APortThatIsTakenAtStartIsTriedAgain) {
    ModuleOptions options;
    options.start = false;
    options.wait_until_ready = false;
    Module module(options);
    auto taken = std::make_optional(module.socket(AF_INET, SOCK_DGRAM));
    const sockaddr_in address = loopback(INADDR_LOOPBACK, 5555);
    ASSERT_EQ(bind(taken->get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const auto start = std::chrono::steady_clock::now();
    module.start();
    module.wait_for_log("init_udp_at_server_socket error sleep try again.....");
    EXPECT_THAT(module.log(),
                HasSubstr("init_udp_at_server_socket bind error.: Address already in use"));
    taken.reset();
    // The other ports are served meanwhile, once both ends are open.
    module.wait_until(
        [&] {
            return module.device("/dev/at_usb0").is_served() &&
                   module.device("/dev/at_mdm0").is_served();
        },
        "the modem port and its channel");
    module.modem_port().write("AT+CFUN?\r");
    module.modem_channel().expect("AT+CFUN?\r");
    module.wait_for_log("g_loc_udp_at_server_socket .");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    UdpClient client = module.udp_client();
    expect_echo(client, "x");
}

int lowest_free_now(int pid) {
    std::set<int> used;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd"))
        used.insert(std::stoi(entry.path().filename()));
    int lowest = 0;
    while (used.contains(lowest)) ++lowest;
    return lowest;
}

// A listing may show a number that is taken for a moment only (see above), and on a busy machine a
// thread may be stopped in that moment: so many listings, apart from each other.
int lowest_free_descriptor(int pid) {
    int lowest = lowest_free_now(pid);
    for (int i = 0; i < 300; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        lowest = std::min(lowest, lowest_free_now(pid));
    }
    return lowest;
}

TEST(UdpServer, WithoutASocketForAnswersTheThreadEnds) {
    Module module;
    const int threads = module.count_threads();
    const auto free_one = static_cast<rlim_t>(lowest_free_descriptor(module.daemon_pid()));
    const rlimit none = {free_one, free_one};
    ASSERT_EQ(prlimit(module.daemon_pid(), RLIMIT_NOFILE, &none, nullptr), 0) << strerror(errno);
    UdpClient client = module.udp_client();
    client.send("x");
    module.wait_for_log("init_udp_at_server_send_socket error.: Too many open files");
    module.wait_until([&] { return module.count_threads() == threads - 1; }, "the thread's end");
    // Redirection is on, but there is nobody to send to.
    module.at_channel().send(kUnsolicited);
    module.at_port().expect(kUnsolicited);
    // The receiving socket is open, or the second datagram would be refused.
    const bench::UniqueFd late = module.socket(AF_INET, SOCK_DGRAM);
    const sockaddr_in server = loopback(INADDR_LOOPBACK, 5555);
    ASSERT_EQ(connect(late.get(), reinterpret_cast<const sockaddr*>(&server), sizeof server), 0);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(send(late.get(), "y", 1, 0), 1) << strerror(errno);
}

// --- Floods

// 200 clients, each with a byte of its own that no command begins with.
constexpr int kClients = 200;
constexpr int kDatagrams = 10'000;

std::string byte_of(int client) {
    return std::string(1, static_cast<char>(client < 17 ? 0x30 + client : 0x62 - 17 - 1 + client));
}

int count(std::string_view text, std::string_view part) {
    int found = 0;
    for (auto at = text.find(part); at != text.npos; at = text.find(part, at + part.size()))
        ++found;
    return found;
}

TEST(UdpServer, OfAFloodFromManyPortsWhatWasAcceptedIsAnsweredToItsSender) {
    Module module;
    UdpClient first = module.udp_client();
    expect_echo(first, "x");
    const int descriptors = module.count_descriptors();
    const std::string received = "recv_udp_cmd_from_client(read_len:1):> ";
    const int before = module.log_count(received);

    std::vector<UdpClient> clients;
    for (int i = 0; i < kClients; ++i) clients.push_back(module.udp_client());
    for (int i = 0; i < kDatagrams; ++i)
        clients[static_cast<std::size_t>(i % kClients)].send(byte_of(i % kClients));

    // Another port is served while the flood is worked off.
    module.modem_port().write("AT+CFUN?\r");
    module.modem_channel().expect("AT+CFUN?\r");

    // The kernel may drop the marker as well while its queue is full.
    UdpClient last = module.udp_client();
    std::array<char, 16> bytes{};
    const auto is_answered = [&] {
        return recv(last.fd(), bytes.data(), bytes.size(), MSG_DONTWAIT) == 1;
    };
    auto next_try = std::chrono::steady_clock::now();
    module.wait_until(
        [&] {
            if (std::chrono::steady_clock::now() >= next_try) {
                last.send("x");
                next_try += std::chrono::milliseconds(200);
            }
            return is_answered();
        },
        "the answer to the marker");

    int answers = 0;
    for (int i = 0; i < kClients; ++i) {
        ssize_t length = 0;
        while ((length = recv(clients[static_cast<std::size_t>(i)].fd(), bytes.data(), bytes.size(),
                              MSG_DONTWAIT)) >= 0) {
            EXPECT_EQ(std::string(bytes.data(), static_cast<std::size_t>(length)), byte_of(i));
            ++answers;
        }
    }
    // Every client's datagrams were read before the marker's answer came; the marker's own copies
    // tell themselves by their port.
    const std::string log = module.log();
    sockaddr_in own{};
    socklen_t length = sizeof own;
    getsockname(last.fd(), reinterpret_cast<sockaddr*>(&own), &length);
    const std::string marker = received + "127.0.0.1 " + std::to_string(ntohs(own.sin_port)) + " ";
    EXPECT_EQ(answers, count(log, received) - before - count(log, marker));
    EXPECT_GT(answers, 0);
    expect_no_more_descriptors_than(module, descriptors);
}

TEST(UdpServer, UnsolicitedTextReachesSomeClientWhileClientsChange) {
    Module module;
    std::vector<UdpClient> clients;
    for (int i = 0; i < 20; ++i) clients.push_back(module.udp_client());
    expect_echo(clients[0], "x");
    constexpr int kTexts = 50;
    for (int i = 0; i < kTexts; ++i) {
        for (UdpClient& client : clients) client.send("x");
        module.at_channel().send(kUnsolicited);
    }
    int heard = 0;
    std::array<char, 64> bytes{};
    module.wait_until(
        [&] {
            for (UdpClient& client : clients) {
                ssize_t length = 0;
                while ((length = recv(client.fd(), bytes.data(), bytes.size(), MSG_DONTWAIT)) >= 0)
                    heard += length > 1 ? 1 : 0;
            }
            return heard == kTexts;
        },
        "every unsolicited text");
    EXPECT_EQ(module.at_port().received(), "");
}

// --- One command at a time on the AT port

TEST(UdpServer, ACommandTypedMeanwhileWaitsForItsTurn) {
    Module module;
    UdpClient client = module.udp_client();
    client.send("AT+FIRST\r");
    module.at_channel().expect("AT+FIRST\r");
    module.at_port().write("AT+SECOND\r");
    module.wait_for_log("before common_input_atcmd_proc(atport)");
    // Another port's command comes and goes, time enough for a line that did not wait.
    module.modem_port().write("AT+OTHER\r");
    module.modem_channel().expect("AT+OTHER\r");
    module.modem_channel().send("\r\nOK\r\n");
    module.modem_port().expect("\r\nOK\r\n");
    EXPECT_TRUE(module.at_channel().received().empty());
    module.at_channel().send("\r\nFIRST\r\nOK\r\n");
    module.at_port().expect("\r\nFIRST\r\nOK\r\n");  // typing took the answers back
    module.at_channel().expect("AT+SECOND\r");
    module.at_channel().send("\r\nSECOND\r\nOK\r\n");
    module.at_port().expect("\r\nSECOND\r\nOK\r\n");
}

}  // namespace
