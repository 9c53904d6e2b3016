// The app platform as a process of its own, played from a text scenario.
#include <sys/stat.h>
#include <uv.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "command_line.h"
#include "platform_peer.h"

namespace {

using bench::Milliseconds;
using bench::PlatformDelivery;
using Clock = std::chrono::steady_clock;

struct Options {
    std::string path = "/dev/socket/qmux_webs/server_webs";
    std::string scenario;
    std::string record;
    double after_seconds = 0;
};

class Server;

struct Connection {
    uv_pipe_t pipe{};
    Server* server = nullptr;
    int id = 0;
    char buffer[65536];
};

struct Write {
    uv_write_t request{};
    std::string bytes;
};

void check(int result, const char* what) {
    if (result >= 0) {
        return;
    }
    fprintf(stderr, "vexa-platform: %s: %s\n", what, uv_strerror(result));
    exit(1);
}

class Server {
  public:
    Server(bench::Scenario scenario, const Options& options)
        : peer_(std::move(scenario), Clock::now()), options_(options) {
        if (!options_.record.empty()) {
            record_ = fopen(options_.record.c_str(), "ae");
            check(record_ == nullptr ? UV_EIO : 0, options_.record.c_str());
        }
        for (uv_timer_t* timer : {&steps_timer_, &start_timer_}) {
            check(uv_timer_init(uv_default_loop(), timer), "timer");
            timer->data = this;
        }
    }

    void listen_after(Milliseconds delay) {
        check(uv_timer_start(
                  &start_timer_, [](uv_timer_t* timer) { self(timer)->listen(); },
                  static_cast<uint64_t>(delay.count()), 0),
              "start timer");
    }

  private:
    template <typename Handle>
    static Server* self(Handle* handle) {
        return static_cast<Server*>(handle->data);
    }

    void listen() {
        std::filesystem::create_directories(std::filesystem::path(options_.path).parent_path());
        // What an earlier life of this platform left behind would be "in use" for ever.
        if (std::filesystem::is_socket(options_.path)) {
            std::filesystem::remove(options_.path);
        }
        listener_ = std::make_unique<uv_pipe_t>();
        listener_->data = this;
        check(uv_pipe_init(uv_default_loop(), listener_.get(), 0), "socket");
        check(uv_pipe_bind(listener_.get(), options_.path.c_str()), options_.path.c_str());
        // The daemon may belong to another user.
        chmod(options_.path.c_str(), S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH);
        check(uv_listen(reinterpret_cast<uv_stream_t*>(listener_.get()), 16,
                        [](uv_stream_t* stream, int) { self(stream)->accept(stream); }),
              "listen");
    }

    void accept(uv_stream_t* listener) {
        auto* connection = new Connection;
        connection->server = this;
        connection->id = next_id_++;
        connection->pipe.data = connection;
        check(uv_pipe_init(uv_default_loop(), &connection->pipe, 0), "connection");
        auto* stream = reinterpret_cast<uv_stream_t*>(&connection->pipe);
        check(uv_accept(listener, stream), "accept");
        connections_[connection->id] = connection;
        peer_.connected(connection->id, Clock::now());
        check(uv_read_start(
                  stream,
                  [](uv_handle_t* handle, size_t, uv_buf_t* buffer) {
                      auto* owner = static_cast<Connection*>(handle->data);
                      *buffer = uv_buf_init(owner->buffer, sizeof owner->buffer);
                  },
                  [](uv_stream_t* reader, ssize_t size, const uv_buf_t* buffer) {
                      auto* owner = static_cast<Connection*>(reader->data);
                      owner->server->received(owner, size, buffer->base);
                  }),
              "read");
        carry_out_due();
    }

    void received(Connection* connection, ssize_t size, const char* bytes) {
        if (size == 0) {
            return;
        }
        if (size < 0 ||
            !peer_.received(connection->id, {bytes, static_cast<size_t>(size)}, Clock::now())) {
            close(connection);
            return;
        }
        for (const bench::PlatformRequest& request : peer_.take_requests()) {
            keep(request);
        }
        carry_out_due();
    }

    void keep(const bench::PlatformRequest& request) {
        if (record_ == nullptr) {
            return;
        }
        fprintf(record_, "%s %u %s\n", request.port.c_str(), static_cast<unsigned>(request.kind),
                bench::visible(request.payload).c_str());
        fflush(record_);
    }

