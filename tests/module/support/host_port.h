// The host computer's end of one of the module's ports: a byte stream.
#pragma once

#include <string>
#include <string_view>

#include "here.h"
#include "module_space.h"

class Module;

class HostPort {
  public:
    HostPort(Module& module, std::string path) : module_(module), path_(std::move(path)) {}

    const std::string& path() const { return path_; }

    // All of it, serving the module's other ends while the port is full.
    void write(std::string_view bytes, Here here = Here::current());
    // The next bytes are exactly these; the first one that differs fails the test.
    void expect(std::string_view bytes, Here here = Here::current());
    // Whatever comes until this text has come; gives all of it back, the text included.
    std::string expect_up_to(std::string_view text, Here here = Here::current());
    // What has come and was not yet expected. For messages; absence is shown by a later marker.
    const std::string& received() const { return received_; }
    void forget_received() { received_.clear(); }

    // The device goes away: the daemon's end is hung up and its path is gone.
    void unplug();
    // It is there (again), with nothing in it.
    void plug();
    // Gone and back in one step: the new device stands at the path before the old one hangs up.
    void replug();
    // The host leaves what comes where it is, until the port is full, and goes on.
    void stop_reading() { reads_ = false; }
    void read_on() { reads_ = true; }
    // As seen from outside, e.g. for a terminal program.
    int fd() const { return pty_ ? pty_->master.get() : -1; }
    // The module's end, held open beside the daemon's: its settings and what waits to be read.
    int slave_fd() const { return pty_ ? pty_->slave.get() : -1; }

  private:
    friend class Module;
    void take_input();

    Module& module_;
    std::string path_;
    std::optional<bench::Pty> pty_;
    bool reads_ = true;
    std::string received_;
};
