// Which daemon the tests start: the one of their own build, or the one that VEXA_TEST_DAEMON
// names, with everything in front of it that it takes to run it and to preload the shim:
//
//     VEXA_TEST_DAEMON="/usr/bin/qemu-arm -L SYSROOT -E LD_PRELOAD=SHIM DAEMON"
#pragma once

#include "module_space.h"

// The daemon with the shim preloaded; the output and the rest of the environment are the caller's.
bench::SpawnRequest tested_daemon();

// A static program preloads nothing: no device has words then, and no modem channel can be made.
bool daemon_has_shim();
