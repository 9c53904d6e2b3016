// The service's thread and the self-test's: neither ends, so each runs in a process of its own
// whose output is read.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "mbim_udp_relay.h"
#include "system_calls.h"
#include "vexa_mbim_at_service.h"
#include "vexa_mbim_at_test_client.h"

namespace {

constexpr int kDeadlineMs = 60'000;

// The standard output of this process as text, and a place for the service's socket.
class OwnProcess {
  public:
    OwnProcess() : folder_(testing::TempDir() + "vexa-mbim-XXXXXX") {
        std::array<int, 2> ends{};
        if (mkdtemp(folder_.data()) == nullptr || pipe(ends.data()) != 0)
            _exit(90);
        setenv("VEXA_QMI_SOCKET", (folder_ + "/service").c_str(), 1);
        output_ = ends[0];
        dup2(ends[1], STDOUT_FILENO);
        setvbuf(stdout, nullptr, _IOLBF, 0);
    }
    OwnProcess(const OwnProcess&) = delete;
    OwnProcess& operator=(const OwnProcess&) = delete;
    void wait_for(const std::string& words) {
        while (said_.find(words) == std::string::npos) {
            pollfd entry{output_, POLLIN, 0};
            std::array<char, 4096> bytes{};
            const ssize_t count =
                poll(&entry, 1, kDeadlineMs) == 1 ? read(output_, bytes.data(), bytes.size()) : 0;
            if (count <= 0)
                end(1);
            said_.append(bytes.data(), static_cast<std::size_t>(count));
        }
    }
    [[nodiscard]] bool has_said(const std::string& words) const {
        return said_.find(words) != std::string::npos;
    }
    // With everything that was said on standard error.
    [[noreturn]] void end(int status) {
        (void)!write(STDERR_FILENO, said_.data(), said_.size());
        std::filesystem::remove_all(folder_);
        _exit(status);
    }

  private:
    std::string folder_;
    int output_ = -1;
    std::string said_;
};

// Speaks to a socket that the service is given for its own: that one has no address before its
// first request.
class Peer {
  public:
    Peer() {
        service_.sin_family = AF_INET;
        service_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof service_;
        if (bind(services_socket, reinterpret_cast<sockaddr*>(&service_), length) != 0 ||
            getsockname(services_socket, reinterpret_cast<sockaddr*>(&service_), &length) != 0)
            _exit(91);
    }
    void say(const std::string& datagram) const {
        (void)!sendto(own_, datagram.data(), datagram.size(), 0,
                      reinterpret_cast<const sockaddr*>(&service_), sizeof service_);
    }

    const int services_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);

  private:
    int own_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in service_{};
};

// The service, on the peer's socket, up to its first wait. `prepare` is called on its thread.
void start_service(OwnProcess& process, const Peer& peer, void (*prepare)(SystemCalls&)) {
    std::thread([services_socket = peer.services_socket, prepare] {
        SystemCalls system;
        system.answer(Call::inet_socket, services_socket);
        prepare(system);
        vexa_mbim_at_data_handler(nullptr);
        _exit(92);
    }).detach();
    process.wait_for("====1 socket_fd:" + std::to_string(peer.services_socket) + "\n");
}

[[noreturn]] void forward_unsolicited_texts() {
    OwnProcess process;
    const Peer peer;
    client_info_type unknown{&process};
    update_client_info(&unknown);
    start_service(process, peer, [](SystemCalls& system) { system.answer(Call::allocation, -1); });
    peer.say("+CREG: 1");
    process.wait_for("====Indication msg allocation failed\n");
    peer.say("+CREG: 2");
    process.wait_for("Indications Sent\n");
    process.end(0);
}

TEST(MbimServiceThreadDeathTest, ATextWithoutMemoryIsDroppedAndARefusedOneTold) {
    EXPECT_EXIT(forward_unsolicited_texts(), testing::ExitedWithCode(0),
                "11===os_params\\.max_fd:[0-9]+\\.0\\.0\n.*====1 socket_fd:[0-9]+\n.*"
                "====receive\\(\\+CREG: 1\\).*====Indication msg allocation failed\n.*"
                "====receive\\(\\+CREG: 2\\).*qmi_csi_send_ind returned error: [1-9][0-9]*\n"
                "Indications Sent\n");
}

// That a client who is known gets such texts is the test's before this one. The second text is
// there to show that the service is through with the first.
[[noreturn]] void forward_before_anybody_was_answered() {
    OwnProcess process;
    const Peer peer;
    start_service(process, peer, [](SystemCalls&) {});
    peer.say("+CREG: 1");
    process.wait_for("====Indication msg allocation failed\n");
    peer.say("+CREG: 2");
    process.wait_for("====receive(+CREG: 2)");
    process.end(process.has_said("Indications Sent") ? 1 : 0);
}

TEST(MbimServiceThreadDeathTest, UnsolicitedTextBeforeAnySuccessfulResponseIsDropped) {
    EXPECT_EXIT(forward_before_anybody_was_answered(), testing::ExitedWithCode(0),
                "====receive\\(\\+CREG: 1\\).*====Indication msg allocation failed\n.*"
                "====receive\\(\\+CREG: 2\\)");
}

[[noreturn]] void choose_a_service_that_is_not_there() {
    OwnProcess process;
    qmi_csi_os_params os_params{};
    if (vexa_mbim_service_register(&os_params) == nullptr)
        process.end(93);
    service_connect = 1;  // there is one, number 0
    std::thread([] {
        // The trigger files of this machine are another test's.
        SystemCalls system;
        for (int i = 0; i < 100'000; ++i) system.answer(Call::access, -1, ENOENT);
        vexa_mbim_at_thread_entry(nullptr);
    }).detach();
    process.wait_for("numbered starting at 0)\n");
    process.end(0);
}

TEST(MbimSelfTestDeathTest, AServiceNumberOutOfRangeIsTheFirst) {
    EXPECT_EXIT(
        choose_a_service_that_is_not_there(), testing::ExitedWithCode(0),
        "TEST: qmi_client_get_service_list\\(\\) returned 0 num_services = 1\n"
        "TEST: qmi_client_get_service_list\\(\\) returned 0 num_entries = 1 num_services = 1\n"
        "1 Test Services found: Choosing service 0\\(numbered starting at 0\\)\n");
}

}  // namespace
