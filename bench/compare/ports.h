// Descriptors as the rig uses them: whole texts in and out, with one deadline for everything.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace compare {

// What cannot be measured, and why.
class Trouble : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

int64_t now_ns();

void make_blocking(int fd);
void write_whole(int fd, std::string_view bytes);
// Waits for bytes and takes what is there, at most `most` bytes.
std::string take_some(int fd, std::size_t most, const char* what);
// Reads until the text read ends with `end`.
std::string take_until(int fd, std::string_view end, const char* what);
// Reads until so many bytes have come.
void take_count(int fd, std::size_t count, const char* what);
// Throws away what is waiting to be read.
void drain(int fd);

}  // namespace compare
