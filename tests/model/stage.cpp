#include "stage.h"

#include <sys/socket.h>

#include <algorithm>
#include <deque>
#include <numeric>
#include <optional>

#include "log_reader.h"
#include "module.h"
#include "pcie_module.h"
#include "platform_end.h"
#include "scenario.h"

namespace model {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kRound = 1ms;
// 5 s by the rules, and some more.
constexpr auto kHeldUp = 6s;
constexpr std::array kHostPaths{"/dev/at_usb0", "/dev/at_usb1", "/dev/ttyMSM1", "/dev/mhi_pipe_32"};
constexpr std::array kChannelPaths{"/dev/at_mdm0", "/dev/smd7", "/dev/smd8"};
constexpr const char* kConnected =
    "MHI_CHANNEL_STATE_32=CONNECTED\nMHI_CHANNEL_STATE_33=CONNECTED\n";

void append(std::string& to, const std::string& more) {
    to += more;
}
void append(std::vector<std::string>& to, const std::vector<std::string>& more) {
    to.insert(to.end(), more.begin(), more.end());
}

void append(Seen& to, const Seen& more) {
    const auto each = [](auto& all, const auto& new_ones) {
        for (std::size_t index = 0; index < all.size(); ++index) {
            append(all[index], new_ones[index]);
        }
    };
    each(to.hosts, more.hosts);
    each(to.channels, more.channels);
    each(to.platform, more.platform);
    each(to.clients, more.clients);
}

template <typename Sequence>
bool is_beginning(const Sequence& part, const Sequence& whole) {
    return part.size() <= whole.size() && std::equal(part.begin(), part.end(), whole.begin());
}

std::string shown(const std::string& bytes) {
    return "\"" + bench::visible(bytes) + "\"";
}
std::string shown(const std::vector<std::string>& pieces) {
    std::string text;
    for (const std::string& piece : pieces) {
        text += (text.empty() ? "" : ", ") + shown(piece);
    }
    return "[" + text + "]";
}

long size_of(const std::string& bytes) {
    return static_cast<long>(bytes.size());
}
long size_of(const std::vector<std::string>& pieces) {
    return std::accumulate(pieces.begin(), pieces.end(), 0L,
                           [](long sum, const std::string& piece) { return sum + size_of(piece); });
}

// Calls `look(name, wanted, come)` for every boundary.
template <typename Look>
void at_each_boundary(const Seen& wanted, const Seen& come, Look look) {
    const auto each = [&](Who who, const auto& want, const auto& have) {
        for (std::size_t index = 0; index < want.size(); ++index) {
            look(name_of(who, index), want[index], have[index]);
        }
    };
    each(Who::host, wanted.hosts, come.hosts);
    each(Who::cp, wanted.channels, come.channels);
    each(Who::platform, wanted.platform, come.platform);
    each(Who::client, wanted.clients, come.clients);
}

long bytes_in(const Seen& seen) {
    long bytes = 0;
    at_each_boundary(seen, seen,
                     [&](const auto&, const auto& want, const auto&) { bytes += size_of(want); });
    return bytes;
}

// Each by another thread of the daemon's: two chunks for one could be read as one.
bool are_apart(const std::vector<Step>& steps) {
    const auto reader = [](const Step& step) {
        return std::pair(step.who, step.who == Who::client ? 0 : step.place);
    };
    for (std::size_t one = 0; one < steps.size(); ++one) {
        for (std::size_t other = 0; other < one; ++other) {
            if (reader(steps[one]) == reader(steps[other])) {
                return false;
            }
        }
    }
    return true;
}

ModuleOptions module_options(bool pcie) {
    ModuleOptions options = pcie ? pcie_options(kConnected) : ModuleOptions{};
    options.start = false;
    return options;
}

class Stage {
  public:
    Stage(const Conversation& conversation, const PlayOptions& options)
        : conversation_(conversation),
          options_(options),
          module_(module_options(conversation.world.pcie)),
          platform_(module_, conversation.world.platform),
          model_(conversation.world, options.broken) {}

    PlayResult play();

  private:
    struct Group {
        std::vector<Step> steps;
        Seen wanted;
        bool is_held_up = false;
    };

    void start();
    std::size_t play_from(std::size_t index);
    std::optional<PlainModel> take_in_any_order(const std::vector<Step>& steps, Seen& wanted) const;
    void play_group(const Group& group);
    void play_one(const Step& step);
    void play_end();
    void carry_out(const Step& step);
    void wait_for(const Group& group);
    bool is_over() const { return result_.differs || result_.torn; }
    bool collect();
    bool differs_from(const Seen& wanted, bool whole);
    bool is_all_there(const Seen& wanted);
    bool is_at_rest();
    void differ(const std::string& place, const std::string& what);

