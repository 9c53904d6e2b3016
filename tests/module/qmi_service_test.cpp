// The QMI AT service in a process beside the daemon: its road to the UDP server and back.
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>

#include "module.h"
#include "qmi_at_client.h"

namespace {

using bench::QmiAnswer;
using bench::QmiAtClient;
using testing::HasSubstr;
using testing::Not;

constexpr auto kDeadline = std::chrono::seconds(60);
constexpr const char* kPlatformScenario = "/etc/data/platform.txt";

ModuleOptions without_daemon() {
    ModuleOptions options;
    options.start = false;
    options.wait_until_ready = false;
    return options;
}

// The service's host inside a module, and where its clients find it.
class QmiModule {
  public:
    explicit QmiModule(const ModuleOptions& options = without_daemon()) : folder_(make_folder()) {
        setenv("VEXA_QMI_SOCKET", socket().c_str(), 1);
        module.emplace(options);
    }
    ~QmiModule() {
        module.reset();
        std::filesystem::remove_all(folder_);
    }
    QmiModule(const QmiModule&) = delete;
    QmiModule& operator=(const QmiModule&) = delete;

    int start_host() { return module->start_program("vexa-qmi-host", {"--socket", socket()}); }
    [[nodiscard]] std::string socket() const { return folder_ + "/service"; }

    std::optional<Module> module;

  private:
    static std::string make_folder() {
        std::string folder = testing::TempDir() + "vexa-qmi-XXXXXX";
        EXPECT_NE(mkdtemp(folder.data()), nullptr);
        return folder;
    }

    std::string folder_;
};

// A client whose answers and indications wait in it; the module is served meanwhile.
class Client {
  public:
    explicit Client(Module& module)
        : module_(module),
          heard_(std::make_shared<Heard>()),
          client_([heard = heard_](const auto& text) {
              const std::lock_guard lock(heard->mutex);
              heard->indications.push_back(text);
          }) {
        if (!client_.connect(kDeadline))
            module.fail("the service does not take a client", Here::current());
    }

    void ask(std::string_view text) { ask(text, text.size()); }
    void ask(std::string_view text, std::size_t announced) {
        client_.ask_later(text, announced, [heard = heard_](const QmiAnswer& answer) {
            const std::lock_guard lock(heard->mutex);
            heard->answers.push_back(answer);
        });
    }
    QmiAnswer answer(Here here = Here::current()) {
        return next(heard_->answers, "an answer over QMI", here);
    }
    std::string indication(Here here = Here::current()) {
        return next(heard_->indications, "an indication", here);
    }
    // What came and was not taken.
    std::size_t indications_left() {
        const std::lock_guard lock(heard_->mutex);
        return heard_->indications.size();
    }

  private:
    struct Heard {
        std::mutex mutex;
        std::deque<QmiAnswer> answers;
        std::deque<std::string> indications;
    };
    template <typename Queue>
    typename Queue::value_type next(Queue& queue, const std::string& what, Here here) {
        typename Queue::value_type got;
        module_.wait_until(
            [&] {
                const std::lock_guard lock(heard_->mutex);
                if (queue.empty())
                    return false;
                got = queue.front();
                queue.pop_front();
                return true;
            },
            what, here);
        return got;
    }

