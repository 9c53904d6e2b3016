// The modes of the host ports, taken from the daemon's own variables for the bench and the
// recording.
#pragma once

namespace bench {

// Before any thread is started.
void find_modes();
// Looked at where the daemon calls: a mode moves only between two calls. Any thread.
void publish_modes();

}  // namespace bench