    void carry_out_due() {
        for (const PlatformDelivery& delivery : peer_.take_due(Clock::now())) {
            carry_out(delivery);
        }
        const auto due = peer_.next_due();
        if (!due) {
            uv_timer_stop(&steps_timer_);
            return;
        }
        const auto left = std::chrono::ceil<Milliseconds>(*due - std::min(*due, Clock::now()));
        uv_update_time(uv_default_loop());
        check(uv_timer_start(
                  &steps_timer_, [](uv_timer_t* timer) { self(timer)->carry_out_due(); },
                  static_cast<uint64_t>(left.count()), 0),
              "steps timer");
    }

    void carry_out(const PlatformDelivery& delivery) {
        if (delivery.action == PlatformDelivery::Action::restart) {
            restart(delivery.down_for);
            return;
        }
        const auto found = connections_.find(delivery.connection);
        if (found == connections_.end()) {
            return;
        }
        Connection* connection = found->second;
        switch (delivery.action) {
            case PlatformDelivery::Action::write:
                write(connection, delivery.bytes);
                break;
            case PlatformDelivery::Action::half_close:
                shut_down(connection, nullptr);
                break;
            default:
                // What was written before goes out first.
                shut_down(connection, [](uv_shutdown_t* request, int) {
                    auto* owner = static_cast<Connection*>(request->handle->data);
                    delete request;
                    owner->server->close(owner);
                });
        }
    }

    static void write(Connection* connection, const std::string& bytes) {
        auto* write = new Write;
        write->bytes = bytes;
        write->request.data = write;
        const uv_buf_t buffer =
            uv_buf_init(write->bytes.data(), static_cast<unsigned>(write->bytes.size()));
        const int result =
            uv_write(&write->request, reinterpret_cast<uv_stream_t*>(&connection->pipe), &buffer, 1,
                     [](uv_write_t* request, int) { delete static_cast<Write*>(request->data); });
        if (result < 0) {
            delete write;
        }
    }

    static void shut_down(Connection* connection, uv_shutdown_cb then) {
        auto* request = new uv_shutdown_t;
        const auto only_delete = [](uv_shutdown_t* done, int) { delete done; };
        if (uv_shutdown(request, reinterpret_cast<uv_stream_t*>(&connection->pipe),
                        then != nullptr ? then : only_delete) < 0) {
            delete request;
        }
    }

    void close(Connection* connection) {
        auto* handle = reinterpret_cast<uv_handle_t*>(&connection->pipe);
        if (uv_is_closing(handle) != 0) {
            return;
        }
        peer_.closed(connection->id);
        connections_.erase(connection->id);
        uv_close(handle,
                 [](uv_handle_t* closed) { delete static_cast<Connection*>(closed->data); });
    }

    void restart(Milliseconds down_for) {
        while (!connections_.empty()) {
            close(connections_.begin()->second);
        }
        if (listener_ != nullptr) {
            uv_close(reinterpret_cast<uv_handle_t*>(listener_.release()),
                     [](uv_handle_t* closed) { delete reinterpret_cast<uv_pipe_t*>(closed); });
        }
        listen_after(down_for);
    }

    bench::PlatformPeer peer_;
    Options options_;
    FILE* record_ = nullptr;
    uv_timer_t steps_timer_{};
    uv_timer_t start_timer_{};
    std::unique_ptr<uv_pipe_t> listener_;
    std::map<int, Connection*> connections_;
    int next_id_ = 1;
};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("The app platform of a simulated module", "vexa-platform");
    Options options;
    app.add_option("scenario", options.scenario, "Text file: what is answered to what")
        ->required()
        ->check(CLI::ExistingFile);
    app.add_option("--socket", options.path, "Path of the socket")->capture_default_str();
    app.add_option("--after", options.after_seconds, "Seconds before it begins to listen");
    app.add_option("--record", options.record, "File that gets a line for each pack received");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return bench::report_parse_error(app, error);
    }

    bench::ParsedScenario parsed = bench::load_scenario(options.scenario, bench::platform_verbs());
    if (!parsed.error.empty()) {
        fprintf(stderr, "vexa-platform: %s\n", parsed.error.c_str());
        return 1;
    }
    Server server(std::move(parsed.scenario), options);
    server.listen_after(Milliseconds{static_cast<int64_t>(options.after_seconds * 1000)});
    return uv_run(uv_default_loop(), UV_RUN_DEFAULT);
}
