#include "mhi_monitor.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

#include "diag.h"
#include "log.h"
#include "mhi_uevent.h"
#include "mutex_guard.h"
#include "shared_int.h"

int g_vexa_pcie_enabled = VEXA_LINUX_TRISTATE_UNKNOWN;
int g_mhi_ctrl_state = VEXA_MHI_CTRL_UNKNOWN;
sem_t g_mhi_monitor_semaphore;
pthread_mutex_t g_mhi_monitor_write_op;

namespace {

constexpr const char* kMhiControlPath = "/dev/mhi_ctrl";
constexpr const char* kMhiUeventPath = "/sys/devices/virtual/mhi/mhi_ctrl/uevent";
constexpr int kUeventReceiveBuffer = 1024;  // bytes, of the socket
constexpr unsigned kKernelUeventGroup = 1;  // multicast group mask
constexpr int kDiagModePcie = 7;

// One byte is kept for the NUL behind what was received.
using UeventArea = std::array<char, kUeventTextSize>;
constexpr std::size_t kUeventReadSize = kUeventTextSize - 1;

// Decides once between PCIe and USB; true when PCIe.
bool detect_pcie() {
    if (vexa_linux_does_mhi_ctrl_exist() == 0) {
        VEXA_LOG("mhi_ctrl detected. MBIM is over PCIe Interface: %d,%d,%d\r\n", 0, 0, 0);
        store_shared(g_vexa_pcie_enabled, VEXA_LINUX_TRISTATE_TRUE);
        return true;
    }
    if (errno == ENOENT)
        VEXA_LOG("mhi_ctrl file does not exist. MBIM is over USB Interface: %d,%d,%d\r\n", errno, 0,
                 0);
    else
        VEXA_LOG("Error checking for mhi_ctrl file: %d,%d,%d\r\n", errno, 0, 0);
    store_shared(g_vexa_pcie_enabled, VEXA_LINUX_TRISTATE_FALSE);
    return false;
}

bool is_link_pcie() {
    if (load_shared(g_vexa_pcie_enabled) == VEXA_LINUX_TRISTATE_UNKNOWN)
        return detect_pcie();
    return vexa_pcie_is_enabled() != 0;
}

void start_monitor() {
    if (sem_init(&g_mhi_monitor_semaphore, 0, 0) != 0) {
        VEXA_LOG("Failed to create semaphore, error. Bailing out.: %d,%d,%d\r\n", 0, 0, 0);
        return;
    }
    vexa_os_mutex_init(&g_mhi_monitor_write_op);
    pthread_t monitor;
    if (pthread_create(&monitor, nullptr, vexa_linux_monitor_thread_entry, nullptr) == 0)
        return;
    VEXA_LOG("Failed to spawn mhi_monitor thread:Bailing out.: %d,%d,%d\r\n", 0, 0, 0);
    sem_destroy(&g_mhi_monitor_semaphore);
}

bool bind_to_kernel_uevents(int fd) {
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kUeventReceiveBuffer, sizeof kUeventReceiveBuffer) !=
        0) {
        VEXA_LOG("Error setting netlink socket options: %d,%d,%d\r\n", 0, 0, 0);
        return false;
    }
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_pid = static_cast<unsigned>(getpid());
    address.nl_groups = kKernelUeventGroup;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        VEXA_LOG("Error binding netlink socket: %d,%d,%d\r\n", 0, 0, 0);
        return false;
    }
    return true;
}

// Bytes of a state file read into `area`, 0 when there are none to parse.
int read_uevent_file(UeventArea& area) {
    const int fd = open(kMhiUeventPath, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        VEXA_LOG("Error opening MHI uevent file: %d,%d,%d\r\n", 0, 0, 0);
        return 0;
    }
    VEXA_LOG("Reading MHI state from uevent file: %d,%d,%d\r\n", 0, 0, 0);
    const ssize_t length = read(fd, area.data(), kUeventReadSize);
    close(fd);
    if (length < 0) {
        VEXA_LOG("Error reading MHI state from MHI uevent file: %d,%d,%d\r\n", 0, 0, 0);
        return 0;
    }
    if (length == 0)
        VEXA_LOG("Error MHI uevent file is empty: %d,%d,%d\r\n", 0, 0, 0);
    return static_cast<int>(length);
}

// Bytes of one datagram received into `area`, 0 when it is to be ignored.
int receive_uevent(int fd, UeventArea& area) {
    // MSG_TRUNC makes the result the datagram's own length.
    const ssize_t length = recv(fd, area.data(), kUeventReadSize, MSG_TRUNC | MSG_DONTWAIT);
    if (length < 0) {
        VEXA_LOG("Error receving uevent msg . Ignoring msg: %d,%d,%d\r\n", 0, 0, 0);
        return 0;
    }
    if (length == 0) {
        VEXA_LOG("Error recevied empty uevent msg. Ignoring msg: %d,%d,%d\r\n", 0, 0, 0);
        return 0;
    }
    if (static_cast<std::size_t>(length) > kUeventReadSize) {
        VEXA_LOG("Error uevent datagram is truncated: %d,%d,%d\r\n", 0, 0, 0);
        return 0;
    }
    return static_cast<int>(length);
}

