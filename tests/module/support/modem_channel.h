// The modem processor's end of one AT channel: messages, each read and written whole.
#pragma once

#include <deque>
#include <string>
#include <string_view>

#include "here.h"
#include "unique_fd.h"

class Module;

class ModemChannel {
  public:
    ModemChannel(Module& module, std::string path) : module_(module), path_(std::move(path)) {}

    const std::string& path() const { return path_; }

    // The next message is exactly this.
    void expect(std::string_view message, Here here = Here::current());
    std::string expect_message(Here here = Here::current());
    // What came and was not yet expected.
    const std::deque<std::string>& received() const { return received_; }
    void forget_received() { received_.clear(); }
    // One message, up to 16,384 bytes; waits until the daemon has the channel open.
    void send(std::string_view message, Here here = Here::current());

    // The channel goes away, path and all, and comes back.
    void close();
    void open();
    // Only what the daemon has open breaks, waiting until it has; a new open works at once.
    void hang_up(Here here = Here::current());
    // Until the daemon has the channel open.
    void wait_until_open(Here here = Here::current());
    bool is_open() const { return connection_.is_open(); }
    int fd() const { return connection_.get(); }

  private:
    friend class Module;
    void accept_connection();
    void drop_connection();
    void take_input();

    Module& module_;
    std::string path_;
    bench::UniqueFd listener_;
    bench::UniqueFd connection_;
    std::deque<std::string> received_;
};
