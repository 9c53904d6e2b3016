// A module's own view of the system: user, mount, network, IPC and process namespaces.
#pragma once

#include <string>

namespace bench {

// Takes the calling (single-threaded) process into new namespaces and lays /dev, /etc and /sys.
// Children made afterwards live in the new process namespace; the first one is its init. Returns
// what went wrong for a person to read, empty when nothing did.
std::string enter_namespaces();

}  // namespace bench
