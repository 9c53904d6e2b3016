#include "replay.h"

#include <algorithm>
#include <fstream>

#include "scenario.h"

namespace bench {
namespace {

using namespace std::chrono_literals;
using Kind = RecordedStep::Kind;

constexpr auto kLookAgain = 2ms;
// Answers beyond the recorded ones would come within this time of the last.
constexpr std::int64_t kSurplusTime = 300'000;  // microseconds
constexpr std::size_t kShown = 60;              // bytes of a difference

std::string written(const std::string& folder, const char* name, const std::string& text) {
    std::string path = folder + "/" + name;
    std::ofstream(path) << text;
    return path;
}

int port_of(std::string_view place) {
    const auto* port = std::find_if(kPorts.begin(), kPorts.end(),
                                    [&](const PortName& one) { return place == one.place; });
    return static_cast<int>(port - kPorts.begin());
}

}  // namespace

BenchOptions options_for(const RecordedSession& session, const BenchOptions& given,
                         const std::string& folder) {
    BenchOptions options = given;
    options.target = session.target;
    options.pcie = session.pcie;
    options.platform = session.platform;
    options.platform_after = session.platform_after;
    if (!given.has_own_scenario) {
        options.scenario = written(folder, "modem.txt", session.scenario);
    }
    if (!given.has_own_platform_scenario) {
        options.platform_scenario = written(folder, "platform.txt", session.platform_scenario);
    }
    return options;
}

Replay::Replay(BenchModule& module, const RecordedSession& session)
    : module_(module), session_(session) {}

void Replay::start(std::function<void()> done) {
    done_ = std::move(done);
    listen();
    begun_ = last_progress_ = RecordWriter::now();
    tick();
}

void Replay::listen() {
    for (int port = 0; port < kHostPortCount; ++port) {
        const StreamName stream = kPorts[static_cast<std::size_t>(port)].place;
        module_.on_port_output(port,
                               [this, stream](std::string_view bytes) { heard(stream, bytes); });
    }
}

void Replay::heard(const StreamName& stream, std::string_view bytes) {
    if (is_finished_) {
        return;
    }
    last_progress_ = RecordWriter::now();
    std::size_t& offset = heard_[stream];
    const auto recorded = session_.streams.find(stream);
    const std::string_view wanted =
        recorded == session_.streams.end()
            ? std::string_view()
            : std::string_view(recorded->second.bytes).substr(offset).substr(0, bytes.size());
    const auto same = static_cast<std::size_t>(
        std::mismatch(wanted.begin(), wanted.end(), bytes.begin(), bytes.end()).first -
        wanted.begin());
    if (same == bytes.size()) {
        offset += bytes.size();
        return;
    }
    const std::string expected =
        same == wanted.size()
            ? "nothing more"
            : "\"" +
                  visible(std::string_view(recorded->second.bytes).substr(offset + same, kShown)) +
                  "\" (line " + std::to_string(recorded->second.line_of(offset + same)) + ")";
    differ("on " + stream + ", after " + std::to_string(offset + same) + " bytes that agree" +
           after_what() + "\n  recorded: " + expected + "\n  now:      \"" +
           visible(bytes.substr(same, kShown)) + "\"");
}

void Replay::tick() {
    if (is_finished_) {
        return;
    }
    while (!is_finished_ && carry_out_next()) {
    }
    if (!is_finished_) {
        module_.loop().after(kLookAgain, [this] { tick(); });
    }
}

// True when the next step was carried out. Else it has to wait, or nothing is left.
bool Replay::carry_out_next() {
    const std::int64_t now = RecordWriter::now();
    if (next_ == session_.steps.size()) {
        if (!has_answers(all_answers())) {
            give_up_late(now, all_answers());
        } else if (now - last_progress_ > kSurplusTime) {
            finish();
        }
        return false;
    }
    const RecordedStep& step = session_.steps[next_];
    if (!has_answers(step.answered) || !is_read(step)) {
        give_up_late(now, step.answered);
        return false;
    }
    last_progress_ = now;
    if (!module_.options().fast && now - begun_ < step.time - session_.steps.front().time) {
        return false;
    }
    ++next_;
    if (!carry_out(step)) {
        differ("line " + std::to_string(step.line) + " cannot be done: " + module_.error());
    }
    return true;
}

bool Replay::has_answers(const std::map<StreamName, std::size_t>& wanted) const {
    return std::all_of(wanted.begin(), wanted.end(), [this](const auto& one) {
        const auto found = heard_.find(one.first);
        return found != heard_.end() && found->second >= one.second;
    });
}

std::map<StreamName, std::size_t> Replay::all_answers() const {
    std::map<StreamName, std::size_t> all;
    for (const auto& [name, stream] : session_.streams) {
        all[name] = stream.bytes.size();
    }
    return all;
}

// What was typed in two pieces must not be read as one.
bool Replay::is_read(const RecordedStep& step) const {
    return step.kind != Kind::typed || module_.is_port_read(port_of(step.place));
}

bool Replay::carry_out(const RecordedStep& step) {
    switch (step.kind) {
        case Kind::typed:
            module_.write_port(port_of(step.place), step.text);
            return true;
        case Kind::datagram:
            return send_on_road("udp " + step.place, "udp", step.text);
        case Kind::qmi_request:
            return send_on_road("qmi", "qmi", step.text);
        case Kind::unplug:
            return module_.unplug(step.place);
        case Kind::plug:
            return module_.plug(step.place);
        case Kind::platform_stop:
            return module_.stop_platform();
        case Kind::platform_start:
            return module_.start_platform();
        case Kind::lines:
            return module_.set_lines(step.place, step.text);
        case Kind::mhi:
            return module_.change_mhi(step.text, step.channel);
        case Kind::scenario:
            return module_.use_scenario_text(step.name, step.text);
    }
    return false;
}

// A UDP client of its own for every recorded one; one QMI client. Made when first needed.
bool Replay::send_on_road(const StreamName& stream, const std::string& kind,
                          const std::string& text) {
    auto& road = roads_[stream];
    if (road == nullptr) {
        road = make_road(kind, module_);
        road->on_output([this, stream](std::string_view bytes) { heard(stream, bytes); });
        if (!road->open([] {})) {
            differ(stream + " cannot be reached: " + road->error());
            return true;
        }
    }
    road->send(text);
    return true;
}

void Replay::differ(const std::string& what) {
    if (difference_.empty()) {
        difference_ = what;
    }
    finish();
}

// The last thing the host did, for people who look for the command.
std::string Replay::after_what() const {
    if (next_ == 0) {
        return "";
    }
    const RecordedStep& step = session_.steps[next_ - 1];
    return ", after line " + std::to_string(step.line) + " (" + step.place +
           (step.place.empty() ? "" : " ") + "\"" + visible(step.text.substr(0, kShown)) + "\")";
}

void Replay::give_up_late(std::int64_t now, const std::map<StreamName, std::size_t>& wanted) {
    if (now - last_progress_ < static_cast<std::int64_t>(module_.options().time_out * 1e6)) {
        return;
    }
    for (const auto& [name, size] : wanted) {
        const std::size_t got = heard_[name];
        if (got < size) {
            const RecordedStream& stream = session_.streams.at(name);
            differ("on " + name + ", after " + std::to_string(got) + " bytes that agree" +
                   after_what() + "\n  recorded: \"" +
                   visible(std::string_view(stream.bytes).substr(got, kShown)) + "\" (line " +
                   std::to_string(stream.line_of(got)) + ")\n  now:      nothing");
            return;
        }
    }
    differ("the daemon does not read what was typed" + after_what());
}

void Replay::finish() {
    if (!is_finished_) {
        is_finished_ = true;
        done_();
    }
}

std::string Replay::report() const {
    if (!difference_.empty()) {
        return "first difference " + difference_;
    }
    std::size_t bytes = 0;
    for (const auto& [name, size] : heard_) {
        bytes += size;
    }
    return "the same answers: " + std::to_string(session_.steps.size()) + " steps, " +
           std::to_string(bytes) + " bytes on " + std::to_string(heard_.size()) + " ways";
}

}  // namespace bench
