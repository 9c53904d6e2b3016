#include "numbered_traffic.h"

#include <algorithm>
#include <array>
#include <climits>

namespace {

using namespace std::chrono_literals;

constexpr std::string_view kModemCommand = "AT+CFUN=";
constexpr std::string_view kPlatformCommand = "AT+CSQ=";
constexpr std::string_view kEnd = "\r\n\r\nOK\r\n";
constexpr std::array<const char*, 3> kPlatformPorts{"modem", "at", "uart"};
constexpr int kAtChannel = 1;
// The daemon waits 10 s at most for an answer, and a command may stand behind another one.
constexpr auto kLostAfter = 60s;
// Of a wait of 5 s or 10 s; a machine that is merely busy takes a command sooner.
constexpr auto kRanOut = 4s;
constexpr std::size_t kMostComplaints = 4000;

// The last command's number; 0 when there is none.
long number_in(std::string_view line) {
    const std::size_t at = line.rfind('=');
    return at == line.npos ? 0 : std::atol(std::string(line.substr(at + 1)).c_str());
}

std::string answer_text(long number, const char* peer) {
    return "\r\n+N: " + std::to_string(number) + " " + peer + std::string(kEnd);
}

}  // namespace

NumberedTraffic::NumberedTraffic(Module& module, FakePlatform& platform)
    : module_(module), platform_(platform) {
    platform_.answer = [this](const bench::PlatformRequest& request) {
        if (platform_is_silent_) {
            return std::string();
        }
        const auto port = std::find(kPlatformPorts.begin(), kPlatformPorts.end(), request.port);
        const auto channel = static_cast<int>(port - kPlatformPorts.begin());
        return bench::encode_pack(bench::PackKind::command,
                                  answer_to(request.payload, channel, "platform"));
    };
}

NumberedTraffic::~NumberedTraffic() {
    platform_.answer = nullptr;
}

void NumberedTraffic::add(Road road) {
    for (Lane& lane : lanes_) {
        if (lane.road.name == road.name) {
            lane.road = std::move(road);
            lane.text.clear();
            lane.number = 0;
            return;
        }
    }
    lanes_.emplace_back();
    lanes_.back().road = std::move(road);
}

void NumberedTraffic::add_host_port(int index) {
    HostPort& host = module_.host_port(index);
    const bool is_pipe = index == 3;
    add({.name = is_pipe ? "pipe" : kPlatformPorts[static_cast<std::size_t>(index)],
         .channel = is_pipe ? kAtChannel : index,
         .takes_back = index != 0,
         .send = [&host](std::string_view line) { host.write(line); },
         .take =
             [&host] {
                 std::string text = host.received();
                 host.forget_received();
                 return text;
             }});
}

void NumberedTraffic::finish(const std::string& name, Here here) {
    Lane& lane = this->lane(name);
    lane.finishing = true;
    module_.wait_until(
        [&] {
            step(0ms);
            return lane.number == 0;
        },
        "the answer on the road " + name, here);
    lane.finishing = false;
    lane.paused = true;
}

void NumberedTraffic::resume(const std::string& name) {
    Lane& lane = this->lane(name);
    lane.road.take();
    lane.text.clear();
    lane.paused = false;
}

NumberedTraffic::Lane& NumberedTraffic::lane(const std::string& name) {
    for (Lane& lane : lanes_) {
        if (lane.road.name == name) {
            return lane;
        }
    }
    throw ExpectationFailed("no road " + name);
}

std::string NumberedTraffic::answer_to(std::string_view line, int channel, const char* peer) {
    const long number = number_in(line);
    for (Lane& lane : lanes_) {
        if (number == 0 || lane.number != number) {
            continue;
        }
        if (lane.road.channel != channel) {
            complain(lane, std::string("was brought to another port of the ") + peer);
        }
        if (!lane.seen && Clock::now() - lane.sent > kRanOut) {
            ++lane.counts.late_waits;
        }
        lane.seen = true;
    }
    return answer_text(number, peer);
}

// A line may come in pieces.
void NumberedTraffic::speak_as_modem() {
    for (int index = 0; index < 3; ++index) {
        ModemChannel& channel = module_.channel(index);
        std::string& line = lines_[index];
        if (silent_[index]) {
            continue;
        }
        while (!channel.received().empty()) {
            line += channel.expect_message();
            if (!line.ends_with('\r')) {
                continue;
            }
            const std::string answer = answer_to(line, index, "modem");
            line.clear();
            channel.send(answer);
        }
    }
}

void NumberedTraffic::complain(Lane& lane, const std::string& what) {
    ++lane.counts.misroutes;
    if (complaints_.size() < kMostComplaints) {
        complaints_ +=
            lane.road.name + ", number " + std::to_string(lane.number) + ": " + what + "\n";
    }
}

void NumberedTraffic::take_answers(Lane& lane) {
    if (lane.paused) {
        return;
    }
    lane.text += lane.road.take();
    if (lane.text.ends_with(kEnd)) {
        count_answer(lane);
        lane.text.clear();
    }
}

// The platform's answers stand behind an echo of the command.
void NumberedTraffic::count_answer(Lane& lane) {
    std::string_view text = lane.text;
    if (text.starts_with(lane.command)) {
        text.remove_prefix(lane.command.size());
    }
    const bool is_modems = text == answer_text(lane.number, "modem");
    const bool is_platforms = text == answer_text(lane.number, "platform");
    if (lane.number == 0 || (!is_modems && !is_platforms)) {
        complain(lane, "was given \"" + bench::visible(lane.text) + "\"");
    }
    const std::string marker = "+N: " + std::to_string(lane.number) + " ";
    if (lane.number == 0 || text.find(marker) == text.npos) {
        return;
    }
    ++lane.counts.answers;
    ++(is_platforms ? lane.counts.from_platform : lane.counts.from_modem);
    lane.number = 0;
}

