// What the kernel says of a running process.
#pragma once

#include <map>
#include <utility>

int open_descriptors(int pid);
int running_threads(int pid);

// In KiB: pages of its own that it has written to.
long private_dirty_kib(int pid);

// The same of the threads' stacks alone, the main thread's left out: the least and the most of one.
std::pair<long, long> stacks_dirty_kib(int pid);

// Voluntary context switches of each thread: every wait that ended counts one.
std::map<int, long> voluntary_switches(int pid);

// CPU time of each thread since it began, in ms; the kernel counts it in ticks of 10 ms.
std::map<int, long> thread_cpu_ms(int pid);
