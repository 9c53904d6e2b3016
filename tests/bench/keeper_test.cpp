// What the keeper of the namespaces says to somebody who starts it by hand.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

#include "module_space.h"

namespace {

using testing::HasSubstr;

struct Ended {
    int status = -1;
    std::string said;
};

Ended started_with(const std::string& arguments) {
    const std::string command =
        bench::program_folder() + "/vexa-module-keeper " + arguments + " 2>&1 </dev/null";
    FILE* output = popen(command.c_str(), "r");
    Ended ended;
    std::array<char, 1000> bytes{};
    while (fgets(bytes.data(), bytes.size(), output) != nullptr) {
        ended.said += bytes.data();
    }
    ended.status = WEXITSTATUS(pclose(output));
    return ended;
}

TEST(Keeper, TellsWhatItWantsAndMakesNothing) {
    for (const char* arguments : {"", "1 2", "--socket", "3x", "-1", "99999999999", "0", "77"}) {
        const Ended ended = started_with(arguments);
        EXPECT_EQ(ended.status, 2) << arguments;
        EXPECT_THAT(ended.said, HasSubstr("usage: vexa-module-keeper SOCKET")) << arguments;
    }
    EXPECT_THAT(started_with("--socket").said,
                HasSubstr("'--socket' is not the number of an open socket"));
}

TEST(Keeper, HelpsWhenAsked) {
    const Ended ended = started_with("--help");
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.said, HasSubstr("usage: vexa-module-keeper SOCKET"));
}

}  // namespace
