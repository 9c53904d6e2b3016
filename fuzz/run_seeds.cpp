// Runs a fuzzer's seeds once, for compilers without libFuzzer. Usage: FUZZER SEEDS.txt
#include <cstdio>
#include <fstream>
#include <string>

#include "fuzz_input.h"

namespace {

int hex_digit(char digit) {
    const std::string digits = "0123456789abcdef";
    return static_cast<int>(digits.find(digit));
}

// The escapes of a seed file: \r \n \t \\ and \xHH, in lower case.
std::string unescape(const std::string& line) {
    std::string bytes;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] != '\\' || i + 1 == line.size()) {
            bytes.push_back(line[i]);
            continue;
        }
        const char kind = line[++i];
        const std::size_t plain = std::string("rnt\\").find(kind);
        if (plain != std::string::npos)
            bytes.push_back("\r\n\t\\"[plain]);
        if (kind == 'x' && i + 2 < line.size()) {
            bytes.push_back(
                static_cast<char>(hex_digit(line[i + 1]) * 16 + hex_digit(line[i + 2])));
            i += 2;
        }
    }
    return bytes;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s SEEDS.txt\n", argv[0]);
        return 2;
    }
    std::ifstream file(argv[1]);
    std::string line;
    int count = 0;
    while (std::getline(file, line)) {
        if (line.empty() || line.front() == '#')
            continue;
        const std::string bytes = unescape(line);
        fprintf(stderr, "%s\n", line.c_str());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
        ++count;
    }
    if (count == 0) {
        fprintf(stderr, "%s: no seed in it\n", argv[1]);
        return 1;
    }
    fprintf(stderr, "%d seeds\n", count);
    return 0;
}
