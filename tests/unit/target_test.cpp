// Target resolution.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <set>

#include "modem_readers.h"
#include "start_trace.h"
#include "target.h"

namespace {

bool yes() {
    return true;
}
bool no() {
    return false;
}
bool never_asked() {
    ADD_FAILURE() << "this target does not depend on it";
    return false;
}

struct TargetRow {
    int target;
    bool (*has_smd)();
    bool (*is_pcie_path)();
    void* (*handler)(void*);  // null: not resolved
    const char* usb;
    const char* mdm;
};

TEST(Target, Table) {
    const TargetRow rows[] = {
        {23, never_asked, never_asked, modem_to_usb_bridge_glink, "/dev/at_usb0", "/dev/at_mdm0"},
        {31, never_asked, never_asked, modem_to_usb_bridge_glink, "/dev/at_usb0", "/dev/at_mdm0"},
        {35, never_asked, never_asked, modem_to_usb_bridge_glink, "/dev/at_usb0", "/dev/at_mdm0"},
        {38, never_asked, never_asked, modem_to_usb_bridge_glink, "/dev/at_usb0", "/dev/at_mdm0"},
        {24, never_asked, never_asked, modem_to_usb_bridge_mhi, "/dev/at_usb0", "/dev/mhi_pipe_32"},
        {28, never_asked, never_asked, modem_to_usb_bridge_mhi, "/dev/at_usb0", "/dev/mhi_pipe_32"},
        {26, yes, never_asked, modem_to_usb_bridge_smd, "/dev/at_usb0", "/dev/at_mdm0"},
        {26, no, never_asked, nullptr, "", ""},
        {36, never_asked, yes, modem_to_usb_bridge_glink, "/dev/mhi_pipe_32", "/dev/at_mdm0"},
        {36, never_asked, no, modem_to_usb_bridge_glink, "/dev/at_usb0", "/dev/at_mdm0"},
    };
    for (const TargetRow& row : rows) {
        pb_targetinfo found{};
        EXPECT_EQ(
            find_target(static_cast<ds_target_t>(row.target), row.has_smd, row.is_pcie_path, found),
            row.handler != nullptr)
            << row.target;
        EXPECT_EQ(found.mdm_handler, row.handler) << row.target;
        if (row.handler == nullptr)
            continue;
        EXPECT_STREQ(found.usb_chardev, row.usb) << row.target;
        EXPECT_STREQ(found.mdm_chardev, row.mdm) << row.target;
    }
}

TEST(Target, EveryOtherNumberIsUnknown) {
    const std::set<int> known = {23, 24, 26, 28, 31, 35, 36, 38};
    for (int target = -1; target <= 60; ++target) {
        pb_targetinfo found{};
        EXPECT_EQ(find_target(static_cast<ds_target_t>(target), yes, no, found),
                  known.contains(target))
            << target;
    }
}

TEST(Target, FirstCharacterOfTheReleaseDecides) {
    const struct {
        const char* release;
        bool has_smd;
    } rows[] = {
        {"4.9.103", true}, {"5.15.0", true},  {"9.1", true}, {"3.18.71", false},
        {"2.6.32", false}, {"10.0.1", false},  // a release beginning with 10 counts as below 4
        {"", false},
    };
    for (const auto& row : rows) EXPECT_EQ(is_smd_release(row.release), row.has_smd) << row.release;
}

TEST(Target, StandInAnswersTheEnvironment) {
    unsetenv("VEXA_DS_TARGET");
    EXPECT_EQ(ds_get_target(), DS_TARGET_LE_STINGRAY);
    setenv("VEXA_DS_TARGET", "36", 1);
    EXPECT_EQ(ds_get_target(), DS_TARGET_LE_CHIRON);
    EXPECT_STREQ(ds_get_target_str(DS_TARGET_LE_CHIRON), "DS_TARGET_LE_CHIRON");
    unsetenv("VEXA_DS_TARGET");
}

TEST(TargetDeathTest, UnknownTargetEndsTheProcessWithStatus1) {
    EXPECT_EXIT(
        {
            setenv("VEXA_DS_TARGET", "99", 1);
            dup2(STDERR_FILENO, STDOUT_FILENO);
            pb_get_log_enabled();
            pb_targetinfo found{};
            pb_resolve_target(found);
        },
        testing::ExitedWithCode(1),
        "Unsupported target: DS_TARGET_UNKNOWN\n.*Failed to resolve target info. Dying...");
}

}  // namespace
