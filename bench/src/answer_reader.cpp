#include "answer_reader.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace bench {
namespace {

constexpr std::array<std::string_view, 6> kFinalLines{"OK",   "ERROR",     "NO CARRIER",
                                                      "BUSY", "NO ANSWER", "NO DIALTONE"};
constexpr std::array<std::string_view, 2> kFinalBeginnings{"+CME ERROR:", "+CMS ERROR:"};

std::string upper(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
    return result;
}

}  // namespace

bool is_connect(std::string_view line) {
    return line == "CONNECT" || line.starts_with("CONNECT ");
}

bool is_final_result(std::string_view line) {
    return std::find(kFinalLines.begin(), kFinalLines.end(), line) != kFinalLines.end() ||
           std::any_of(kFinalBeginnings.begin(), kFinalBeginnings.end(),
                       [&](std::string_view text) { return line.starts_with(text); });
}

int results_expected(std::string_view command) {
    std::string text = upper(command);
    std::erase(text, ' ');
    const bool combined = text.find("ATE") != std::string::npos ||
                          text.find("ATV") != std::string::npos ||
                          text.find("ATQ") != std::string::npos;
    // The line's end counts: 7 or 8 bytes are two commands, 9 or 10 are three.
    const std::size_t size = text.size() + 1;
    if (!combined || text.find('+') != std::string::npos || size < 7 || size > 10) {
        return 1;
    }
    return size <= 8 ? 2 : 3;
}

void AnswerReader::begin(std::string_view command) {
    echo_ = command;
    line_.clear();
    in_data_ = false;
}

std::vector<AnswerReader::Item> AnswerReader::feed(std::string_view bytes) {
    std::vector<Item> items;
    for (const char byte : bytes) {
        if (byte == '\r' || byte == '\n') {
            end_line(items);
            continue;
        }
        line_ += byte;
        if (line_ == "> " && !in_data_) {
            items.push_back({Kind::prompt, line_});
            line_.clear();
        }
    }
    return items;
}

void AnswerReader::end_line(std::vector<Item>& items) {
    const std::string line = std::move(line_);
    line_.clear();
    if (line.empty()) {
        return;
    }
    if (line == echo_) {
        echo_.clear();
        return;
    }
    if (is_connect(line)) {
        in_data_ = true;
        items.push_back({Kind::final_result, line});
    } else if (is_final_result(line)) {
        in_data_ = false;
        items.push_back({Kind::final_result, line});
    } else {
        items.push_back({in_data_ ? Kind::data : Kind::line, line});
    }
}

}  // namespace bench
