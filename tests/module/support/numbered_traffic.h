// Commands on several roads into the module at once, each with a number of its own that must come
// back in its answer on the road that asked. Also speaks for the modem and for the app platform.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "fake_platform.h"
#include "module.h"

struct TrafficCounts {
    long commands = 0;
    long answers = 0;
    long from_modem = 0;
    long from_platform = 0;
    long misroutes =
        0;            // answers on another road, commands at another peer, bytes nobody asked for
    long losses = 0;  // commands whose answer never came
    long late_waits = 0;  // commands that were taken so late that the wait before them ran out
};

// One way into the module.
struct Road {
    std::string name;
    int channel = 0;           // of the modem: 0 modem, 1 AT, 2 UART
    bool is_diverted = false;  // its answers are the AT port's, while nobody else types there
    bool takes_back = false;   // what is typed here ends that
    std::function<void(std::string_view)> send;
    std::function<std::string()> take;  // what has come since
};

class NumberedTraffic {
  public:
    enum class Ask { both, modem };

    NumberedTraffic(Module& module, FakePlatform& platform);
    ~NumberedTraffic();
    NumberedTraffic(const NumberedTraffic&) = delete;
    NumberedTraffic& operator=(const NumberedTraffic&) = delete;

    // A road begins to speak at once. One of a name that is there takes its place.
    void add(Road road);
    void add_host_port(int index);
    void pause(const std::string& name) { lane(name).paused = true; }
    // The same once its command is answered, while the others go on.
    void finish(const std::string& name, Here here = Here::current());
    // What came meanwhile is forgotten.
    void resume(const std::string& name);
    // Only the modem is asked, e.g. while the platform is at fault.
    void ask(Ask whom) { whom_ = whom; }
    // The modem leaves what comes on a channel unread and unanswered, until it is told to go on.
    void silence_modem(int channel, bool silent) { silent_[channel] = silent; }
    void silence_platform(bool silent) { platform_is_silent_ = silent; }

    // One round: takes what came, answers for the peers, and asks on every idle road.
    void step(std::chrono::milliseconds at_most);
    // So many more answers on each road that is not paused.
    void run(long answers, Here here = Here::current());
    // Goes on until this holds.
    void run_until(const std::function<bool()>& done, const std::string& what,
                   Here here = Here::current());
    // Until no command waits for its answer; nothing new is asked.
    void settle(Here here = Here::current());

    long answers(const std::string& name) { return lane(name).counts.answers; }
    [[nodiscard]] TrafficCounts total() const;
    [[nodiscard]] std::vector<std::pair<std::string, TrafficCounts>> by_road() const;
    // What was counted as a misroute or a loss, the first few of them.
    [[nodiscard]] const std::string& complaints() const { return complaints_; }

  private:
    using Clock = std::chrono::steady_clock;
    struct Lane {
        Road road;
        TrafficCounts counts;
        bool paused = false;
        bool finishing = false;
        long number = 0;  // of the command on its way; 0: none
        long last_number = 0;
        bool seen = false;   // by a peer
        bool spoke = false;  // since a client in the module did
        std::string command;
        std::string text;  // what came of its answer
        Clock::time_point sent;
    };

    Lane& lane(const std::string& name);
    std::string answer_to(std::string_view line, int channel, const char* peer);
    void speak_as_modem();
    void take_answers(Lane& lane);
    void count_answer(Lane& lane);
    void give_up_if_lost(Lane& lane);
    bool is_its_turn(const Lane& lane) const;
    bool may_ask(const Lane& lane) const;
    void ask_next(Lane& lane);
    void complain(Lane& lane, const std::string& what);

    Module& module_;
    FakePlatform& platform_;
    std::deque<Lane> lanes_;
    std::map<int, std::string> lines_;  // a channel's line, as far as it came
    std::map<int, bool> silent_;
    bool platform_is_silent_ = false;
    Ask whom_ = Ask::both;
    bool settling_ = false;
    long last_number_ = 0;
    std::string complaints_;
};
