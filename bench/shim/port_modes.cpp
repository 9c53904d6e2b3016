#include "port_modes.h"

#include <dlfcn.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "device_names.h"
#include "shim_parts.h"
#include "shim_record.h"

namespace bench {
namespace {

// The daemon's own mode variables, by its dynamic symbols; null when it has none.
struct PortModeSource {
    const char* symbol;
    std::size_t device;
    const int* mode = nullptr;
    std::atomic<int> published{-1};
};
constinit std::array<PortModeSource, 3> g_modes{{{"g_usb_modem_port_mode", device_at("modem")},
                                                 {"g_usb_at_port_mode", device_at("at")},
                                                 {"g_usb_uart_port_mode", device_at("uart")}}};
std::mutex g_modes_mutex;  // one thread publishes at a time; taken before the recording's own

bool is_published(const PortModeSource& source) {
    return source.mode == nullptr ||
           source.published.load() == __atomic_load_n(source.mode, __ATOMIC_RELAXED);
}

// The mode is read again under the lock: another thread may have published a later one meanwhile.
void publish_mode(PortModeSource& source) {
    const std::lock_guard lock(g_modes_mutex);
    const int mode = __atomic_load_n(source.mode, __ATOMIC_RELAXED);
    const int before = source.published.exchange(mode);
    if (before == mode) {
        return;
    }
    if (g_state != nullptr) {
        g_state->devices[source.device].port_mode = static_cast<std::uint32_t>(mode) + 1;
    }
    if (before >= 0) {
        record_mode(source.device, mode);
    }
}

}  // namespace

void find_modes() {
    for (PortModeSource& source : g_modes) {
        source.mode = static_cast<const int*>(dlsym(RTLD_DEFAULT, source.symbol));
    }
}

void publish_modes() {
    for (PortModeSource& source : g_modes) {
        if (!is_published(source)) {
            publish_mode(source);
        }
    }
}

}  // namespace bench
