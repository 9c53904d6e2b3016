// The commands that the app platform gets, told a second time for the tests. In small letters.
#pragma once

#include <string>
#include <vector>

extern const std::vector<std::string> kPlatformCommands;
// The platform answers them, and the modem sees them, too.
extern const std::vector<std::string> kBothCommands;
