#include "more_roads.h"

#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "qmi_at_client.h"

namespace {

constexpr auto kServiceDeadline = std::chrono::seconds(60);
constexpr int kModemChannel = 0;
constexpr int kAtChannel = 1;
constexpr int kUartChannel = 2;

std::string take_datagrams(int fd) {
    std::string text;
    std::string datagram(65536, '\0');
    ssize_t got = 0;
    while ((got = recv(fd, datagram.data(), datagram.size(), MSG_DONTWAIT)) >= 0) {
        text.append(datagram, 0, static_cast<std::size_t>(got));
    }
    return text;
}

std::string take_heard(MuxLink& link, int dlci) {
    const std::string text = link.host().heard(dlci);
    link.host().take(dlci, text);
    return text;
}

std::string make_folder() {
    std::string folder = (std::filesystem::temp_directory_path() / "vexa-road-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) {
        throw ExpectationFailed("no folder for the QMI service's socket: " + folder);
    }
    return folder;
}

}  // namespace

Road udp_road(Module& module) {
    auto client = std::make_shared<UdpClient>(module.udp_client());
    return {.name = "udp",
            .channel = kAtChannel,
            .is_diverted = true,
            .send = [client](std::string_view line) { client->send(line); },
            .take = [client] { return take_datagrams(client->fd()); }};
}

void open_both_channels(Module& module, MuxLink& link) {
    (void)link.open();
    (void)link.send(bench::kMuxDialChannel, "ATD*99#\r");
    module.modem_channel().expect("ATD*99#\r");
    module.modem_channel().send("\r\nNO CARRIER\r\n");
    (void)link.expect(bench::kMuxDialChannel, "\r\nNO CARRIER\r\n");
}

Road mux_road(MuxLink& link) {
    return {
        .name = "mux",
        .channel = kUartChannel,
        .takes_back = true,
        .send =
            [&link](std::string_view line) { (void)link.send(bench::kMuxCommandChannel, line); },
        .take =
            [&link] {
                // What comes outside frames is nobody's answer.
                const std::string stray = link.host().stray();
                link.host().take_stray(stray);
                return stray + take_heard(link, bench::kMuxCommandChannel);
            }};
}

Road modem_beside_mux_road(Module& module, MuxLink& link) {
    HostPort& host = module.modem_port();
    return {.name = "modem*",
            .channel = kModemChannel,
            .send = [&host](std::string_view line) { host.write(line); },
            .take =
                [&host, &link] {
                    const std::string text = host.received();
                    host.forget_received();
                    return text + take_heard(link, bench::kMuxDialChannel);
                }};
}

// Answers come on a thread of the client's.
struct QmiRoad::Client {
    std::mutex mutex;
    std::string heard;
    bench::QmiAtClient client{[this](const std::string& text) { hear(text); }};

    void hear(const std::string& text) {
        const std::lock_guard lock(mutex);
        heard += text;
    }
    std::string take() {
        const std::lock_guard lock(mutex);
        return std::exchange(heard, {});
    }
};

QmiRoad::QmiRoad(Module& module)
    : module_(module), folder_(make_folder()), socket_(folder_ + "/service") {
    // The client library looks for the service there.
    setenv("VEXA_QMI_SOCKET", socket_.c_str(), 1);
    host_ = module_.start_program("vexa-qmi-host", {"--socket", socket_});
    connect();
}

QmiRoad::~QmiRoad() {
    client_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

void QmiRoad::connect() {
    client_ = std::make_unique<Client>();
    if (!client_->client.connect(kServiceDeadline)) {
        module_.fail("the QMI service does not take a client", Here::current());
    }
}

void QmiRoad::disconnect() {
    client_.reset();
}

Road QmiRoad::road() {
    return {.name = "qmi",
            .channel = kAtChannel,
            .is_diverted = true,
            .send =
                [this](std::string_view line) {
                    Client* client = client_.get();
                    client->client.ask_later(line, [client](const bench::QmiAnswer& answer) {
                        if (answer.arrived) {
                            client->hear(answer.text);
                        }
                    });
                },
            .take = [this] { return client_ ? client_->take() : std::string(); }};
}
