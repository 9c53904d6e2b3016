#include "tested_daemon.h"

#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>

bench::SpawnRequest tested_daemon() {
    bench::SpawnRequest request;
    if (const char* named = std::getenv("VEXA_TEST_DAEMON")) {
        std::istringstream words(named);
        for (std::string word; words >> word;) {
            request.command.push_back(word);
        }
        return request;
    }
    const std::string folder = bench::program_folder();
    request.command = {folder + "/vexa_at_client"};
    request.environment["LD_PRELOAD"] = folder + "/lib/libvexa_shim.so";
    return request;
}

bool daemon_has_shim() {
    const char* named = std::getenv("VEXA_TEST_DAEMON");
    return named == nullptr || std::string_view(named).find("libvexa_shim.so") != std::string::npos;
}
