// The app platform's end of the three connections: every byte that comes, port by port.
#pragma once

#include <array>
#include <map>
#include <string>
#include <vector>

#include "conversation.h"
#include "module.h"

namespace model {

class PlatformEnd {
  public:
    PlatformEnd(Module& module, bool listens);
    ~PlatformEnd();
    PlatformEnd(const PlatformEnd&) = delete;
    PlatformEnd& operator=(const PlatformEnd&) = delete;

    // On the port's connection, in one write.
    void send(int port, const std::vector<Pack>& packs);
    // What has come since the last call.
    std::string take(int port);
    // Whether a connection began otherwise than with one of the three port reports.
    [[nodiscard]] bool had_stranger() const { return had_stranger_; }

  private:
    struct Connection {
        bench::UniqueFd fd;
        int port = -1;
        std::string unread;  // until the port is known
    };

    void accept_connection();
    void take_input(int id);
    void drop(int id);
    int find(int port) const;

    Module& module_;
    bench::UniqueFd listener_;
    std::map<int, Connection> connections_;
    int next_id_ = 0;
    std::array<std::string, kPorts> come_;
    bool had_stranger_ = false;
};

}  // namespace model
