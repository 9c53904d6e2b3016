// The ptys that every contestant is measured on, and the modem that answers at their far ends.
#pragma once

#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "module_space.h"
#include "ports.h"
#include "unique_fd.h"

namespace compare {

inline constexpr int kPorts = 3;
inline constexpr std::string_view kModemCommand = "AT+CFUN?\r";
inline constexpr std::string_view kModemAnswer = "\r\n+CFUN: 1\r\n\r\nOK\r\n";
inline constexpr std::string_view kPlatformCommand = "AT+CGMR\r";
inline constexpr std::string_view kPlatformAnswer = "\r\nVEXA LTE module\r\n\r\nOK\r\n";
inline constexpr std::string_view kEnd = "\r\nOK\r\n";

// One host port and the modem's channel behind it.
struct Line {
    const char* host_path;
    const char* modem_path;
    bench::Pty host_pty;
    bench::Pty modem_pty;

    [[nodiscard]] int host() const { return host_pty.master.get(); }
    [[nodiscard]] int modem() const { return modem_pty.master.get(); }
};

class Rig {
  public:
    Rig();

    Line& line(int index) { return lines_[static_cast<std::size_t>(index)]; }
    bench::ModuleSpace& space() { return space_; }
    // Whatever is under way on the ptys is thrown away.
    void clean();

  private:
    bench::ModuleSpace space_;
    std::vector<Line> lines_;
};

// The modem at the end of one line: answers each command line at once, until it is destroyed.
class AnsweringModem {
  public:
    explicit AnsweringModem(int fd, std::string answer = std::string(kModemAnswer));
    ~AnsweringModem();
    AnsweringModem(const AnsweringModem&) = delete;
    AnsweringModem& operator=(const AnsweringModem&) = delete;

    // When each command came, in nanoseconds; to be read after finish().
    [[nodiscard]] const std::vector<int64_t>& arrivals() const { return arrivals_; }
    void finish();

  private:
    void serve();

    int fd_;
    std::string answer_;
    bench::UniqueFd stop_;
    std::vector<int64_t> arrivals_;
    std::thread thread_;
};

}  // namespace compare
