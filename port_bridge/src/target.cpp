#include "target.h"

#include <sys/utsname.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "descriptors.h"
#include "log.h"
#include "modem_readers.h"
#include "start_trace.h"

namespace {

constexpr const char* kDunSoftApFlagPath = "/etc/data/usb/softap_w_dun";
constexpr const char* kConfigPath = "/etc/data/port_bridge/port_bridge.config";
constexpr char kPciePathDigit = '3';

enum class Condition { none, smd_kernel, pcie_path };

struct TargetRow {
    ds_target_t target;
    Condition condition;
    void* (*mdm_handler)(void*);
    const char* const* usb_chardev;
    const char* const* mdm_chardev;
};

// The first row of a target whose condition holds is taken.
constexpr std::array<TargetRow, 9> kTargets = {{
    {DS_TARGET_MSM8996, Condition::none, modem_to_usb_bridge_glink, &usb_file_path,
     &glink_file_path},
    {DS_TARGET_COBALT, Condition::none, modem_to_usb_bridge_glink, &usb_file_path,
     &glink_file_path},
    {DS_TARGET_LE_STINGRAY, Condition::none, modem_to_usb_bridge_glink, &usb_file_path,
     &glink_file_path},
    {DS_TARGET_LE_PRAIRIE, Condition::none, modem_to_usb_bridge_glink, &usb_file_path,
     &glink_file_path},
    {DS_TARGET_FUSION_8084_9X45, Condition::none, modem_to_usb_bridge_mhi, &usb_file_path,
     &mhi_file_path},
    {DS_TARGET_FUSION_8096_9X55, Condition::none, modem_to_usb_bridge_mhi, &usb_file_path,
     &mhi_file_path},
    {DS_TARGET_JACALA, Condition::smd_kernel, modem_to_usb_bridge_smd, &usb_file_path,
     &glink_file_path},
    {DS_TARGET_LE_CHIRON, Condition::pcie_path, modem_to_usb_bridge_glink, &mhi_file_path,
     &glink_file_path},
    {DS_TARGET_LE_CHIRON, Condition::none, modem_to_usb_bridge_glink, &usb_file_path,
     &glink_file_path},
}};

struct ClosePipe {
    void operator()(FILE* pipe) const { pclose(pipe); }
};

// EOF when the command could not be run or the file is missing or empty.
int first_character_of(const char* path) {
    char command[200];
    snprintf(command, sizeof(command), "cat %s", path);
    const std::unique_ptr<FILE, ClosePipe> pipe(popen(command, "re"));
    return pipe == nullptr ? EOF : fgetc(pipe.get());
}

bool holds(Condition condition, bool (*has_smd)(), bool (*is_pcie_path)()) {
    if (condition == Condition::smd_kernel)
        return has_smd();
    return condition == Condition::none || is_pcie_path();
}

}  // namespace

bool IsDunSoftAPMode() {
    if (first_character_of(kDunSoftApFlagPath) == 'Y')
        return true;
    START_TRACE_INFO(" Not in DUN+SoftAP mode. Continue !!");
    return false;
}

bool getHostPort() {
    if (first_character_of(kConfigPath) != kPciePathDigit)
        return false;
    VEXA_LOG("IN PCIE PATH\r\n");
    return true;
}

bool is_smd_release(const char* release) {
    return release[0] >= '4';
}

bool Check_kernel_version() {
    utsname info{};
    const int result = uname(&info);
    if (result != 0) {
        START_TRACE_ERROR("Failed to get system_info ret [%d] !!", result);
        return false;
    }
    START_TRACE_INFO(
        "system_info : sysname [%s] nodename [%s] release [%s] version [%s]  machine [%s]",
        info.sysname, info.nodename, info.release, info.version, info.machine);
    if (!is_smd_release(info.release)) {
        START_TRACE_ERROR("SMD transport not supported!!");
        return false;
    }
    START_TRACE_INFO("SMD transport supported!!");
    return true;
}

bool find_target(ds_target_t target, bool (*has_smd)(), bool (*is_pcie_path)(),
                 pb_targetinfo& target_info) {
    for (const TargetRow& row : kTargets) {
        if (row.target != target || !holds(row.condition, has_smd, is_pcie_path))
            continue;
        target_info = {*row.mdm_chardev, *row.usb_chardev, row.mdm_handler};
        return true;
    }
    return false;
}

// The words that explain a fatal end also go to the log: the trace channel is silent as shipped.
void pb_resolve_target(pb_targetinfo& target_info) {
    const ds_target_t target = ds_get_target();
    const char* name = ds_get_target_str(target);
    if (find_target(target, Check_kernel_version, getHostPort, target_info)) {
        START_TRACE_INFO("Resolved target to: %s\n", name);
        START_TRACE_INFO("Using USB end point: %s\n", target_info.usb_chardev);
        START_TRACE_INFO("Using MDM end point: %s\n", target_info.mdm_chardev);
        START_TRACE_INFO("Using mdm_handler: %p\n",
                         reinterpret_cast<void*>(target_info.mdm_handler));
        return;
    }
    if (target == DS_TARGET_JACALA) {
        START_TRACE_ERROR("Unsupported target: %s - Check for char_bridge on this target!", name);
        VEXA_LOG("Unsupported target: %s - Check for char_bridge on this target!\r\n", name);
    } else {
        START_TRACE_ERROR("Unsupported target: %s\n", name);
        VEXA_LOG("Unsupported target: %s\n", name);
    }
    START_TRACE_ERROR("Failed to resolve target info. Dying...\n");
    VEXA_LOG("Failed to resolve target info. Dying...\n");
    close_start_trace();
    exit(1);
}
