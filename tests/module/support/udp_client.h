// A client of the daemon's UDP server, inside the module's network.
#pragma once

#include <string>
#include <string_view>

#include "here.h"
#include "unique_fd.h"

class Module;

class UdpClient {
  public:
    UdpClient(Module& module, bench::UniqueFd socket)
        : module_(module), socket_(std::move(socket)) {}

    void send(std::string_view datagram);
    // The next datagram is exactly this.
    void expect(std::string_view datagram, Here here = Here::current());
    std::string expect_datagram(Here here = Here::current());
    int fd() const { return socket_.get(); }

  private:
    Module& module_;
    bench::UniqueFd socket_;
};
