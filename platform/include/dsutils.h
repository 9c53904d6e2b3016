// Data-services utility library (libdsutils) as this daemon calls it.
#pragma once

enum ds_target_t : int {
    DS_TARGET_MSM8996 = 23,
    DS_TARGET_FUSION_8084_9X45 = 24,
    DS_TARGET_JACALA = 26,
    DS_TARGET_FUSION_8096_9X55 = 28,
    DS_TARGET_COBALT = 31,
    DS_TARGET_LE_STINGRAY = 35,
    DS_TARGET_LE_CHIRON = 36,
    DS_TARGET_LE_PRAIRIE = 38,
};

extern "C" {
ds_target_t ds_get_target(void);
// Name of a target for a log line; never null.
const char* ds_get_target_str(ds_target_t target);
}
