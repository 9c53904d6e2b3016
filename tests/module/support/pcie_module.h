// A simulated module that is attached over PCIe.
#pragma once

#include <string>

#include "module.h"

inline constexpr const char* kMhiStateFile = "/sys/devices/virtual/mhi/mhi_ctrl/uevent";
inline constexpr const char* kMhiPipe = "/dev/mhi_pipe_32";

// `state` is the text of the channels' state file, which is absent when it is empty.
ModuleOptions pcie_options(const std::string& state = "");

// A uevent of the MHI driver that names these channels' states: {"32=CONNECTED"}.
std::string mhi_uevent(const std::vector<std::string>& states);

// Drives the channels by uevents and waits until the monitor has taken each in.
class MhiLink {
  public:
    // Waits until the monitor listens and has taken the state file's state, as a report of it.
    explicit MhiLink(Module& module, int state_at_start = 0, Here here = Here::current());

    // Sends it, and waits until the monitor was in state `current` and took the report of state
    // `reported` in.
    void report(const std::vector<std::string>& states, int current, int reported,
                Here here = Here::current());
    // Both channels in one uevent, from disconnected or unknown, and back.
    void connect(Here here = Here::current());
    void disconnect(Here here = Here::current());
    // Until the monitor has read every uevent that was sent.
    void wait_until_drained(Here here = Here::current());

  private:
    void wait_for(int current, int reported, std::size_t from, Here here);

    Module& module_;
    int before_connect_;
};
