// The worked example of docs/platform-protocol.md, byte for byte against the daemon's own code.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "platform_pack.h"
#include "vexa_socket_client.h"

namespace {

constexpr std::string_view kCommand = "AT+CGMR\r";
constexpr std::string_view kAnswer = "\r\nVEXA-M1.01.04.02\r\n\r\nOK\r\n";
constexpr std::size_t kOffsetColumns = 4;  // "00  "
constexpr std::size_t kHexColumns = 16 * 3 - 1;

std::string bytes_of_line(const std::string& line) {
    std::istringstream words(line.substr(kOffsetColumns, kHexColumns));
    std::string bytes;
    for (std::string word; words >> word;) bytes += static_cast<char>(std::stoi(word, nullptr, 16));
    return bytes;
}

// The bytes of the page's block of that name; empty when there is none.
std::string block(const std::string& name) {
    std::ifstream page(VEXA_DOCS_FOLDER "/platform-protocol.md");
    std::string line;
    while (std::getline(page, line) && line != "```hex " + name) {
    }
    std::string bytes;
    while (std::getline(page, line) && line != "```") bytes += bytes_of_line(line);
    return bytes;
}

TEST(ProtocolPage, PortReportIsTheDaemons) {
    const auto report = build_port_report(PORT_AT1);
    EXPECT_EQ(block("report"), std::string(report.data(), report.size()));
}

TEST(ProtocolPage, CommandIsTheDaemons) {
    std::string pack(kPackHeadsSize + kCommand.size(), '\0');
    ASSERT_EQ(build_pack(pack, wire_cmd_type(USB_PORT_ATCMD_MODE), kCommand), pack.size());
    EXPECT_EQ(block("command"), pack);
}

TEST(ProtocolPage, AnswerIsReadAsThePageSays) {
    const std::string bytes = block("answer");
    ASSERT_EQ(first_pack(bytes).verdict, PackVerdict::whole);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    ASSERT_EQ(write(ends[0], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    char text[kTextAreaSize] = {};
    vexa_ext_info ext_info{MSG_SYNC, CMD_INVALID, 0};
    EXPECT_EQ(client_recv_data_from_platform(ends[1], text, kDeviceReadSize, 0, &ext_info),
              static_cast<int>(kAnswer.size()));
    EXPECT_EQ(text, kAnswer);
    EXPECT_EQ(ext_info.cmd_type, CMD_AT_CMD);
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
