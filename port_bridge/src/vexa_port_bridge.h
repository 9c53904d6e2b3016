// Which devices are paired, and the threads that serve them.
#pragma once

// Builds the bridge and joins its threads, in practice for ever. Ends the process with status 0
// in DUN+SoftAP mode, with 1 for an unknown target. Main thread only.
int init_vexa_port_bridge();
