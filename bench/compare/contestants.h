// What carries bytes between a host port and the modem: the daemon, or what stands in its place.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "rig.h"
#include "small_platform.h"

namespace compare {

struct Kind {
    enum class How { bare, bridge, resting_bridge, socat, daemon };
    How how;
    const char* name;
    bool log_on_diag = false;  // of the daemon: the log on the diagnostic channel, nobody listening
};

// In the order in which they take turns.
inline constexpr std::array<Kind, 6> kContestants{{
    {Kind::How::bare, "pty pair"},
    {Kind::How::bridge, "plain bridge"},
    {Kind::How::resting_bridge, "resting bridge"},
    {Kind::How::socat, "socat"},
    {Kind::How::daemon, "daemon"},
    {Kind::How::daemon, "daemon, log off", true},
}};

// One contestant at work on the rig's lines, from start to end.
class Contestant {
  public:
    // `wrapper` stands before the daemon's command: valgrind with its options, or nothing.
    Contestant(Rig& rig, const Kind& kind, const std::vector<std::string>& wrapper = {});
    ~Contestant();
    Contestant(const Contestant&) = delete;
    Contestant& operator=(const Contestant&) = delete;

    [[nodiscard]] bool is_daemon() const { return kind_.how == Kind::How::daemon; }
    // It tells what the required rests allow of a stream; commands do not wait for its rests.
    [[nodiscard]] bool is_for_streams() const { return kind_.how == Kind::How::resting_bridge; }
    // Where the modem stands: behind the contestant or, without one, at the pty's other end.
    [[nodiscard]] int modem_end(int index) const;
    // CPU time of its processes up to now.
    [[nodiscard]] double cpu_seconds() const;
    // How often the daemon's log has the text since the last call; the log is then forgotten.
    int take_log_count(std::string_view text);
    // Asks it to end, and waits for that: for what has something to write at its end.
    void end();

  private:
    void start_daemon(const std::vector<std::string>& wrapper);
    void start_bridges(const std::vector<std::string>& command, const char* options);
    void spawn(bench::SpawnRequest request);
    void wait_until_ready(int ptys_each) const;
    void put_log_on_diag();

    Rig& rig_;
    Kind kind_;
    bench::UniqueFd log_;
    std::unique_ptr<SmallPlatform> platform_;
    std::vector<bench::Child> children_;
};

}  // namespace compare
