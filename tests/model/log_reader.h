// What the daemon's log tells of its work beside the bytes: how large each read of a host port was,
// and how far the threads are that wait for no device.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "conversation.h"
#include "module.h"

namespace model {

class LogReader {
  public:
    // Takes in what was written since the last call.
    void read(Module& module);
    // Sizes of the reads since the last call.
    std::vector<std::size_t> take_reads(int device);
    // Answers of the platform that were dealt with.
    [[nodiscard]] int answers() const { return answers_; }
    // How often the UDP server began to wait for a datagram.
    [[nodiscard]] int datagram_waits() const { return datagram_waits_; }
    [[nodiscard]] bool has_report() const { return has_report_; }

  private:
    void take_line(const std::string& line);

    std::size_t taken_ = 0;
    std::string unfinished_;
    std::array<std::vector<std::size_t>, kHostDevices> reads_;
    int answers_ = 0;
    int datagram_waits_ = 0;
    bool has_report_ = false;
};

}  // namespace model
