#include "line_input.h"

#include <histedit.h>
#include <signal.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "status_line.h"
#include "unique_fd.h"

namespace bench {
namespace {

// Standard input in the loop without changing it: libuv makes what it watches non-blocking, and
// this description is shared with the shell. So an epoll descriptor stands in between.
class InputWatch {
  public:
    InputWatch(Loop& loop, const std::function<void()>& readable)
        : loop_(loop), poll_(epoll_create1(EPOLL_CLOEXEC)) {
        epoll_event event{};
        event.events = EPOLLIN;
        if (epoll_ctl(poll_.get(), EPOLL_CTL_ADD, STDIN_FILENO, &event) != 0) {
            is_file_ = true;  // a regular file is always readable
            return;
        }
        loop_.watch(poll_.get(), readable);
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
        : loop_(loop),
          took_(std::move(took)),
          ended_(std::move(ended)),
          watch_(loop, [this] { take_bytes(); }) {
        if (watch_.is_file()) {
            loop.after(std::chrono::milliseconds(0), [this] {
                while (take_bytes()) {
                }
            });
        }
    }

    void run() override { loop_.run(); }

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

    Loop& loop_;
    TookLine took_;
    Ended ended_;
    InputWatch watch_;
    std::string rest_;
};

// While the library waits for a key, the loop runs.
class TerminalInput : public LineInput {
  public:
    TerminalInput(Loop& loop, TookLine took, Ended ended)
        : loop_(loop),
          took_(std::move(took)),
          ended_(std::move(ended)),
          watch_(loop, [this] { is_readable_ = true; }),
          editor_(el_init("vexa-bench", stdin, stdout, stderr)),
          history_(history_init()) {
        HistEvent event;
        history(history_, &event, H_SETSIZE, kHistoryLines);
        history(history_, &event, H_SETUNIQUE, 1);
        if (!history_file_.empty()) {
            history(history_, &event, H_LOAD, history_file_.c_str());
        }
        loop_.on_signal(SIGWINCH, [this] { status_.resized(); });
        el_set(editor_, EL_CLIENTDATA, this);
        el_set(editor_, EL_PROMPT, &TerminalInput::prompt);
        el_set(editor_, EL_EDITOR, "emacs");
        el_set(editor_, EL_HIST, history, history_);
        el_set(editor_, EL_GETCFN, &TerminalInput::next_key);
    }
    ~TerminalInput() override {
        HistEvent event;
        if (!history_file_.empty()) {
            history(history_, &event, H_SAVE, history_file_.c_str());
        }
        history_end(history_);
        el_end(editor_);
    }
    TerminalInput(const TerminalInput&) = delete;
    TerminalInput& operator=(const TerminalInput&) = delete;

    void run() override {
        loop_.resume();
        for (;;) {
            int size = 0;
            const char* text = el_gets(editor_, &size);
            if (text == nullptr || size <= 0) {
                puts("");
                ended_();
                return;
            }
            std::string line(text, static_cast<std::size_t>(size));
            while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
                line.pop_back();
            }
            if (!line.empty()) {
                HistEvent event;
                history(history_, &event, H_ENTER, line.c_str());
            }
            took_(line);
            if (loop_.is_stopped()) {
                return;
            }
        }
    }

    // Over the line being typed, which is shown again below.
    void print(const std::string& text) override {
        printf("\r\x1b[K%s\n", text.c_str());
        fflush(stdout);
        show_line();
    }

    void set_prompt(const std::string& prompt) override {
        if (prompt == prompt_) {
            return;
        }
        prompt_ = prompt;
        if (is_waiting_) {
            printf("\r\x1b[K");
            fflush(stdout);
            show_line();
        }
    }

    void set_status(const std::string& text) override { status_.set(text); }

  private:
    static constexpr int kHistoryLines = 200;

    // Where the lines typed earlier are kept, as the XDG base directories have it. Empty: nowhere.
    static std::string history_file() {
        const char* state = getenv("XDG_STATE_HOME");
        const char* home = getenv("HOME");
        if (state == nullptr && home == nullptr) {
            return {};
        }
        const std::string folder =
            (state != nullptr ? std::string(state) : std::string(home) + "/.local/state") +
            "/vexa-bench";
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        return error ? std::string() : folder + "/history";
    }

    static TerminalInput* self(EditLine* editor) {
        void* data = nullptr;
        el_get(editor, EL_CLIENTDATA, &data);
        return static_cast<TerminalInput*>(data);
    }

    // Between two lines the library shows the prompt by itself.
    void show_line() {
        if (is_waiting_) {
            el_set(editor_, EL_REFRESH);
        }
    }

    static char* prompt(EditLine* editor) { return self(editor)->prompt_.data(); }

    static int next_key(EditLine* editor, wchar_t* key) {
        TerminalInput* input = self(editor);
        input->is_readable_ = false;
        input->is_waiting_ = true;
        while (!input->is_readable_ && !input->loop_.is_stopped()) {
            input->loop_.run_once();
        }
        input->is_waiting_ = false;
        unsigned char byte = 0;
        if (input->loop_.is_stopped() || read(STDIN_FILENO, &byte, 1) != 1) {
            return 0;
        }
        *key = byte;
        return 1;
    }

    Loop& loop_;
    TookLine took_;
    Ended ended_;
    bool is_readable_ = false;
    bool is_waiting_ = false;  // for a key
    InputWatch watch_;
    EditLine* editor_;
    History* history_;
    std::string history_file_ = history_file();
    std::string prompt_ = "AT> ";
    StatusLine status_;
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