vexa_mhi_ctrl_state_e parse_area(UeventArea& area, int length) {
    if (length == 0)
        return VEXA_MHI_CTRL_UNKNOWN;
    area[static_cast<std::size_t>(length)] = '\0';
    return vexa_linux_parse_mhi_uevent(area.data(), length);
}

// Serves uevents until poll fails.
void follow_uevents(int fd) {
    UeventArea area;
    pollfd wait{fd, POLLIN, 0};
    while (poll(&wait, 1, -1) >= 0) {
        // An overrun of the receive buffer shows as POLLERR and is taken away by receiving.
        if ((wait.revents & (POLLIN | POLLERR)) == 0)
            continue;
        const vexa_mhi_ctrl_state_e state = parse_area(area, receive_uevent(fd, area));
        if (state != VEXA_MHI_CTRL_UNKNOWN)
            vexa_linux_update_mhi_channel_state(state);
    }
    VEXA_LOG("Poll from mhi_ctrl file returned with error: %d,%d,%d\r\n", 0, 0, 0);
}

}  // namespace

void vexa_linux_dev_init() {
    if (is_link_pcie())
        start_monitor();
}

int vexa_linux_does_mhi_ctrl_exist() {
    return access(kMhiControlPath, F_OK);
}

int vexa_pcie_is_enabled() {
    return load_shared(g_vexa_pcie_enabled) == VEXA_LINUX_TRISTATE_TRUE ? 1 : 0;
}

bool is_pcie_live() {
    return vexa_pcie_is_enabled() != 0 &&
           load_shared(g_mhi_ctrl_state) == VEXA_MHI_CTRL_CONNECTED_FULL;
}

int vexa_linux_open_netlink_socket() {
    const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (fd < 0) {
        VEXA_LOG("Error creating uevent netlink socket: %d,%d,%d\r\n", 0, 0, 0);
        return -1;
    }
    if (bind_to_kernel_uevents(fd))
        return fd;
    close(fd);
    return -1;
}

vexa_mhi_ctrl_state_e vexa_linux_get_mhi_state_from_uevent_file() {
    UeventArea area;
    return parse_area(area, read_uevent_file(area));
}

vexa_mhi_ctrl_state_e vexa_linux_parse_mhi_uevent(char* msg, int len) {
    if (msg == nullptr || len <= 0)
        return VEXA_MHI_CTRL_UNKNOWN;
    std::array<char, kUeventTextSize> text;
    const MhiUevent found =
        parse_mhi_text(join_uevent(std::string_view(msg, static_cast<std::size_t>(len)), text));
    for (std::size_t i = 0; i < kMhiUeventRows.size(); ++i) {
        if (!found.hits[i])
            continue;
        // The key takes one of the three arguments that the diagnostic channel carries.
        VEXA_LOG("Received MHI uevent with %s state: %d,%d,0\r\n", kMhiUeventRows[i].key, 0, 0);
    }
    return found.state;
}

int vexa_linux_update_mhi_channel_state(vexa_mhi_ctrl_state_e mhi_state) {
    const auto current = static_cast<vexa_mhi_ctrl_state_e>(load_shared(g_mhi_ctrl_state));
    VEXA_LOG("MHI channel state: %d,%d,%d\r\n", current, mhi_state, 0);
    const MhiMerge merged = merge_mhi_state(current, mhi_state);
    store_shared(g_mhi_ctrl_state, merged.state);
    if (merged.effect == MhiEffect::connected) {
        sem_post(&g_mhi_monitor_semaphore);
        diag_switch_logging(kDiagModePcie, nullptr);
    }
    if (merged.effect == MhiEffect::state_only)
        VEXA_LOG("no action is taken apart from current_mhi_channel_state update: %d,%d,%d\r\n", 0,
                 0, 0);
    return 1;
}

void* vexa_linux_monitor_thread_entry(void*) {
    VEXA_LOG("MHI Monitor Thread started: %d,%d,%d\r\n", 0, 0, 0);
    const int fd = vexa_linux_open_netlink_socket();
    if (fd < 0) {
        VEXA_LOG("MHI Monitor Thread ends without a netlink socket: %d,%d,%d\r\n", 0, 0, 0);
        return nullptr;
    }
    vexa_linux_update_mhi_channel_state(vexa_linux_get_mhi_state_from_uevent_file());
    follow_uevents(fd);
    close(fd);
    return nullptr;
}
