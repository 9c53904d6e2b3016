// Where an expectation stands in a test. Not std::source_location: the clang of the checks lacks
// it.
#pragma once

class Here {
  public:
    static constexpr Here current(const char* file = __builtin_FILE(),
                                  int line = __builtin_LINE()) {
        return {file, line};
    }
    constexpr Here(const char* file, int line) : file_(file), line_(line) {}
    constexpr const char* file_name() const { return file_; }
    constexpr int line() const { return line_; }

  private:
    const char* file_;
    int line_;
};
