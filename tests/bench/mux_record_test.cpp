// A recorded session as Wireshark's command-line sister reads it.
#include "mux_record.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "mux_codec.h"

namespace {

using bench::MuxFrame;
using bench::MuxRecord;
using Direction = MuxRecord::Direction;

std::string output_of(const std::string& command) {
    std::FILE* const pipe = popen(command.c_str(), "re");
    std::string output;
    std::array<char, 4096> area;
    while (pipe != nullptr && std::fgets(area.data(), static_cast<int>(area.size()), pipe))
        output += area.data();
    EXPECT_EQ(pipe == nullptr ? -1 : pclose(pipe), 0)
        << command << " failed; is tshark there (script/bootstrap)?\n"
        << output;
    return output;
}

class BenchMuxRecord : public testing::Test {
  protected:
    void SetUp() override {
        std::string name = testing::TempDir() + "mux_record_XXXXXX";
        const int fd = mkstemp(name.data());
        ASSERT_GE(fd, 0);
        close(fd);
        path_ = name;
    }
    void TearDown() override { unlink(path_.c_str()); }

    std::string path_;
};

TEST_F(BenchMuxRecord, TsharkNamesEveryFrame) {
    const struct {
        Direction direction;
        MuxFrame frame;
        const char* named;  // direction, DLCI, C/R, type, check sequence good
    } rows[] = {
        {Direction::from_host, {0, true, 0x3F, ""}, "0x00,0,1,0x2f,1"},
        {Direction::to_host, {0, true, 0x73, ""}, "0x01,0,1,0x63,1"},
        {Direction::from_host, {2, true, 0xEF, "AT+CFUN?\r"}, "0x00,2,1,0xef,1"},
        {Direction::to_host, {2, false, 0xEF, "\r\nOK\r\n"}, "0x01,2,0,0xef,1"},
        {Direction::from_host, {4, true, 0xEF, "ATD*99#\r"}, "0x00,4,1,0xef,1"},
        {Direction::to_host, {4, false, 0xEF, "\r\nCONNECT\r\n"}, "0x01,4,0,0xef,1"},
        {Direction::to_host, {4, false, 0xEF, std::string(127, '\xF9')}, "0x01,4,0,0xef,1"},
    };
    MuxRecord record;
    ASSERT_TRUE(record.create(path_));
    std::string expected;
    for (const auto& row : rows) {
        const std::string bytes = bench::encode_mux_frame(row.frame);
        record.passed(row.direction, std::string_view(bytes).substr(0, 3));  // cut anywhere
        record.passed(row.direction, std::string_view(bytes).substr(3));
        expected += std::string(row.named) + "\n";
    }
    EXPECT_EQ(record.frames(), std::size(rows));
    EXPECT_EQ(output_of("tshark -r " + path_ +
                        " -T fields -E separator=, -E occurrence=f -e mux27010.direction "
                        "-e mux27010.address.dlciaddress -e mux27010.address.craddress "
                        "-e mux27010.control.frametype -e mux27010.checksum_correct 2>/dev/null"),
              expected);
}

TEST_F(BenchMuxRecord, CountsWhatIsOutsideFrames) {
    MuxRecord record;
    ASSERT_TRUE(record.create(path_));
    record.passed(Direction::from_host, "AT+CMUX=0\r");
    record.passed(Direction::to_host, "\r\nOK\r\n");
    record.passed(Direction::from_host, bench::encode_mux_frame({0, true, 0x3F, ""}));
    EXPECT_EQ(record.frames(), 1U);
    EXPECT_EQ(record.bytes_outside_frames(), 16U);
}

TEST_F(BenchMuxRecord, FileThatCannotBeWritten) {
    MuxRecord record;
    EXPECT_FALSE(record.create(path_ + "/not/there"));
    record.passed(Direction::from_host, bench::encode_mux_frame({}));
    EXPECT_EQ(record.frames(), 0U);
}

}  // namespace
