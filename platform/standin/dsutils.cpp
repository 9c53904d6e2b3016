// Stand-in for the data-services utility library: the target is the number in VEXA_DS_TARGET.
#include "dsutils.h"

#include <array>
#include <cstdlib>

namespace {

struct TargetName {
    ds_target_t target;
    const char* name;
};
constexpr std::array<TargetName, 8> kTargetNames = {{
    {DS_TARGET_MSM8996, "DS_TARGET_MSM8996"},
    {DS_TARGET_FUSION_8084_9X45, "DS_TARGET_FUSION_8084_9X45"},
    {DS_TARGET_JACALA, "DS_TARGET_JACALA"},
    {DS_TARGET_FUSION_8096_9X55, "DS_TARGET_FUSION_8096_9X55"},
    {DS_TARGET_COBALT, "DS_TARGET_COBALT"},
    {DS_TARGET_LE_STINGRAY, "DS_TARGET_LE_STINGRAY"},
    {DS_TARGET_LE_CHIRON, "DS_TARGET_LE_CHIRON"},
    {DS_TARGET_LE_PRAIRIE, "DS_TARGET_LE_PRAIRIE"},
}};

}  // namespace

ds_target_t ds_get_target(void) {
    const char* number = getenv("VEXA_DS_TARGET");
    if (number == nullptr || *number == '\0')
        return DS_TARGET_LE_STINGRAY;
    return static_cast<ds_target_t>(strtol(number, nullptr, 10));
}

const char* ds_get_target_str(ds_target_t target) {
    for (const TargetName& row : kTargetNames)
        if (row.target == target)
            return row.name;
    return "DS_TARGET_UNKNOWN";
}
