// Where the console's lines come from: a terminal with editing, or any other standard input.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "loop.h"

namespace bench {

class LineInput {
  public:
    using TookLine = std::function<void(const std::string&)>;
    using Ended = std::function<void()>;

    virtual ~LineInput() = default;
    // Runs the loop and takes lines until the loop is stopped.
    virtual void run() = 0;
    // Text that comes in the middle of a line being typed.
    virtual void print(const std::string& text) = 0;
    virtual void set_prompt(const std::string& prompt) = 0;
    // What stands at the bottom of the terminal; elsewhere nothing.
    virtual void set_status(const std::string& /*text*/) {}
};

std::unique_ptr<LineInput> make_terminal_input(Loop& loop, LineInput::TookLine took,
                                               LineInput::Ended ended);
std::unique_ptr<LineInput> make_stream_input(Loop& loop, LineInput::TookLine took,
                                             LineInput::Ended ended);

}  // namespace bench
