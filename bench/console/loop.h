// libuv's loop as the bench uses it: descriptors and timers with a callable each.
#pragma once

#include <uv.h>

#include <chrono>
#include <functional>
#include <map>

namespace bench {

class Loop {
  public:
    Loop();
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    // Called while the descriptor is readable or hung up, until unwatch.
    void watch(int fd, const std::function<void()>& readable);
    void unwatch(int fd);
    // Called once; the number is good for cancel until then.
    int after(std::chrono::milliseconds time, const std::function<void()>& done);
    void cancel(int timer);
    void on_signal(int number, const std::function<void()>& came);

    // Until stop.
    void run();
    // Waits for something to serve, and serves it.
    void run_once();
    void stop();
    // Makes run_once serve again.
    void resume() { is_stopped_ = false; }
    bool is_stopped() const { return is_stopped_; }

  private:
    uv_loop_t loop_{};
    std::map<int, uv_poll_t*> polls_;
    std::map<int, uv_timer_t*> timers_;
    int next_timer_ = 1;
    bool is_stopped_ = false;
};

}  // namespace bench
