// The log sink, switched at run time by a command.
#include <algorithm>
#include <fstream>
#include <sstream>

#include "module.h"

namespace {

constexpr const char* kDiagLog = "/dev/diag.log";

std::string diag_text(const Module& module) {
    std::ifstream file(module.outside(kDiagLog));
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

long count_lines(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

TEST(CoreLogSwitch, MessagesOfEveryThreadGoToTheChannelAndPlainLinesStay) {
    ModuleOptions options;
    options.environment["VEXA_DIAG_LOG"] = kDiagLog;
    Module module(options);
    module.at_port().write("at+gtqxdmlog=1\r");
    // One line goes there at every start; the second is the first message after the switch.
    module.wait_until([&] { return count_lines(diag_text(module)) >= 2; }, "the switch");
    module.modem_channel().send("first");
    module.modem_port().expect("first");
    const std::size_t before = module.log().size();
    module.modem_channel().send("+CREG: 1");
    module.modem_port().expect("+CREG: 1");
    module.wait_until([&] { return diag_text(module).find("<+CREG: 1>") != std::string::npos; },
                      "the reader's messages");
    EXPECT_THAT(module.log().substr(before), testing::HasSubstr("====>>>num_written :8, "));
    EXPECT_THAT(module.log().substr(before), testing::Not(testing::HasSubstr("buf contains(")));
}

}  // namespace
