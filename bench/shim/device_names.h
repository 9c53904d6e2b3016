// What recordings (docs/recording.md) and the console call the module's devices, their
// modem-control lines and the host ports' modes.
#pragma once

#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "device_state.h"

namespace bench {

// In the order of kDevicePaths: the host ports, then the modem channels.
inline constexpr std::array<const char*, kDevicePaths.size()> kPlaces{
    "modem", "at", "pcie", "uart", "cp-modem", "cp-at", "cp-uart"};
inline constexpr std::size_t kHostDevices = 4;
inline constexpr std::size_t kChannels = kDevicePaths.size() - kHostDevices;

// Index of a place's device; kDevicePaths.size() for what is no such place.
constexpr std::size_t device_at(std::string_view place) {
    return static_cast<std::size_t>(std::find(kPlaces.begin(), kPlaces.end(), place) -
                                    kPlaces.begin());
}

constexpr bool is_host_port(std::string_view place) {
    return device_at(place) < kHostDevices;
}

struct LineName {
    std::uint32_t bit;
    std::string_view name;
};
inline constexpr std::array<LineName, 6> kLineNames{{{TIOCM_DTR, "DTR"},
                                                     {TIOCM_RTS, "RTS"},
                                                     {TIOCM_CTS, "CTS"},
                                                     {TIOCM_DSR, "DSR"},
                                                     {TIOCM_CD, "CD"},
                                                     {TIOCM_RI, "RI"}}};

// The names of the lines that are on, in one text; allocates nothing.
class LinesOn {
  public:
    explicit LinesOn(std::uint32_t bits) {
        for (const LineName& line : kLineNames) {
            if ((bits & line.bit) != 0) {
                add(line.name);
            }
        }
    }
    std::string_view text() const { return {text_.data(), size_}; }

  private:
    void add(std::string_view name) {
        if (size_ != 0) {
            text_[size_++] = ' ';
        }
        size_ += name.copy(&text_[size_], name.size());
    }

    std::array<char, 32> text_;
    std::size_t size_ = 0;
};

// In the order of the daemon's modes.
inline constexpr std::array<const char*, 6> kModeNames{"command", "hex",  "sms",
                                                       "ppp",     "data", "mux"};

}  // namespace bench
