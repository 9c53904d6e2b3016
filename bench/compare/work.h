// Work of one kind for the daemon, so much of it, for counting instructions.
#pragma once

#include <string>
#include <vector>

#include "contestants.h"

namespace compare {

// "modem", "platform" and so on; what there is.
std::vector<std::string> work_kinds();
// Whether the log is to be on the diagnostic channel for it.
bool has_log_off(const std::string& kind);
// `count` commands (or bytes, or chunks) of a kind on a daemon that was just started.
void do_work(Rig& rig, Contestant& daemon, const std::string& kind, int count);

}  // namespace compare