    Module& module_;
    std::shared_ptr<Heard> heard_;
    QmiAtClient client_;
};

// The test speaks for the UDP AT server: no daemon.
class FakeServer {
  public:
    explicit FakeServer(Module& module)
        : module_(module), socket_(module.socket(AF_INET, SOCK_DGRAM)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(5555);
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    std::string expect_datagram(Here here = Here::current()) {
        std::string datagram(2048, '\0');
        ssize_t got = -1;
        module_.wait_until(
            [&] {
                socklen_t length = sizeof service_;
                got = recvfrom(socket_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT,
                               reinterpret_cast<sockaddr*>(&service_), &length);
                return got >= 0;
            },
            "a datagram from the service", here);
        datagram.resize(static_cast<std::size_t>(got));
        return datagram;
    }
    void say(std::string_view datagram) {
        EXPECT_EQ(sendto(socket_.get(), datagram.data(), datagram.size(), 0,
                         reinterpret_cast<const sockaddr*>(&service_), sizeof service_),
                  static_cast<ssize_t>(datagram.size()));
    }

  private:
    Module& module_;
    bench::UniqueFd socket_;
    sockaddr_in service_{};
};

// One request and its answer, so that the client is the last one answered.
void converse(Client& client, FakeServer& server, const std::string& line = "AT\r") {
    client.ask(line);
    ASSERT_EQ(server.expect_datagram(), line);
    server.say("OK\r\n");
    ASSERT_EQ(client.answer().text, "OK\r\n");
}

TEST(QmiRoad, FromClientToModemAndPlatformAndBack) {
    ModuleOptions options;
    options.start = false;
    options.files = {{kPlatformScenario, "on AT+CGMR\n    answer VEXA-1\n    answer OK\n"}};
    QmiModule qmi(options);
    Module& module = *qmi.module;
    module.start_program("vexa-platform", {kPlatformScenario});
    module.start();
    module.wait_for_log("client conenct local OK.", 3);
    qmi.start_host();
    Client client(module);
    client.ask("AT+CFUN?\r");
    module.at_channel().expect("AT+CFUN?\r");
    module.at_channel().send("\r\n+CFUN: 1\r\n\r\nOK\r\n");
    QmiAnswer answer = client.answer();
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.error, 0);
    EXPECT_EQ(answer.text, "\r\n+CFUN: 1\r\n\r\nOK\r\n");
    client.ask("AT+CGMR\r");
    answer = client.answer();
    EXPECT_EQ(answer.result, 0);
    EXPECT_THAT(answer.text, HasSubstr("VEXA-1\r\n"));
    module.at_channel().send("\r\n+CREG: 1\r\n");
    EXPECT_EQ(client.indication(), "\r\n+CREG: 1\r\n");
}

TEST(QmiRoad, AReplyOfTwoDatagramsComesAsTheirConcatenation) {
    QmiModule qmi;
    FakeServer server(*qmi.module);
    qmi.start_host();
    Client client(*qmi.module);
    client.ask("AT+CGMR\r");
    EXPECT_EQ(server.expect_datagram(), "AT+CGMR\r");
    server.say("\r\n+CGMR: 1\r\n");
    server.say("\r\nOK\r\n");
    const QmiAnswer answer = client.answer();
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.error, 0);
    EXPECT_EQ(answer.text, "\r\n+CGMR: 1\r\n\r\nOK\r\n");
    qmi.module->wait_for_output("QMI Response Sent, DataLen: 18 Data:(\r\n+CGMR: 1\r\n\r\nOK\r\n)");
    EXPECT_THAT(qmi.module->programs_output(),
                HasSubstr("========AT Over Mbim Service: AT+CGMR\r len:8=====\n"));
}

TEST(QmiRoad, ARequestLongerThanItsAreaIsAnsweredAndNotSent) {
    QmiModule qmi;
    FakeServer server(*qmi.module);
    qmi.start_host();
    Client client(*qmi.module);
    client.ask("AT+TOOLONG\r", 1025);
    const QmiAnswer answer = client.answer();
    EXPECT_TRUE(answer.arrived);
    EXPECT_EQ(answer.result, 1);
    EXPECT_EQ(answer.error, 3);
    EXPECT_EQ(answer.text, "");
    // The whole area is a request: it is the first thing that the server hears.
    std::string whole(1023, 'x');
    whole += '\r';
    converse(client, server, whole);
}

