#include "combined_line.h"

#include <cstring>

#include "text_part.h"

namespace {

constexpr std::size_t kPrefixLength = 2;
constexpr std::size_t kBodyLength = 2;

int count_commands(std::size_t length) {
    switch (length) {
        case 7:
        case 8:
            return 2;
        case 9:
        case 10:
            return 3;
        default:
            return 0;
    }
}

void build_command(std::string_view prefix, std::string_view body, char* command) {
    memcpy(command, prefix.data(), kPrefixLength);
    memcpy(command + kPrefixLength, body.data(), kBodyLength);
    memcpy(command + kPrefixLength + kBodyLength, "\r\n", sizeof "\r\n");
}

}  // namespace

CombinedLine split_combined_line(std::string_view line) {
    CombinedLine combined{};
    combined.count = count_commands(line.size());
    for (int i = 0; i < combined.count; ++i) {
        const std::size_t body = kPrefixLength + static_cast<std::size_t>(i) * kBodyLength;
        const bool keeps_prefix = i == 0 && combined.count == 2;
        build_command(keeps_prefix ? line : "AT", text_part(line, body, kBodyLength),
                      combined.commands[i]);
    }
    return combined;
}
