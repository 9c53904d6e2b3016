// What the console makes of a port's bytes.
#include "answer_reader.h"

#include <gtest/gtest.h>

#include <array>

namespace {

using bench::AnswerReader;
using Kind = AnswerReader::Kind;

// "line", "final!", "prompt?" and "data~", one after another.
std::string read(AnswerReader& reader, std::string_view bytes, std::size_t cut) {
    std::string all;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(cut, bytes.size()))) {
        for (const AnswerReader::Item& item : reader.feed(bytes.substr(0, cut))) {
            constexpr std::array<const char*, 4> kMarks{" ", "! ", "? ", "~ "};
            all += item.text + kMarks[static_cast<std::size_t>(item.kind)];
        }
    }
    return all;
}

TEST(AnswerReader, RowsCutAnywhere) {
    struct Row {
        const char* command;
        std::string_view bytes;
        const char* items;
    };
    constexpr std::array kRows{
        Row{"AT+CSQ", "\r\n+CSQ: 23,99\r\n\r\nOK\r\n", "+CSQ: 23,99 OK! "},
        Row{"AT+CGMR", "AT+CGMR\r\r\n1.0\r\nOK\r\n", "1.0 OK! "},  // its own echo is left out
        Row{"AT+X", "\r\n+CME ERROR: 3\r\n", "+CME ERROR: 3! "},
        Row{"AT+X", "\r\nRING\r\n\r\nERROR\r\n", "RING ERROR! "},
        Row{"AT+CMGS=1", "\r\n> \r\n+CMGS: 1\r\nOK\r\n", "> ? +CMGS: 1 OK! "},
        Row{"ATD1", "\r\nCONNECT 9600\r\nx\r\n\r\nNO CARRIER\r\n", "CONNECT 9600! x~ NO CARRIER! "},
    };
    for (const Row& row : kRows) {
        for (const std::size_t cut : {1U, 2U, 3U, 1000U}) {
            AnswerReader reader;
            reader.begin(row.command);
            EXPECT_EQ(read(reader, row.bytes, cut), row.items) << row.command << " cut at " << cut;
        }
    }
}

TEST(AnswerReader, DataLastsFromConnectToTheNextResult) {
    AnswerReader reader;
    reader.begin("ATD1");
    EXPECT_FALSE(reader.in_data());
    reader.feed("\r\nCONNECT\r\n");
    EXPECT_TRUE(reader.in_data());
    reader.feed("> ");  // no prompt among data
    reader.feed("\r\nNO CARRIER\r\n");
    EXPECT_FALSE(reader.in_data());
}

TEST(AnswerReader, CombinedCommandsBringSeveralResults) {
    struct Row {
        const char* command;
        int results;
    };
    constexpr std::array kRows{
        Row{"AT", 1},        Row{"ATE0", 1},       Row{"ATE0V1", 2},
        Row{"ATE0 V1", 2},   Row{"ATE0V1Q", 2},    Row{"ATE0V1Q0", 3},
        Row{"ATE0V1Q0X", 3}, Row{"ATE0V1Q0X1", 1},  // sent whole
        Row{"ATD12345", 1},  Row{"ATE+CSQ", 1},    Row{"atv1e0", 2},
    };
    for (const Row& row : kRows) {
        EXPECT_EQ(bench::results_expected(row.command), row.results) << row.command;
    }
}

}  // namespace