TEST(QmiRoad, SevenTimeOutsAreAFailureWithAnEmptyText) {
    QmiModule qmi;
    FakeServer server(*qmi.module);
    qmi.start_host();
    Client client(*qmi.module);
    const auto start = std::chrono::steady_clock::now();
    client.ask("AT\r");
    const QmiAnswer answer = client.answer();
    // Seven times 2 s; the kernel counts a time-out in ticks, 10 ms of slack each.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(13930));
    EXPECT_TRUE(answer.arrived);
    EXPECT_EQ(answer.result, 1);
    EXPECT_EQ(answer.error, 3);
    EXPECT_EQ(answer.text, "");
    EXPECT_EQ(server.expect_datagram(), "AT\r");
    converse(client, server, "AT+NEXT\r");
}

TEST(QmiRoad, AClientThatDiesMidRequestIsNobodysIndicationTarget) {
    QmiModule qmi;
    FakeServer server(*qmi.module);
    qmi.start_host();
    {
        Client gone(*qmi.module);
        gone.ask("AT\r");
        EXPECT_EQ(server.expect_datagram(), "AT\r");
    }
    server.say("OK\r\n");
    qmi.module->wait_for_output("qmi_csi_send_resp returned error: ");
    qmi.module->wait_for_output("A client disconnected to this service.0.0.0\n");
    // Nobody has been answered so far: unsolicited text is dropped.
    server.say("+CREG: 1\r\n");
    qmi.module->wait_for_output("====Indication msg allocation failed");
    Client next(*qmi.module);
    converse(next, server);
    EXPECT_EQ(next.indications_left(), 0U);
    EXPECT_THAT(qmi.module->programs_output(), Not(HasSubstr("Indications Sent")));
}

TEST(QmiRoad, UnsolicitedTextGoesToTheClientThatWasAnsweredLast) {
    QmiModule qmi;
    FakeServer server(*qmi.module);
    qmi.start_host();
    Client first(*qmi.module);
    Client second(*qmi.module);
    converse(first, server);
    converse(second, server);
    server.say("+CREG: 1\r\n");
    EXPECT_EQ(second.indication(), "+CREG: 1\r\n");
    converse(first, server);
    server.say("+CREG: 2\r\n");
    EXPECT_EQ(first.indication(), "+CREG: 2\r\n");
    EXPECT_EQ(second.indications_left(), 0U);
}

TEST(QmiRoad, ATextForAClientThatHasLeftIsToldAsAnError) {
    QmiModule qmi;
    FakeServer server(*qmi.module);
    qmi.start_host();
    {
        Client gone(*qmi.module);
        converse(gone, server);
    }
    qmi.module->wait_for_output("A client disconnected to this service.0.0.0\n");
    server.say("+CREG: 1\r\n");
    qmi.module->wait_for_output("qmi_csi_send_ind returned error: 4\nIndications Sent\n");
    Client next(*qmi.module);
    converse(next, server);
}

TEST(QmiRoad, AReplyOfManyDatagramsIsCutAtThePreviousOne) {
    QmiModule qmi;
    FakeServer server(*qmi.module);
    qmi.start_host();
    Client client(*qmi.module);
    client.ask("AT+LIST\r");
    server.expect_datagram();
    // 10 times 100 bytes fit into 1,024; the eleventh is not appended and ends the answer.
    for (int i = 0; i < 11; ++i) server.say(std::string(100, static_cast<char>('a' + i)));
    const QmiAnswer answer = client.answer();
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.text.size(), 1000U);
    EXPECT_EQ(answer.text.back(), 'j');
}

TEST(QmiRoad, AHundredClientsComeAndLeave) {
    QmiModule qmi;
    FakeServer server(*qmi.module);
    qmi.start_host();
    Client first(*qmi.module);
    for (int i = 0; i < 100; ++i) Client(*qmi.module);
    qmi.module->wait_for_output("A client disconnected to this service.0.0.0\n", 100);
    converse(first, server);
}

TEST(QmiRoad, ASecondHostEnds) {
    QmiModule qmi;
    qmi.start_host();
    const Client client(*qmi.module);
    const int second = qmi.start_host();
    EXPECT_EQ(qmi.module->program_exit_status(second), 1);
    EXPECT_THAT(qmi.module->programs_output(), HasSubstr("Unable to register service!"));
    EXPECT_THAT(qmi.module->programs_output(), HasSubstr("===QMI_NO_ERR"));
}

