#include "vexa_mbim_service_v01.h"

#include <array>

namespace {

// This project's own number: QMI leaves 0xE0 and above to the maker of a module.
constexpr uint32_t kMbimAtServiceId = 0xE5;

template <typename Record, typename Field>
constexpr qmi_idl_field field(uint8_t tlv, qmi_idl_value value, std::size_t offset) {
    static_assert(sizeof(Record) <= UINT16_MAX);
    return {tlv, value, static_cast<uint16_t>(offset), static_cast<uint16_t>(sizeof(Field))};
}

using Request = vexa_mbim_at_req_msg_v01;
using Response = vexa_mbim_at_resp_msg_v01;
using Indication = vexa_mbim_at_ind_msg_v01;
using Text = char[kMbimAtTextSize];

// The layout of the three messages: one mandatory TLV per field, in the record's order, all of
// fixed length. Request and indication count from 0x01; 0x02 is every QMI response's result code.
//
//   message      TLV   field       bytes
//   request      0x01  data_len    4
//                0x02  data        1024
//   response     0x02  resp        4 (result 2, error 2)
//                0x03  data_len    4
//                0x04  data        1024
//   indication   0x01  indication  1024
//
constexpr std::array<qmi_idl_field, 2> kRequestFields = {{
    field<Request, uint32_t>(0x01, qmi_idl_value::number, offsetof(Request, data_len)),
    field<Request, Text>(0x02, qmi_idl_value::text, offsetof(Request, data)),
}};
constexpr std::array<qmi_idl_field, 3> kResponseFields = {{
    field<Response, qmi_response_type_v01>(0x02, qmi_idl_value::result_code,
                                           offsetof(Response, resp)),
    field<Response, uint32_t>(0x03, qmi_idl_value::number, offsetof(Response, data_len)),
    field<Response, Text>(0x04, qmi_idl_value::text, offsetof(Response, data)),
}};
constexpr std::array<qmi_idl_field, 1> kIndicationFields = {{
    field<Indication, Text>(0x01, qmi_idl_value::text, offsetof(Indication, indication)),
}};

constexpr std::array<qmi_idl_message, 3> kMessages = {{
    {kMbimAtMessageId, QMI_IDL_REQUEST, sizeof(Request), kRequestFields.data(),
     kRequestFields.size()},
    {kMbimAtMessageId, QMI_IDL_RESPONSE, sizeof(Response), kResponseFields.data(),
     kResponseFields.size()},
    {kMbimAtMessageId, QMI_IDL_INDICATION, sizeof(Indication), kIndicationFields.data(),
     kIndicationFields.size()},
}};

constexpr qmi_idl_service kService = {kMbimAtServiceId,    kMbimServiceMajor, kMbimServiceMinor,
                                      kMbimServiceLibrary, kMessages.data(),  kMessages.size()};

}  // namespace

qmi_idl_service_object_type vexa_mbim_get_service_object_internal_v01(unsigned major_version,
                                                                      unsigned minor_version,
                                                                      unsigned library_version) {
    const bool is_known = major_version == kMbimServiceMajor &&
                          minor_version == kMbimServiceMinor &&
                          library_version == kMbimServiceLibrary;
    return is_known ? &kService : nullptr;
}
