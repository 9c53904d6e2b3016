#include "pcie_module.h"

#include <linux/netlink.h>

#include <fstream>
#include <sstream>

namespace {

constexpr int kConnected = 6;
constexpr int kDisconnected = 3;
constexpr std::size_t kUeventRead = 1023;  // more is refused

std::string merge_line(int current, int reported) {
    return "MHI channel state: " + std::to_string(current) + "," + std::to_string(reported) +
           ",0\r\n";
}

// Bytes that wait in the uevent sockets of a process's network namespace.
long waiting_uevents(int pid) {
    std::ifstream table("/proc/" + std::to_string(pid) + "/net/netlink");
    std::string line;
    long waiting = 0;
    std::getline(table, line);  // the columns' names
    while (std::getline(table, line)) {
        std::istringstream row(line);
        std::string socket;
        std::string groups;
        int protocol = -1;
        long port = 0;
        long received = 0;
        row >> socket >> protocol >> port >> groups >> received;
        if (protocol == NETLINK_KOBJECT_UEVENT && port > 0)
            waiting += received;
    }
    return waiting;
}

}  // namespace

ModuleOptions pcie_options(const std::string& state) {
    ModuleOptions options;
    options.files["/dev/mhi_ctrl"] = "";
    if (!state.empty())
        options.files[kMhiStateFile] = state;
    return options;
}

std::string mhi_uevent(const std::vector<std::string>& states) {
    std::string text = "change@/devices/virtual/mhi/mhi_ctrl\nACTION=change\nSUBSYSTEM=mhi\n";
    for (const std::string& state : states) text += "MHI_CHANNEL_STATE_" + state + "\n";
    return text;
}

MhiLink::MhiLink(Module& module, int state_at_start, Here here)
    : module_(module), before_connect_(state_at_start) {
    wait_for(0, state_at_start, 0, here);
}

void MhiLink::report(const std::vector<std::string>& states, int current, int reported, Here here) {
    const std::size_t from = module_.log_size();
    module_.send_uevent(mhi_uevent(states));
    wait_for(current, reported, from, here);
}

void MhiLink::connect(Here here) {
    report({"32=CONNECTED", "33=CONNECTED"}, before_connect_, kConnected, here);
}

void MhiLink::disconnect(Here here) {
    report({"32=DISCONNECTED", "33=DISCONNECTED"}, kConnected, kDisconnected, here);
    before_connect_ = kDisconnected;
}

void MhiLink::wait_until_drained(Here here) {
    module_.wait_until([this] { return waiting_uevents(module_.daemon_pid()) == 0; },
                       "the uevents to be read", here);
}

// The line comes before the change itself. An oversized uevent is refused with a line of its own,
// which so comes after the change.
void MhiLink::wait_for(int current, int reported, std::size_t from, Here here) {
    const std::string line = merge_line(current, reported);
    module_.wait_until([&] { return module_.log_has(line, from); }, line + " in the log", here);
    const std::size_t before_marker = module_.log_size();
    module_.send_uevent("ACTION=change\nPADDING=" + std::string(kUeventRead, 'x') + "\n");
    module_.wait_until(
        [&] { return module_.log_has("Error uevent datagram is truncated", before_marker); },
        "an oversized uevent to be refused", here);
}
