// What the kernel says of a running process.
#pragma once

#include <map>

// In KiB: pages of its own that it has written to.
long private_dirty_kib(int pid);

// Voluntary context switches of each thread: every wait that ended counts one.
std::map<int, long> voluntary_switches(int pid);
