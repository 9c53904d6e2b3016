// What a kernel uevent says about the MHI channel pair, and how two halves become a whole. Pure.
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

#include "mhi_state.h"

// The text a uevent is searched in, its NUL included; what does not fit is cut.
inline constexpr std::size_t kUeventTextSize = 1024;

// A uevent is a run of zero-terminated key=value strings: "ACTION=change\0SUBSYSTEM=mhi\0".
// Joins them, each followed by one blank, into `text` and terminates it.
std::string_view join_uevent(std::string_view uevent, std::span<char> text);

// One key that moves the state. Later rows override earlier ones; a channel 33 row whose
// counterpart was just seen makes the pair whole.
struct MhiUeventRow {
    const char* key;
    vexa_mhi_ctrl_state_e other_half;  // result so far that makes the pair whole
    vexa_mhi_ctrl_state_e whole;
    vexa_mhi_ctrl_state_e half;
};

inline constexpr std::array<MhiUeventRow, 6> kMhiUeventRows{{
    {"MHI_CHANNEL_STATE_32=CONFIGURED", VEXA_MHI_CTRL_UNKNOWN, VEXA_MHI_CTRL_CONFIGURED_R,
     VEXA_MHI_CTRL_CONFIGURED_R},
    {"MHI_CHANNEL_STATE_33=CONFIGURED", VEXA_MHI_CTRL_CONFIGURED_R, VEXA_MHI_CTRL_CONFIGURED_FULL,
     VEXA_MHI_CTRL_CONFIGURED_W},
    {"MHI_CHANNEL_STATE_32=CONNECTED", VEXA_MHI_CTRL_UNKNOWN, VEXA_MHI_CTRL_CONNECTED_R,
     VEXA_MHI_CTRL_CONNECTED_R},
    {"MHI_CHANNEL_STATE_33=CONNECTED", VEXA_MHI_CTRL_CONNECTED_R, VEXA_MHI_CTRL_CONNECTED_FULL,
     VEXA_MHI_CTRL_CONNECTED_W},
    {"MHI_CHANNEL_STATE_32=DISCONNECTED", VEXA_MHI_CTRL_UNKNOWN, VEXA_MHI_CTRL_DISCONNECTED_R,
     VEXA_MHI_CTRL_DISCONNECTED_R},
    {"MHI_CHANNEL_STATE_33=DISCONNECTED", VEXA_MHI_CTRL_DISCONNECTED_R,
     VEXA_MHI_CTRL_DISCONNECTED_FULL, VEXA_MHI_CTRL_DISCONNECTED_W},
}};

struct MhiUevent {
    vexa_mhi_ctrl_state_e state;                   // VEXA_MHI_CTRL_UNKNOWN: no key hit
    std::array<bool, kMhiUeventRows.size()> hits;  // which rows' keys occur
};

MhiUevent parse_mhi_text(std::string_view text);

// What comes with a new state.
enum class MhiEffect {
    nothing,
    state_only,  // said so in the log
    connected,   // the pipe's reader is released and diagnostics switch to PCIe
};

struct MhiMerge {
    vexa_mhi_ctrl_state_e state;
    MhiEffect effect;
};

MhiMerge merge_mhi_state(vexa_mhi_ctrl_state_e current, vexa_mhi_ctrl_state_e reported);
