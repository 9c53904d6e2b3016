// The modem processor as a script plays it: what comes in on an AT channel, and what goes out when.
// Pure: no clock, no descriptor; the caller carries messages and tells the time.
#pragma once

#include <chrono>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "scenario.h"

namespace bench {

using Time = std::chrono::steady_clock::time_point;

// What a modem scenario's steps may be.
std::span<const Verb> modem_verbs();

struct Delivery {
    int channel = 0;
    bool hang_up = false;  // close the channel instead of sending
    std::string bytes;     // one message
};

class ModemPeer {
  public:
    // One channel per name; a rule's "only" means one of these names.
    ModemPeer(Scenario scenario, std::vector<std::string> channel_names, Time now);

    // One message as the daemon wrote it: a command line, message text, or data.
    void received(int channel, std::string_view message, Time now);
    // A closed channel forgets what it was doing.
    void closed(int channel);

    // When take_due has something next; nothing while the peer only listens.
    std::optional<Time> next_due() const;
    std::vector<Delivery> take_due(Time now);

  private:
    enum class Listening { to_commands, to_text, to_data };
    struct Channel {
        std::string name;
        std::deque<Step> steps;  // still to be carried out, in order
        Time ready_at;           // not before this
        int chunk = 0;           // cut messages to this many bytes; 0: whole
        Listening listening = Listening::to_commands;
        bool echoes_data = false;
        std::deque<std::string> waiting;  // lines that came while steps were left
    };
    struct Timer {
        std::size_t rule;
        Time due;
        bool repeats;
    };

    void begin_line(Channel& channel, std::string_view line, Time now);
    void begin_steps(Channel& channel, const Rule& rule, Time now);
    void end_text(Channel& channel, bool cancelled, Time now);
    void fire_timers(Time now);
    void run(int index, Time now, std::vector<Delivery>& out);
    void carry_out(int index, const Step& step, std::vector<Delivery>& out);

    Scenario scenario_;
    std::vector<Channel> channels_;
    std::vector<Timer> timers_;
    std::vector<int> used_;
    std::vector<Delivery> at_once_;  // echoed data
};

}  // namespace bench
