// The host's side of a recording (docs/recording.md): what was done, and what was to be answered.
// Pure but for reading the file; whatever is in it, the result is bounded by its size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace bench {

// A way on which the daemon answers: a host port's place, "qmi", or "udp" and the client's name.
using StreamName = std::string;

struct RecordedStep {
    enum class Kind {
        typed,
        datagram,
        qmi_request,
        unplug,
        plug,
        platform_stop,
        platform_start,
        lines,
        mhi,
        scenario
    };
    Kind kind = Kind::typed;
    std::int64_t time = 0;  // microseconds since the first line
    std::size_t line = 0;   // of the file, from 1
    std::string place;      // port, or the UDP client
    std::string text;       // bytes, line names, change, scenario
    std::string name;       // of a scenario
    int channel = 0;        // of mhi
    // Bytes that had been answered before, on each way that said more since the step before.
    std::map<StreamName, std::size_t> answered;
};

struct RecordedAnswer {
    std::size_t offset = 0;  // in its way's bytes
    std::size_t line = 0;
};

struct RecordedStream {
    std::string bytes;
    std::vector<RecordedAnswer> pieces;  // where the bytes stand in the file
    // The line of the file that holds a byte.
    std::size_t line_of(std::size_t offset) const;
};

struct RecordedSession {
    int target = 35;
    bool pcie = false;
    bool platform = true;
    double platform_after = 0;  // seconds
    std::string scenario;       // text
    std::string platform_scenario;
    std::vector<RecordedStep> steps;
    std::map<StreamName, RecordedStream> streams;
    std::vector<std::size_t> passed_over;  // lines of the file that are none
    std::string error;                     // empty when all is well, else what is wrong and where
};

RecordedSession load_session(const std::string& path);

}  // namespace bench
