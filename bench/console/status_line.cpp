#include "status_line.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace bench {
namespace {

constexpr int kFewestRows = 5;

// ECMA-48 control sequences; DECSTBM, DECSC and DECRC as every terminal of today knows them.
constexpr const char* kSaveCursor = "\x1b\x37";
constexpr const char* kRestoreCursor = "\x1b\x38";

bool can_scroll_a_part() {
    const char* terminal = getenv("TERM");
    return terminal != nullptr && std::string_view(terminal) != "dumb";
}

}  // namespace

StatusLine::~StatusLine() {
    if (rows_ == 0) {
        return;
    }
    printf("%s\x1b[r\x1b[%d;1H\x1b[2K%s", kSaveCursor, rows_, kRestoreCursor);
    fflush(stdout);
}

void StatusLine::set(const std::string& text) {
    if (text == text_) {
        return;
    }
    text_ = text;
    if (rows_ != 0 || take_bottom_row()) {
        draw();
    }
}

void StatusLine::resized() {
    rows_ = 0;
    if (!text_.empty() && take_bottom_row()) {
        draw();
    }
}

bool StatusLine::take_bottom_row() {
    winsize size{};
    if (!can_scroll_a_part() || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 ||
        size.ws_row < kFewestRows) {
        return false;
    }
    rows_ = size.ws_row;
    columns_ = size.ws_col;
    // A line feed and a step back: the cursor is above the bottom row whatever was there. Setting
    // the margins moves the cursor, hence saved.
    printf("\n\x1b[A%s\x1b[1;%dr%s", kSaveCursor, rows_ - 1, kRestoreCursor);
    fflush(stdout);
    return true;
}

void StatusLine::draw() const {
    // The last column stays empty: a terminal may begin a new line there.
    const auto width = static_cast<std::size_t>(columns_ > 1 ? columns_ - 1 : 0);
    const std::string shown = text_.substr(0, width);
    printf("%s\x1b[%d;1H\x1b[2K\x1b[7m%-*s\x1b[0m%s", kSaveCursor, rows_, static_cast<int>(width),
           shown.c_str(), kRestoreCursor);
    fflush(stdout);
}

}  // namespace bench
