#include "log_reader.h"

#include <cstdlib>
#include <utility>

namespace model {
namespace {

constexpr std::array kReads{
    "read from '/dev/at_usb0' num_read ", "read from '/dev/at_usb1' num_read ",
    "read from '/dev/ttyMSM1' num_read ", "read from '/dev/mhi_pipe_32' num_read "};
constexpr const char* kAnswered = " app-plat<<<";
constexpr const char* kWaits = "recv_udp_cmd_from_client before wait";

}  // namespace

void LogReader::read(Module& module) {
    const std::string more = module.log_from(taken_);
    taken_ += more.size();
    unfinished_ += more;
    std::size_t from = 0;
    for (auto end = unfinished_.find('\n'); end != std::string::npos;
         end = unfinished_.find('\n', from)) {
        take_line(unfinished_.substr(from, end - from));
        from = end + 1;
    }
    unfinished_.erase(0, from);
}

// Threads write at the same time: two messages may share a line, but none is cut.
void LogReader::take_line(const std::string& line) {
    for (std::size_t device = 0; device < kReads.size(); ++device) {
        if (const auto at = line.find(kReads[device]); at != std::string::npos) {
            const std::string size = line.substr(at + std::string(kReads[device]).size());
            reads_[device].push_back(
                static_cast<std::size_t>(std::strtoul(size.c_str(), nullptr, 10)));
        }
    }
    answers_ += line.find(kAnswered) != std::string::npos ? 1 : 0;
    datagram_waits_ += line.find(kWaits) != std::string::npos ? 1 : 0;
    has_report_ = has_report_ || line.find("Sanitizer:") != std::string::npos ||
                  line.find("runtime error:") != std::string::npos;
}

std::vector<std::size_t> LogReader::take_reads(int device) {
    return std::exchange(reads_[static_cast<std::size_t>(device)], {});
}

}  // namespace model
