// The app platform as a script plays it: the packs that come in on its connections, and what goes
// out when. Pure: no clock, no descriptor; the caller carries bytes and tells the time. The codec
// is this side's own, so that the daemon's is tested against somebody else's reading of the frame.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "scenario.h"

namespace bench {

// What a platform scenario's steps may be.
std::span<const Verb> platform_verbs();

// cmd_type of a pack.
enum class PackKind : uint32_t { indication = 0, command = 1, data = 2, online = 3, report = 4 };

struct Pack {
    PackKind kind;
    std::string payload;
};

std::string encode_pack(PackKind kind, std::string_view payload);
// Takes the first whole pack out of a stream; nothing while it is not all there. `broken` is set
// when the stream cannot be one of packs.
std::optional<Pack> take_pack(std::string& stream, bool& broken);

struct PlatformDelivery {
    enum class Action { write, hang_up, half_close, restart };
    Action action = Action::write;
    int connection = 0;
    std::string bytes;         // one write
    Milliseconds down_for{0};  // of a restart
};

// A pack as it came, for whoever keeps a record.
struct PlatformRequest {
    std::string port;  // "modem", "at", "uart", "?" ahead of the port report
    PackKind kind;
    std::string payload;
};

class PlatformPeer {
  public:
    using Time = std::chrono::steady_clock::time_point;

    // A rule's "only" means "modem", "at" or "uart".
    PlatformPeer(Scenario scenario, Time now);

    void connected(int connection, Time now);
    void closed(int connection);
    // What came, as it came. False: the connection does not speak packs and is to be closed.
    bool received(int connection, std::string_view bytes, Time now);

    std::optional<Time> next_due() const;
    std::vector<PlatformDelivery> take_due(Time now);
    // The packs since the last call.
    std::vector<PlatformRequest> take_requests();

  private:
    struct Connection {
        std::string port = "?";
        std::string stream;
        std::deque<Step> steps;  // still to be carried out, in order
        std::deque<std::string> waiting;
        Time ready_at;
        PackKind kind = PackKind::command;
        int stated_length = 0;  // of the next pack when not 0
        bool in_data = false;
        bool echoes_data = false;
    };
    struct Timer {
        std::size_t rule;
        Time due;
        bool repeats;
    };

    void take(int id, const Pack& pack, Time now);
    void begin_line(Connection& connection, std::string_view line, Time now);
    void begin_steps(Connection& connection, const Rule& rule, Time now);
    void fire_timers(Time now);
    void run(int id, Time now, std::vector<PlatformDelivery>& out);
    static std::string message_of(Connection& connection, const Step& step);
    static bool take_action(int id, const Step& step, std::vector<PlatformDelivery>& out);
    static void set_state(Connection& connection, const Step& step);

    Scenario scenario_;
    std::map<int, Connection> connections_;
    std::vector<Timer> timers_;
    std::vector<int> used_;
    std::vector<PlatformDelivery> at_once_;  // echoed data
    std::vector<PlatformRequest> requests_;
};

}  // namespace bench
