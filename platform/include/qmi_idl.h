// QMI message descriptions (libqmiservices) as this project's service and its peers use them.
#pragma once

#include <cstddef>
#include <cstdint>

enum qmi_result_type_v01 : int32_t { QMI_RESULT_SUCCESS_V01 = 0, QMI_RESULT_FAILURE_V01 = 1 };

enum qmi_error_type_v01 : int32_t {
    QMI_ERR_NONE_V01 = 0,
    QMI_ERR_MALFORMED_MSG_V01 = 1,
    QMI_ERR_NO_MEMORY_V01 = 2,
    QMI_ERR_INTERNAL_V01 = 3,
};

struct qmi_response_type_v01 {
    qmi_result_type_v01 result;
    qmi_error_type_v01 error;
};
static_assert(sizeof(qmi_response_type_v01) == 8);

// How a field of a record stands in its TLV (all numbers little-endian).
enum class qmi_idl_value : uint8_t {
    result_code,  // qmi_response_type_v01 as two 16-bit numbers, result then error
    number,       // 32 bits
    text,         // as many bytes as the field has
};

struct qmi_idl_field {
    uint8_t tlv;  // its id
    qmi_idl_value value;
    uint16_t offset;  // in the record, bytes
    uint16_t size;    // in the record, bytes
};

enum qmi_idl_type_of_message_type : uint8_t {
    QMI_IDL_REQUEST = 0,
    QMI_IDL_RESPONSE = 1,
    QMI_IDL_INDICATION = 2,
};

// Every field is mandatory, once.
struct qmi_idl_message {
    uint16_t id;
    qmi_idl_type_of_message_type type;
    uint32_t record_size;
    const qmi_idl_field* fields;
    std::size_t field_count;
};

struct qmi_idl_service {
    uint32_t service_id;
    uint32_t major_version;
    uint32_t minor_version;
    uint32_t library_version;
    const qmi_idl_message* messages;
    std::size_t message_count;
};

using qmi_idl_service_object_type = const qmi_idl_service*;

inline constexpr int QMI_IDL_NO_ERR = 0;
inline constexpr int QMI_IDL_UNKNOWN_MESSAGE = -1;
inline constexpr int QMI_IDL_BAD_LENGTH = -2;     // a record or area of the wrong size
inline constexpr int QMI_IDL_MISSING_TLV = -3;    // a mandatory field did not come
inline constexpr int QMI_IDL_MALFORMED_TLV = -4;  // a field of the wrong length, or cut off

extern "C" {
// Record to TLVs; *out_length is set on success only. QMI_IDL_NO_ERR, QMI_IDL_UNKNOWN_MESSAGE or
// QMI_IDL_BAD_LENGTH.
int qmi_idl_message_encode(qmi_idl_service_object_type service, qmi_idl_type_of_message_type type,
                           unsigned id, const void* record, unsigned record_length, uint8_t* out,
                           unsigned out_size, unsigned* out_length);
// TLVs to record; unknown TLVs are passed over. Of a response that carries a failure the result
// code alone is enough. Any of the codes above; the record is zeroed first.
int qmi_idl_message_decode(qmi_idl_service_object_type service, qmi_idl_type_of_message_type type,
                           unsigned id, const uint8_t* tlvs, unsigned tlvs_length, void* record,
                           unsigned record_length);
// Size of a message's record, 0 for an unknown message.
unsigned qmi_idl_record_size(qmi_idl_service_object_type service, qmi_idl_type_of_message_type type,
                             unsigned id);
}
