// The AT console: a line typed or read goes out as a command, what comes back is printed. One
// session for both kinds of input; LineInput says where lines come from.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "answer_reader.h"
#include "bench_module.h"
#include "line_input.h"
#include "road.h"

namespace bench {

class Console {
  public:
    Console(BenchModule& module, std::unique_ptr<Road> road, bool interactive);

    // Opens the road; calls back when commands can be sent.
    bool open(const std::function<void()>& opened);
    // Takes lines until there are no more, or until the loop is stopped.
    void run();
    const std::string& error() const { return error_; }
    // 0 when every command got a final result, 1 otherwise.
    int status() const { return all_answered_ ? 0 : 1; }

  private:
    void took_line(const std::string& line);
    void input_ended();
    // Input read ahead waits here until the command before it is answered.
    void next_line();
    void carry_out(const std::string& line);
    void send_command(const std::string& line);
    void road_line(const std::string& line);
    void send_text(const std::string& text);
    void send_data(const std::string& line);
    void send_escape_later();
    // Its time begins; not on a terminal, where the person decides.
    void wait_for(const std::string& command, const char* complaint);
    void own_command(const std::string& line);
    // Tells why not, when a command of the console's own failed.
    void report(const std::string& name, bool is_done);
    void mhi_command(const std::string& arguments);
    void plug_command(const std::string& arguments, bool is_plugged);
    void platform_command(const std::string& arguments);
    void signal_command(const std::string& arguments);
    void scenario_command(const std::string& arguments);
    void show(const std::vector<std::string>& lines);
    void keep_status();
    void heard(std::string_view bytes);
    void got_prompt();
    void got_final();
    void command_done(bool answered);
    void print(const std::string& text);
    void end();

    BenchModule& module_;
    std::unique_ptr<Road> road_;
    std::unique_ptr<LineInput> input_;
    bool interactive_;
    AnswerReader reader_;
    std::deque<std::string> lines_;
    std::string current_;  // the command being answered
    int results_left_ = 0;
    bool road_decides_ = false;  // a line of the road's is being carried out
    bool wants_text_ = false;    // the module asked for message text
    bool ended_ = false;
    bool all_answered_ = true;
    int commands_ = 0;
    int results_ = 0;
    int timer_ = 0;
    std::string error_;
};

}  // namespace bench