    const Conversation& conversation_;
    PlayOptions options_;
    PlayResult result_;
    Module module_;
    PlatformEnd platform_;
    PlainModel model_;
    LogReader log_;
    std::array<int, kHostDevices> host_polls_{};
    std::array<int, kPorts> channel_polls_{};
    std::array<std::deque<std::size_t>, kHostDevices> typed_;  // sizes the daemon has not read yet
    std::vector<UdpClient> clients_;
    Seen come_;
};

void Stage::start() {
    module_.start();
    for (int client = 0; client < kClients; ++client) {
        clients_.push_back(module_.udp_client());
    }
    if (conversation_.world.pcie) {
        module_.wait_until([&] { return module_.device(kMhiPipe).polls() > 0; }, "the pipe");
    }
    wait_for({{}, model_.at_start(), false});
    for (std::size_t at = 0; at < kHostPaths.size(); ++at) {
        host_polls_[at] = module_.device(kHostPaths[at]).polls();
    }
    for (std::size_t at = 0; at < kChannelPaths.size(); ++at) {
        channel_polls_[at] = module_.device(kChannelPaths[at]).polls();
    }
}

PlayResult Stage::play() {
    start();
    for (std::size_t index = 0; index < conversation_.steps.size() && !is_over();) {
        index = play_from(index);
    }
    if (!is_over()) {
        play_end();
    }
    result_.counts.conversations = result_.torn ? 0 : 1;
    result_.counts.torn = result_.torn ? 1 : 0;
    return result_;
}

// One step, or those that go together; the index of the next one.
std::size_t Stage::play_from(std::size_t index) {
    const auto& steps = conversation_.steps;
    std::size_t end = index + 1;
    while (end < steps.size() && steps[end].together) {
        ++end;
    }
    std::vector<Step> group(steps.begin() + static_cast<long>(index),
                            steps.begin() + static_cast<long>(end));
    Seen wanted;
    result_.step = index;
    const auto after =
        group.size() > 1 && are_apart(group) ? take_in_any_order(group, wanted) : std::nullopt;
    if (after) {
        model_ = *after;
        result_.counts.together += static_cast<long>(group.size());
        play_group({group, wanted, false});
        return end;
    }
    for (; index < end && !is_over(); ++index) {
        result_.step = index;
        play_one(steps[index]);
    }
    return end;
}

// The model after all of them, when it and what is seen are the same whatever comes first.
std::optional<PlainModel> Stage::take_in_any_order(const std::vector<Step>& steps,
                                                   Seen& wanted) const {
    std::vector<std::size_t> order(steps.size());
    std::iota(order.begin(), order.end(), 0U);
    std::optional<PlainModel> after;
    do {
        PlainModel one = model_;
        Seen all;
        for (const std::size_t at : order) {
            const auto seen = one.take(steps[at]);
            if (!seen || one.times_held() > model_.times_held()) {
                return std::nullopt;
            }
            append(all, *seen);
        }
        if (after && (!(*after == one) || !(wanted == all))) {
            return std::nullopt;
        }
        after = one;
        wanted = all;
    } while (std::next_permutation(order.begin(), order.end()));
    return after;
}

void Stage::play_one(const Step& step) {
    const int held = model_.times_held();
    if (const auto wanted = model_.take(step)) {
        play_group({{step}, *wanted, model_.times_held() > held});
    }
}

void Stage::play_group(const Group& group) {
    for (const Step& step : group.steps) {
        carry_out(step);
    }
    wait_for(group);
    if (is_over()) {
        return;
    }
    result_.counts.steps += static_cast<long>(group.steps.size());
    result_.counts.bytes += bytes_in(group.wanted);
}

// Whatever was still on its way would stand before what each boundary sees now.
void Stage::play_end() {
    result_.step = conversation_.steps.size();
    const auto one = [this](Who who, int place, const std::string& bytes) {
        Step step{.who = who, .place = place, .bytes = bytes, .packs = {}};
        if (who == Who::platform) {
            step.packs.push_back({0, bytes});
        }
        if (!is_over()) {
            play_one(step);
        }
    };
    for (int port = 0; port < kPorts; ++port) {
        // The commands of a line that was split.
        for (int commands = 0; commands < 3 && model_.is_waiting(port); ++commands) {
            one(Who::cp, port, "\r\nOK\r\n");
        }
        one(Who::cp, port, "\r\nthe end\r\nOK\r\n");
        one(Who::platform, port, "the end");
        one(Who::host, port, "AT+END?\r");
        one(Who::cp, port, "\r\nOK\r\n");
    }
}

void Stage::carry_out(const Step& step) {
    const auto place = static_cast<std::size_t>(step.place);
    switch (step.who) {
        case Who::host:
            typed_[place].push_back(step.bytes.size());
            return (step.place == kPipe ? module_.pcie_pipe() : module_.host_port(step.place))
                .write(step.bytes);
        case Who::cp:
            return module_.channel(step.place).send(step.bytes);
        case Who::platform:
            return platform_.send(step.place, step.packs);
        case Who::client:
            return clients_[place].send(step.bytes);
    }
}

void Stage::wait_for(const Group& group) {
    const auto held_up = group.is_held_up ? Clock::duration(kHeldUp) : 0s;
    const auto deadline = Clock::now() + options_.deadline + held_up;
    auto worked = Clock::now() + held_up;
    while (!is_over()) {
        // At rest first: what came before that is then collected.
        const bool rests = is_at_rest();
        module_.serve(rests && is_all_there(group.wanted) ? 0ms : kRound);
        const bool came = collect();
        if (is_over() || differs_from(group.wanted, false)) {
            return;
        }
        if (rests && is_all_there(group.wanted)) {
            come_ = {};
            return;
        }
        if (!module_.daemon_runs()) {
            return differ("daemon", "the daemon ended");
        }
        const auto now = Clock::now();
        worked = came || !rests ? std::max(worked, now) : worked;
        if (now < deadline && now < worked + options_.rest) {
            continue;
        }
        result_.late = true;
        if (!differs_from(group.wanted, true)) {
            differ("rest", "everything came, and the daemon is still at work");
        }
    }
}

// True: something came.
bool Stage::collect() {
    const Seen before = come_;
    for (int device = 0; device < kHostDevices; ++device) {
        HostPort& port = device == kPipe ? module_.pcie_pipe() : module_.host_port(device);
        come_.hosts[static_cast<std::size_t>(device)] += port.received();
        port.forget_received();
    }
    for (int index = 0; index < kPorts; ++index) {
        ModemChannel& channel = module_.channel(index);
        auto& messages = come_.channels[static_cast<std::size_t>(index)];
        messages.insert(messages.end(), channel.received().begin(), channel.received().end());
        channel.forget_received();
        come_.platform[static_cast<std::size_t>(index)] += platform_.take(index);
    }
    std::string datagram(65536, '\0');
    for (std::size_t client = 0; client < clients_.size(); ++client) {
        ssize_t got = 0;
        while ((got = recv(clients_[client].fd(), datagram.data(), datagram.size(),
                           MSG_DONTWAIT)) >= 0) {
            come_.clients[client].push_back(datagram.substr(0, static_cast<std::size_t>(got)));
        }
    }
    return !(before == come_);
}

bool Stage::differs_from(const Seen& wanted, bool whole) {
    if (platform_.had_stranger()) {
        differ("platform", "a connection of no port");
        return true;
    }
    at_each_boundary(wanted, come_, [&](const auto& place, const auto& want, const auto& have) {
        if (!result_.differs && (!is_beginning(have, want) || (whole && have != want))) {
            differ(place, place + ": expected " + shown(want) + "\n" +
                              std::string(place.size(), ' ') + "       got " + shown(have));
        }
    });
    return result_.differs;
}

bool Stage::is_all_there(const Seen& wanted) {
    return wanted == come_;
}

// Every reader waits for the next bytes, and the log says the same of the threads without a device.
bool Stage::is_at_rest() {
    log_.read(module_);
    for (int device = 0; device < kHostDevices; ++device) {
        for (const std::size_t size : log_.take_reads(device)) {
            auto& typed = typed_[static_cast<std::size_t>(device)];
            if (typed.empty() || typed.front() != size) {
                result_.torn = true;
                return false;
            }
            typed.pop_front();
        }
    }
    if (log_.has_report()) {
        differ("daemon", "a sanitizer reported");
    }
    // What is typed for a command that is waited for counts as read, not as dealt with.
    if (std::any_of(typed_.begin(), typed_.end(),
                    [](const auto& sizes) { return !sizes.empty(); })) {
        return false;
    }
    const Progress& done = model_.progress();
    for (std::size_t at = 0; at < kHostPaths.size(); ++at) {
        if (module_.device(kHostPaths[at]).polls() < host_polls_[at] + done.chunks[at]) {
            return false;
        }
    }
    for (std::size_t at = 0; at < kChannelPaths.size(); ++at) {
        if (module_.device(kChannelPaths[at]).polls() < channel_polls_[at] + done.messages[at]) {
            return false;
        }
    }
    return log_.answers() >= done.answers && log_.datagram_waits() > done.datagrams;
}

void Stage::differ(const std::string& place, const std::string& what) {
    result_.differs = true;
    result_.place = place;
    result_.what = what;
}

}  // namespace

void PlayCounts::add(const PlayCounts& more) {
    conversations += more.conversations;
    steps += more.steps;
    together += more.together;
    bytes += more.bytes;
    torn += more.torn;
}

PlayResult play(const Conversation& conversation, const PlayOptions& options) {
    try {
        return Stage(conversation, options).play();
    } catch (const ExpectationFailed& failure) {
        PlayResult result;
        result.differs = true;
        result.step = conversation.steps.size();
        result.place = "module";
        result.what = failure.what();
        return result;
    }
}

}  // namespace model
