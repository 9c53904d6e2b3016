#include "session_record.h"

#include <time.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

namespace bench {
namespace {

using Json = nlohmann::ordered_json;

std::string wall_time() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    std::array<char, 32> date;
    strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &utc);
    const std::string microseconds = std::to_string(1'000'000 + now.tv_nsec / 1000);
    return std::string(date.data()) + "." + microseconds.substr(1) + "Z";
}

std::string text_of(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

Json named_text(const std::string& path) {
    return {{"name", std::filesystem::path(path).filename().string()}, {"text", text_of(path)}};
}

// Bytes that are no UTF-8 must not stop a line from being written.
std::string one_line(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

SessionRecord::~SessionRecord() {
    end(-1);
}

bool SessionRecord::create(const BenchOptions& options) {
    if (!writer_.create(options.record.c_str())) {
        return false;
    }
    Json start{{"t", RecordWriter::now()},
               {"at", "bench"},
               {"what", "start"},
               {"version", 1},
               {"wall", wall_time()},
               {"daemon", options.daemon},
               {"target", options.target},
               {"pcie", options.pcie},
               {"platform", options.platform},
               {"platform_after", options.platform_after},
               {"scenario", named_text(options.scenario)},
               {"platform_scenario", named_text(options.platform_scenario)}};
    writer_.line(one_line(start));
    return true;
}

void SessionRecord::typed(std::int64_t time, std::string_view port, std::string_view bytes) {
    writer_.passed(time, port, "typed", bytes);
}

void SessionRecord::typed_datagram(std::int64_t time, std::string_view peer,
                                   std::string_view bytes) {
    writer_.passed(time, "udp", "typed", bytes, {{"peer", peer}});
}

void SessionRecord::log(std::string_view bytes) {
    writer_.passed(time(), "log", "out", bytes);
}

void SessionRecord::qmi_request(std::string_view bytes) {
    writer_.passed(time(), "qmi", "in", bytes, {{"kind", "request"}});
}

void SessionRecord::qmi_answer(std::string_view bytes, int result, int error) {
    RecordFields fields{{"kind", "answer"}};
    if (result != 0 || error != 0) {
        fields.add({"result", std::int64_t{result}});
        fields.add({"error", std::int64_t{error}});
    }
    writer_.passed(time(), "qmi", "out", bytes, fields);
}

void SessionRecord::qmi_indication(std::string_view bytes) {
    writer_.passed(time(), "qmi", "out", bytes, {{"kind", "indication"}});
}

void SessionRecord::done(std::string_view what, const RecordFields& more) {
    writer_.event(time(), "bench", what, more);
}

void SessionRecord::scenario(const std::string& name, const std::string& text) {
    if (is_open()) {
        writer_.line(one_line({{"t", RecordWriter::now()},
                               {"at", "bench"},
                               {"what", "scenario"},
                               {"name", name},
                               {"text", text}}));
    }
}

void SessionRecord::end(int status) {
    if (is_open() && !has_ended_) {
        has_ended_ = true;
        done("end", {{"status", std::int64_t{status}}});
    }
}

}  // namespace bench