TEST(QmiClientProgram, PrintsAnswersAndIndicationsUntilToldToStop) {
    QmiModule qmi;
    FakeServer server(*qmi.module);
    qmi.start_host();
    const int client = qmi.module->start_program(
        "vexa-qmi-client", {"--socket", qmi.socket(), "--indications", "AT+CSQ"});
    EXPECT_EQ(server.expect_datagram(), "AT+CSQ\r");
    server.say("+CSQ: 23,99\r\nOK\r\n");
    qmi.module->wait_for_output("QMI Response Sent, ");
    server.say("+CREG: 5\r\n");
    qmi.module->wait_for_output("Indications Sent");
    // In the service's output and in the client's.
    qmi.module->wait_for_output("+CREG: 5\r\n", 2);
    qmi.module->stop_program(client, SIGTERM);
    EXPECT_EQ(qmi.module->program_exit_status(client), 0);
}

TEST(QmiClientProgram, WithoutAServiceItFails) {
    QmiModule qmi;
    const int client = qmi.module->start_program("vexa-qmi-client",
                                                 {"--socket", qmi.socket(), "--wait", "0", "AT"});
    EXPECT_EQ(qmi.module->program_exit_status(client), 1);
    EXPECT_THAT(qmi.module->programs_output(), HasSubstr("there is no QMI AT service"));
}

// The trigger files stand in the machine's /tmp: one such test at a time.
class TriggerLock {
  public:
    explicit TriggerLock(Module& module)
        : fd_(open("/tmp/vexa-self-test.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0666)) {
        module.wait_until([this] { return flock(fd_, LOCK_EX | LOCK_NB) == 0; },
                          "the lock of the trigger files");
        remove_triggers();
    }
    ~TriggerLock() {
        remove_triggers();
        close(fd_);
    }
    TriggerLock(const TriggerLock&) = delete;
    TriggerLock& operator=(const TriggerLock&) = delete;

  private:
    static void remove_triggers() {
        for (const char* path : {"/tmp/1", "/tmp/2"}) std::filesystem::remove(path);
    }
    int fd_;
};

TEST(QmiSelfTest, SendsTheCommandOfTheTriggerFileThatAppears) {
    QmiModule qmi;
    Module& module = *qmi.module;
    const TriggerLock lock(module);
    FakeServer server(module);
    // The test's client is there first and waits for the service.
    module.start_program("vexa-qmi-host", {"--socket", qmi.socket(), "--self-test"});
    module.wait_for_output("TEST: qmi_client_get_service_list() returned 2 num_services = 0\n");
    qmi.start_host();
    module.wait_for_output(
        "TEST: qmi_client_get_service_list() returned 0 num_entries = 1 num_services = 1\n");
    module.wait_for_output("1 Test Services found: Choosing service 0(numbered starting at 0)\n");
    module.wait_for_output("TEST: qmi_client_init returned 0\n");
    std::ofstream("/tmp/2").put('\n');
    EXPECT_EQ(server.expect_datagram(), "at+mtsm=2\r\n");
    server.say("second\r\nOK\r\n");
    module.wait_for_output("TEST: Async Test DatD : second\r\nOK\r\n");
    EXPECT_FALSE(std::filesystem::exists("/tmp/2"));
    EXPECT_THAT(module.programs_output(),
                HasSubstr("TEST: Data Test with 1 async data messages of size 100.0.\n"));
    std::ofstream("/tmp/1").put('\n');
    EXPECT_EQ(server.expect_datagram(), "at+mtsm=1\r\n");
    server.say("first\r\nOK\r\n");
    module.wait_for_output("TEST: Async Test DatD : first\r\nOK\r\n");
    server.say("+X");
    module.wait_for_output(
        "TEST_SERVICE: Indication: msg_id=0x1 buf_len=1024 ind_buf(+X) pending_ind=-1\n");
}

}  // namespace
