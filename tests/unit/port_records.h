// What each reader's thread is to be given, told a second time for the tests.
#pragma once

#include "descriptors.h"
#include "thread_info.h"

inline constexpr thread_info_t kUsbMain = {
    "/dev/at_usb0", "/dev/at_mdm0", &usb_fd, &mdm_fd, &usb_mutex, &mdm_mutex, nullptr, nullptr, 0};
inline constexpr thread_info_t kModemMain = {
    "/dev/at_mdm0", "/dev/at_usb0", &mdm_fd, &usb_fd, &mdm_mutex, &usb_mutex, nullptr, nullptr, 0};
inline constexpr thread_info_t kModemAt = {"/dev/smd7",    "/dev/at_usb1",    &mdm_atport_fd,
                                           &usb_atport_fd, &mdm_atport_mutex, &usb_atport_mutex,
                                           nullptr,        nullptr,           0};
inline constexpr thread_info_t kModemAtOnPcie = {
    "/dev/smd7",        "/dev/at_usb1",      &mdm_atport_fd,
    &usb_atport_fd,     &mdm_atport_mutex,   &usb_atport_mutex,
    "/dev/mhi_pipe_32", &usb_atport_fd_pcie, 0};
inline constexpr thread_info_t kUsbAt = {"/dev/at_usb1", "/dev/smd7",       &usb_atport_fd,
                                         &mdm_atport_fd, &usb_atport_mutex, &mdm_atport_mutex,
                                         nullptr,        nullptr,           0};
inline constexpr thread_info_t kPipeAt = {"/dev/mhi_pipe_32",
                                          "/dev/smd7",
                                          &usb_atport_fd_pcie,
                                          &mdm_atport_fd,
                                          &usb_atport_mutex,
                                          &mdm_atport_mutex,
                                          nullptr,
                                          nullptr,
                                          1};
inline constexpr thread_info_t kModemUart = {"/dev/smd8",
                                             "/dev/ttyMSM1",
                                             &mdm_uartport_fd,
                                             &usb_uartport_fd,
                                             &mdm_uartport_mutex,
                                             &usb_uartport_mutex,
                                             nullptr,
                                             nullptr,
                                             0};
inline constexpr thread_info_t kUsbUart = {"/dev/ttyMSM1",
                                           "/dev/smd8",
                                           &usb_uartport_fd,
                                           &mdm_uartport_fd,
                                           &usb_uartport_mutex,
                                           &mdm_uartport_mutex,
                                           nullptr,
                                           nullptr,
                                           0};
