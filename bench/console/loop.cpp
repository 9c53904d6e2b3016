#include "loop.h"

#include <cstdio>
#include <cstdlib>

namespace bench {
namespace {

void must(int result, const char* what) {
    if (result < 0) {
        fprintf(stderr, "vexa-bench: %s: %s\n", what, uv_strerror(result));
        exit(1);
    }
}

// A handle and what to call; freed by libuv's close.
template <typename Handle>
struct Called {
    Handle handle{};
    std::function<void()> call;
};

template <typename Handle>
Called<Handle>* owner(Handle* handle) {
    return static_cast<Called<Handle>*>(handle->data);
}

template <typename Handle>
Called<Handle>* make(const std::function<void()>& call) {
    auto* made = new Called<Handle>;
    made->call = call;
    made->handle.data = made;
    return made;
}

template <typename Handle>
void dispose(Handle* handle) {
    uv_close(reinterpret_cast<uv_handle_t*>(handle),
             [](uv_handle_t* closed) { delete static_cast<Called<Handle>*>(closed->data); });
}

template <typename Handle>
void call(Handle* handle) {
    const auto copy = owner(handle)->call;  // it may end its own watch
    copy();
}

}  // namespace

Loop::Loop() {
    must(uv_loop_init(&loop_), "event loop");
}

Loop::~Loop() {
    uv_walk(
        &loop_,
        [](uv_handle_t* handle, void*) {
            if (uv_is_closing(handle) != 0) {
                return;
            }
            switch (handle->type) {
                case UV_POLL:
                    dispose(reinterpret_cast<uv_poll_t*>(handle));
                    break;
                case UV_TIMER:
                    dispose(reinterpret_cast<uv_timer_t*>(handle));
                    break;
                case UV_SIGNAL:
                    dispose(reinterpret_cast<uv_signal_t*>(handle));
                    break;
                default:
                    uv_close(handle, nullptr);
            }
        },
        nullptr);
    while (uv_run(&loop_, UV_RUN_DEFAULT) != 0) {  // a stop asked for earlier ends the first
    }
    uv_loop_close(&loop_);
}

void Loop::watch(int fd, const std::function<void()>& readable) {
    unwatch(fd);
    auto* made = make<uv_poll_t>(readable);
    must(uv_poll_init(&loop_, &made->handle, fd), "watch");
    must(uv_poll_start(&made->handle, UV_READABLE | UV_DISCONNECT,
                       [](uv_poll_t* handle, int, int) { call(handle); }),
         "watch");
    polls_[fd] = &made->handle;
}

void Loop::unwatch(int fd) {
    const auto found = polls_.find(fd);
    if (found == polls_.end()) {
        return;
    }
    uv_poll_stop(found->second);
    dispose(found->second);
    polls_.erase(found);
}

int Loop::after(std::chrono::milliseconds time, const std::function<void()>& done) {
    const int number = next_timer_++;
    auto* made = make<uv_timer_t>([this, number, done] {
        cancel(number);
        done();
    });
    uv_update_time(&loop_);
    must(uv_timer_init(&loop_, &made->handle), "timer");
    must(uv_timer_start(
             &made->handle, [](uv_timer_t* handle) { call(handle); },
             static_cast<std::uint64_t>(time.count() < 0 ? 0 : time.count()), 0),
         "timer");
    timers_[number] = &made->handle;
    return number;
}

void Loop::cancel(int timer) {
    const auto found = timers_.find(timer);
    if (found == timers_.end()) {
        return;
    }
    uv_timer_stop(found->second);
    dispose(found->second);
    timers_.erase(found);
}

void Loop::on_signal(int number, const std::function<void()>& came) {
    auto* made = make<uv_signal_t>(came);
    must(uv_signal_init(&loop_, &made->handle), "signal");
    must(uv_signal_start(
             &made->handle, [](uv_signal_t* handle, int) { call(handle); }, number),
         "signal");
}

void Loop::run() {
    resume();
    while (!is_stopped_) {
        run_once();
    }
}

void Loop::run_once() {
    uv_run(&loop_, UV_RUN_ONCE);
}

void Loop::stop() {
    is_stopped_ = true;
    uv_stop(&loop_);
}

}  // namespace bench
