// Lines of a recording as they are written: every byte there and back, every line whole.
#include "record_writer.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

namespace {

using bench::RecordWriter;

class RecordLines : public testing::Test {
  protected:
    void SetUp() override {
        const int file = mkostemp(path_.data(), 0);
        ASSERT_GE(file, 0);
        close(file);
        ASSERT_TRUE(writer_.create(path_.c_str()));
    }
    void TearDown() override { unlink(path_.c_str()); }

    std::vector<nlohmann::json> lines() const {
        std::ifstream file(path_);
        std::vector<nlohmann::json> found;
        for (std::string line; std::getline(file, line);) {
            found.push_back(nlohmann::json::parse(line));
        }
        return found;
    }
    // Characters U+0000 to U+00FF as the bytes that they stand for.
    static std::string bytes_of(const std::string& text) {
        std::string bytes;
        for (std::size_t at = 0; at < text.size(); ++at) {
            const auto lead = static_cast<unsigned char>(text[at]);
            bytes +=
                lead < 0x80 ? text[at] : static_cast<char>((lead & 3) << 6 | (text[++at] & 0x3f));
        }
        return bytes;
    }

    std::string path_ = "/tmp/vexa-record-XXXXXX";
    RecordWriter writer_;
};

TEST_F(RecordLines, EveryByteComesBack) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    writer_.passed(7, "at", "in", all);
    const auto found = lines();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0]["t"], 7);
    EXPECT_EQ(found[0]["at"], "at");
    EXPECT_EQ(found[0]["dir"], "in");
    EXPECT_EQ(found[0]["n"], 256);
    EXPECT_EQ(bytes_of(found[0]["data"]), all);
}

TEST_F(RecordLines, ChunkLongerThanALineBecomesSeveral) {
    const std::string data(RecordWriter::kLongestPiece + 1, '\xff');  // each escaped
    writer_.passed(1, "uart", "out", data, {{"asked", std::int64_t{99999}}});
    const auto found = lines();
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0]["n"], RecordWriter::kLongestPiece);
    EXPECT_EQ(found[1]["n"], 1);
    EXPECT_EQ(bytes_of(found[0]["data"]) + bytes_of(found[1]["data"]), data);
    EXPECT_EQ(found[1]["asked"], 99999);
}

TEST_F(RecordLines, NoBytesAreALineToo) {
    writer_.passed(1, "at", "in", "");  // an end of file
    ASSERT_EQ(lines().size(), 1u);
    EXPECT_EQ(lines()[0]["n"], 0);
}

TEST_F(RecordLines, EventsCarryTheirFields) {
    writer_.event(3, "bench", "mhi", {{"change", "con\"nect\\"}, {"channel", std::int64_t{-32}}});
    const auto found = lines();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0]["what"], "mhi");
    EXPECT_EQ(found[0]["change"], "con\"nect\\");
    EXPECT_EQ(found[0]["channel"], -32);
}

TEST_F(RecordLines, LinesOfManyThreadsAndOfTwoWritersStayWhole) {
    RecordWriter other;
    ASSERT_TRUE(other.append_to(path_.c_str()));
    constexpr int kLines = 500;
    const auto write_many = [](RecordWriter& writer, const char* place) {
        const std::string data(3000, 'x');
        for (int line = 0; line < kLines; ++line) {
            writer.passed(line, place, "in", data);
        }
    };
    std::thread one(write_many, std::ref(writer_), "at");
    std::thread two(write_many, std::ref(writer_), "uart");
    std::thread three(write_many, std::ref(other), "modem");
    for (int line = 0; line < kLines; ++line) {
        other.line("{\"made\":\"elsewhere\"}");
    }
    one.join();
    two.join();
    three.join();
    EXPECT_EQ(lines().size(), 4u * kLines);  // a torn line would not parse
}

TEST(RecordWriterFile, FolderThatIsNotThereIsAFailure) {
    RecordWriter writer;
    EXPECT_FALSE(writer.create("/nonexistent/folder/file"));
    EXPECT_FALSE(writer.is_open());
    writer.passed(1, "at", "in", "lost without harm");
}

}  // namespace
