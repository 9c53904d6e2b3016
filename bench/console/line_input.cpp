#include "line_input.h"

#include <editline/readline.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>

#include "unique_fd.h"

namespace bench {
namespace {

// Standard input in the loop without changing it: libuv makes what it watches non-blocking, and
// this description is shared with the shell. So an epoll descriptor stands in between.
class InputWatch {
  public:
    InputWatch(Loop& loop, std::function<void()> readable)
        : loop_(loop), poll_(epoll_create1(EPOLL_CLOEXEC)) {
        epoll_event event{};
        event.events = EPOLLIN;
        if (epoll_ctl(poll_.get(), EPOLL_CTL_ADD, STDIN_FILENO, &event) != 0) {
            is_file_ = true;  // a regular file is always readable
            return;
        }
        loop_.watch(poll_.get(), std::move(readable));
    }
    ~InputWatch() { stop(); }
    InputWatch(const InputWatch&) = delete;
    InputWatch& operator=(const InputWatch&) = delete;

    bool is_file() const { return is_file_; }
    void stop() { loop_.unwatch(poll_.get()); }

  private:
    Loop& loop_;
    UniqueFd poll_;
    bool is_file_ = false;
};

class StreamInput : public LineInput {
  public:
    StreamInput(Loop& loop, TookLine took, Ended ended)
        : took_(std::move(took)), ended_(std::move(ended)), watch_(loop, [this] { take_bytes(); }) {
        if (watch_.is_file()) {
            loop.after(std::chrono::milliseconds(0), [this] {
                while (take_bytes()) {
                }
            });
        }
    }

    void print(const std::string& text) override {
        puts(text.c_str());
        fflush(stdout);
    }
    void set_prompt(const std::string&) override {}

  private:
    bool take_bytes() {
        std::array<char, 4096> bytes;
        const ssize_t got = read(STDIN_FILENO, bytes.data(), bytes.size());
        if (got <= 0) {
            watch_.stop();
            if (!rest_.empty()) {
                took_(rest_);
            }
            ended_();
            return false;
        }
        rest_.append(bytes.data(), static_cast<std::size_t>(got));
        for (auto end = rest_.find('\n'); end != std::string::npos; end = rest_.find('\n')) {
            std::string line = rest_.substr(0, end);
            rest_.erase(0, end + 1);
            if (!line.empty() && line.back() == '\r') {
                line.pop_back();
            }
            took_(line);
        }
        return true;
    }

    TookLine took_;
    Ended ended_;
    InputWatch watch_;
    std::string rest_;
};

// The library's callback knows no object of ours; there is one terminal.
class TerminalInput;
TerminalInput* g_terminal = nullptr;

class TerminalInput : public LineInput {
  public:
    TerminalInput(Loop& loop, TookLine took, Ended ended)
        : took_(std::move(took)),
          ended_(std::move(ended)),
          watch_(loop, [] { rl_callback_read_char(); }) {
        g_terminal = this;
        rl_initialize();
        install();
    }
    ~TerminalInput() override {
        rl_callback_handler_remove();
        g_terminal = nullptr;
    }

    // Over the line being typed, which is shown again below.
    void print(const std::string& text) override {
        printf("\r\x1b[K%s\n", text.c_str());
        fflush(stdout);
        rl_forced_update_display();
    }

    void set_prompt(const std::string& prompt) override {
        prompt_ = prompt;
        rl_set_prompt(prompt_.c_str());
        rl_forced_update_display();
    }

  private:
    void install() { rl_callback_handler_install(prompt_.c_str(), &TerminalInput::took); }

    static void took(char* line) {
        const std::unique_ptr<char, void (*)(void*)> owned(line, free);
        if (line == nullptr) {
            puts("");
            g_terminal->watch_.stop();
            g_terminal->ended_();
            return;
        }
        if (*line != '\0') {
            add_history(line);
        }
        g_terminal->took_(line);
    }

    TookLine took_;
    Ended ended_;
    InputWatch watch_;
    std::string prompt_ = "AT> ";
};

}  // namespace

std::unique_ptr<LineInput> make_terminal_input(Loop& loop, LineInput::TookLine took,
                                               LineInput::Ended ended) {
    return std::make_unique<TerminalInput>(loop, std::move(took), std::move(ended));
}

std::unique_ptr<LineInput> make_stream_input(Loop& loop, LineInput::TookLine took,
                                             LineInput::Ended ended) {
    return std::make_unique<StreamInput>(loop, std::move(took), std::move(ended));
}

}  // namespace bench
