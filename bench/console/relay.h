// A pty outside the module's namespaces that stands for one of its ports, so that any terminal
// program can be used on it.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "loop.h"
#include "unique_fd.h"

namespace bench {

class Relay {
  public:
    // `typed` gets what the terminal program sends.
    Relay(Loop& loop, std::function<void(std::string_view)> typed);
    ~Relay();

    bool open();
    const std::string& name() const { return name_; }
    // What the module says; dropped while no terminal program is there.
    void say(std::string_view bytes);

  private:
    bool is_used() const;
    void look();
    void take_input();

    Loop& loop_;
    std::function<void(std::string_view)> typed_;
    UniqueFd master_;
    std::string name_;
    int timer_ = 0;
};

}  // namespace bench
