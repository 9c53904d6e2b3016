// What the bench and the preloaded shim share about the module's devices: a mapped file of 32-bit
// words, the same layout on every machine, so that either side reads and writes them as it likes.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string_view>

namespace bench {

// In the order of ModuleState::devices.
inline constexpr std::array<std::string_view, 7> kDevicePaths{
    "/dev/at_usb0", "/dev/at_usb1", "/dev/mhi_pipe_32", "/dev/ttyMSM1",
    "/dev/at_mdm0", "/dev/smd7",    "/dev/smd8"};

inline constexpr const char* kStatePath = "/dev/.bench/state";
// A named pipe per device, kWakePrefix followed by the device's index: a byte in it makes a blocked
// poll look at `pending_events` again.
inline constexpr const char* kWakePrefix = "/dev/.bench/wake";

inline constexpr std::uint32_t kForEver = 0xffffffff;

using Word = std::atomic<std::uint32_t>;

// A fault is armed by its count, which goes down by one at each use (kForEver stays).
struct DeviceState {
    Word modem_bits;      // the modem-control word, TIOCM_ bits
    Word modem_gets;      // how often it was read by the daemon
    Word modem_sets;      // how often it was written by the daemon
    Word pending_events;  // poll events to be reported once, POLLPRI for one
    Word intents;         // receive intents accepted
    Word intent_size;     // size asked for by the last one
    Word intent_refusals;
    Word write_calls;  // attempts, refused ones too
    Word write_limit;  // most bytes taken by one write; 0: no limit
    Word write_refusals;
    Word write_error;  // errno of a refused write
    Word read_refusals;
    Word read_error;
    Word open_refusals;
    Word open_error;
    Word control_refusals;  // of fcntl(F_SETFL)
    Word control_error;
    Word settings_refusals;  // of tcsetattr
    Word settings_error;
    Word opens;     // successes
    Word closes;    // of descriptors that an open of this device gave; their copies do not count
    Word polls;     // polls begun with this device in the set
    Word settings;  // tcsetattr calls that went through
    Word last_settings_speed;
    Word polls_since_open;  // polls begun since the last success of open: 1 says it is served
    Word port_mode;         // 1 + the host port's mode; 0: not known
};
static_assert(sizeof(DeviceState) == 26 * 4);
static_assert(Word::is_always_lock_free);

struct ModuleState {
    // While something is recorded: calls that send, begun and written down. Equal: the recording
    // tells all that went out.
    Word sends_begun;
    Word sends_recorded;
    std::array<DeviceState, kDevicePaths.size()> devices;
};

}  // namespace bench
