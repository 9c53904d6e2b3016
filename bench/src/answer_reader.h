// What a terminal makes of the bytes an AT port sends back: lines, final results, prompts. Pure.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace bench {

// ITU-T V.250, 5.7.1 and 3GPP TS 27.007, 9.2: what ends the answer to a command.
bool is_final_result(std::string_view line);
// CONNECT, with or without a speed: what follows is data.
bool is_connect(std::string_view line);

// How many final results a line brings: the module splits combined basic commands such as ATE0V1
// and answers each part.
int results_expected(std::string_view command);

class AnswerReader {
  public:
    enum class Kind { line, final_result, prompt, data };
    struct Item {
        Kind kind;
        std::string text;
    };

    // A new command; its own echo is left out of what is read.
    void begin(std::string_view command);
    std::vector<Item> feed(std::string_view bytes);
    // From a CONNECT to the next final result, everything is data.
    bool in_data() const { return in_data_; }

  private:
    void end_line(std::vector<Item>& items);

    std::string echo_;
    std::string line_;
    bool in_data_ = false;
};

}  // namespace bench
