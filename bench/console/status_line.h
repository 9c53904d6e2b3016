// A line that stays at the bottom of the terminal while the rest scrolls above it.
#pragma once

#include <string>

namespace bench {

class StatusLine {
  public:
    StatusLine() = default;
    // Gives the bottom row back.
    ~StatusLine();
    StatusLine(const StatusLine&) = delete;
    StatusLine& operator=(const StatusLine&) = delete;

    // Shown at once when it differs, cut to the width. Nothing happens on a terminal that has too
    // few rows or cannot scroll a part of itself.
    void set(const std::string& text);
    // The terminal has another size now.
    void resized();

  private:
    bool take_bottom_row();
    void draw() const;

    std::string text_;
    int rows_ = 0;  // 0: the bottom row is not ours
    int columns_ = 0;
};

}  // namespace bench
