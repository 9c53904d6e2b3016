// Built without what hardens the daemon: what looks for the hardening must miss it here.
#include <cstdio>
#include <cstring>

namespace {

constexpr int kArraySize = 1024;

}  // namespace

// Not inlined, so that the array is on a stack of the function's own.
[[gnu::noinline]] std::size_t copied_length(const char* text) {
    char copy[kArraySize];
    snprintf(copy, sizeof copy, "%s, copied", text);
    return strlen(copy);
}

int main(int argc, char** argv) {
    return argc > 0 ? static_cast<int>(copied_length(argv[0])) : 1;
}
