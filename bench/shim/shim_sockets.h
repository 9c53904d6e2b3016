// The daemon's sockets as a recording tells them: the app platform, UDP, the kernel's uevents. The
// calls pass on unchanged.
#pragma once

#include <poll.h>

namespace bench {

// A descriptor is closed; of a connection to the app platform that is an event.
void close_connection(int fd);
// Connections to the app platform that the other side has closed, as poll told.
void record_hang_ups(const pollfd* fds, nfds_t count);

}  // namespace bench
