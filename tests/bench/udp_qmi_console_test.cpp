// The console on the two roads from inside the module: UDP, and QMI over UDP.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

#include "module_space.h"

namespace {

class InnerRoad : public testing::TestWithParam<const char*> {};

TEST_P(InnerRoad, CommandsOfTheModemAndOfThePlatformAreAnswered) {
    const std::string command = "printf 'AT+CFUN?\\nAT+CGMR\\n' | " + bench::program_folder() +
                                "/vexa-bench --time-out 60 --port " + GetParam() + " 2>&1";
    std::FILE* const pipe = popen(command.c_str(), "re");
    ASSERT_NE(pipe, nullptr);
    std::string output;
    std::array<char, 4096> area;
    while (std::fgets(area.data(), static_cast<int>(area.size()), pipe) != nullptr)
        output += area.data();
    const int status = pclose(pipe);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << output;
    EXPECT_NE(output.find("+CFUN: 1\nOK\n"), std::string::npos) << output;
    EXPECT_NE(output.find("VEXA-M1.01.04.02\nOK\n"), std::string::npos) << output;
}

INSTANTIATE_TEST_SUITE_P(Console, InnerRoad, testing::Values("udp", "qmi"),
                         [](const auto& param) { return std::string(param.param); });

}  // namespace