void NumberedTraffic::give_up_if_lost(Lane& lane) {
    if (lane.number == 0 || Clock::now() - lane.sent < kLostAfter) {
        return;
    }
    ++lane.counts.losses;
    if (complaints_.size() < kMostComplaints) {
        complaints_ += lane.road.name + ", number " + std::to_string(lane.number) +
                       ": no answer, " + (lane.seen ? "a peer had it\n" : "no peer had it\n");
    }
    lane.number = 0;
    lane.text.clear();
}

// The roads that end on the AT port take turns: by rule the last one who spoke there has its
// answers.
bool NumberedTraffic::is_its_turn(const Lane& lane) const {
    const auto shares_port = [](const Lane& other) { return other.road.channel == kAtChannel; };
    if (!shares_port(lane)) {
        return true;
    }
    const auto longest_quiet =
        std::min_element(lanes_.begin(), lanes_.end(), [&](const Lane& one, const Lane& two) {
            const auto rank = [&](const Lane& any) {
                return shares_port(any) && !any.paused && !any.finishing ? any.last_number
                                                                         : LONG_MAX;
            };
            return rank(one) < rank(two);
        });
    return &*longest_quiet == &lane &&
           std::none_of(lanes_.begin(), lanes_.end(),
                        [&](const Lane& o) { return shares_port(o) && o.number != 0; });
}

// Typing on some host ports takes the AT port's answers back from a client in the module. So
// neither of the two begins while the other's command is on its way there, and they alternate
// while both want to.
bool NumberedTraffic::may_ask(const Lane& lane) const {
    if (settling_ || lane.paused || lane.finishing || lane.number != 0 || !is_its_turn(lane)) {
        return false;
    }
    return std::none_of(lanes_.begin(), lanes_.end(), [&](const Lane& other) {
        if (&other == &lane || other.paused || other.road.channel == lane.road.channel) {
            return false;
        }
        if (lane.road.is_diverted && other.road.takes_back) {
            return other.number != 0 ? !other.seen : !other.spoke;
        }
        if (lane.road.takes_back && other.road.is_diverted) {
            return other.number != 0 || (lane.spoke && is_its_turn(other));
        }
        return false;
    });
}

void NumberedTraffic::ask_next(Lane& lane) {
    lane.number = lane.last_number = ++last_number_;
    lane.spoke = true;
    for (Lane& other : lanes_) {
        if (lane.road.is_diverted && other.road.takes_back) {
            other.spoke = false;
        }
    }
    const bool is_platforms = whom_ == Ask::both && lane.counts.commands % 2 == 1;
    lane.command = std::string(is_platforms ? kPlatformCommand : kModemCommand) +
                   std::to_string(lane.number) + "\r";
    lane.seen = false;
    lane.sent = Clock::now();
    ++lane.counts.commands;
    lane.road.send(lane.command);
}

void NumberedTraffic::step(std::chrono::milliseconds at_most) {
    module_.serve(at_most);
    speak_as_modem();
    for (Lane& lane : lanes_) {
        take_answers(lane);
        give_up_if_lost(lane);
    }
    for (Lane& lane : lanes_) {
        if (may_ask(lane)) {
            ask_next(lane);
        }
    }
}

void NumberedTraffic::run(long answers, Here here) {
    std::map<std::string, long> wanted;
    for (const Lane& lane : lanes_) {
        if (!lane.paused) {
            wanted[lane.road.name] = lane.counts.answers + answers;
        }
    }
    module_.wait_until(
        [&] {
            step(0ms);
            return std::all_of(lanes_.begin(), lanes_.end(), [&](const Lane& lane) {
                return lane.paused || lane.counts.answers >= wanted[lane.road.name];
            });
        },
        std::to_string(answers) + " answers on every road", here);
}

void NumberedTraffic::run_until(const std::function<bool()>& done, const std::string& what,
                                Here here) {
    module_.wait_until(
        [&] {
            step(0ms);
            return done();
        },
        what, here);
}

void NumberedTraffic::settle(Here here) {
    settling_ = true;
    module_.wait_until(
        [&] {
            step(0ms);
            return std::none_of(lanes_.begin(), lanes_.end(),
                                [](const Lane& lane) { return lane.number != 0 && !lane.paused; });
        },
        "the last answers", here);
    settling_ = false;
}

TrafficCounts NumberedTraffic::total() const {
    TrafficCounts sum;
    for (const Lane& lane : lanes_) {
        sum.commands += lane.counts.commands;
        sum.answers += lane.counts.answers;
        sum.from_modem += lane.counts.from_modem;
        sum.from_platform += lane.counts.from_platform;
        sum.misroutes += lane.counts.misroutes;
        sum.losses += lane.counts.losses;
        sum.late_waits += lane.counts.late_waits;
    }
    return sum;
}

std::vector<std::pair<std::string, TrafficCounts>> NumberedTraffic::by_road() const {
    std::vector<std::pair<std::string, TrafficCounts>> rows;
    for (const Lane& lane : lanes_) {
        rows.emplace_back(lane.road.name, lane.counts);
    }
    return rows;
}
