#include "mhi_uevent.h"

#include <algorithm>

namespace {

// Two halves that arrived one by one, in either order.
struct HalvesRow {
    vexa_mhi_ctrl_state_e r;
    vexa_mhi_ctrl_state_e w;
    MhiMerge merged;
};

constexpr std::array<HalvesRow, 3> kHalves{{
    {VEXA_MHI_CTRL_CONFIGURED_R,
     VEXA_MHI_CTRL_CONFIGURED_W,
     {VEXA_MHI_CTRL_CONFIGURED_FULL, MhiEffect::state_only}},
    {VEXA_MHI_CTRL_CONNECTED_R,
     VEXA_MHI_CTRL_CONNECTED_W,
     {VEXA_MHI_CTRL_CONNECTED_FULL, MhiEffect::connected}},
    {VEXA_MHI_CTRL_DISCONNECTED_R,
     VEXA_MHI_CTRL_DISCONNECTED_W,
     {VEXA_MHI_CTRL_DISCONNECTED_FULL, MhiEffect::nothing}},
}};

}  // namespace

std::string_view join_uevent(std::string_view uevent, std::span<char> text) {
    const std::size_t room = text.size() - 1;
    const std::size_t copied = std::min(uevent.size(), room);
    std::replace_copy(uevent.begin(), uevent.begin() + static_cast<std::ptrdiff_t>(copied),
                      text.begin(), '\0', ' ');
    std::size_t length = copied;
    const bool is_last_unterminated = !uevent.empty() && uevent.back() != '\0';
    if (is_last_unterminated && length < room)
        text[length++] = ' ';
    text[length] = '\0';
    return {text.data(), length};
}

MhiUevent parse_mhi_text(std::string_view text) {
    MhiUevent found{VEXA_MHI_CTRL_UNKNOWN, {}};
    for (std::size_t i = 0; i < kMhiUeventRows.size(); ++i) {
        const MhiUeventRow& row = kMhiUeventRows[i];
        if (text.find(row.key) == std::string_view::npos)
            continue;
        found.hits[i] = true;
        found.state = found.state == row.other_half ? row.whole : row.half;
    }
    return found;
}

MhiMerge merge_mhi_state(vexa_mhi_ctrl_state_e current, vexa_mhi_ctrl_state_e reported) {
    for (const HalvesRow& halves : kHalves) {
        if (current == halves.r && reported == halves.w)
            return halves.merged;
        if (current == halves.w && reported == halves.r)
            return halves.merged;
    }
    switch (reported) {
        case VEXA_MHI_CTRL_CONNECTED_FULL:
            return {reported, MhiEffect::connected};
        case VEXA_MHI_CTRL_DISCONNECTED_FULL:
            return {reported, MhiEffect::nothing};
        default:
            return {reported, MhiEffect::state_only};
    }
}
