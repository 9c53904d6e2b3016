// Records of the "AT over MBIM" QMI service, and the description its messages are coded by.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qmi_idl.h"

inline constexpr unsigned kMbimAtMessageId = 1;  // of request, response and indication
inline constexpr std::size_t kMbimAtTextSize = 1024;
inline constexpr unsigned kMbimServiceMajor = 1;
inline constexpr unsigned kMbimServiceMinor = 1;
inline constexpr unsigned kMbimServiceLibrary = 6;

struct vexa_mbim_at_req_msg_v01 {
    uint32_t data_len;           // valid bytes in `data`, which need not end in a NUL
    char data[kMbimAtTextSize];  // AT command text
};

struct vexa_mbim_at_resp_msg_v01 {
    qmi_response_type_v01 resp;
    uint32_t data_len;           // characters in `data`
    char data[kMbimAtTextSize];  // answer text and its NUL
};

struct vexa_mbim_at_ind_msg_v01 {
    char indication[kMbimAtTextSize];  // unsolicited text and its NUL
};

static_assert(sizeof(vexa_mbim_at_req_msg_v01) == 1028);
static_assert(sizeof(vexa_mbim_at_resp_msg_v01) == 1036);
static_assert(sizeof(vexa_mbim_at_ind_msg_v01) == 1024);

// The service's description, or null for another version than 1, 1, 6.
qmi_idl_service_object_type vexa_mbim_get_service_object_internal_v01(unsigned major_version,
                                                                      unsigned minor_version,
                                                                      unsigned library_version);
