// Stand-in for the QMI services library: records to TLVs and back, by the service's own table.
#include <cstring>
#include <span>

#include "qmi_idl.h"

namespace {

constexpr std::size_t kTlvHeadSize = 3;
constexpr std::size_t kResultCodeSize = 4;

const qmi_idl_message* find_message(qmi_idl_service_object_type service,
                                    qmi_idl_type_of_message_type type, unsigned id) {
    if (service == nullptr)
        return nullptr;
    for (const qmi_idl_message& message : std::span(service->messages, service->message_count))
        if (message.type == type && message.id == id)
            return &message;
    return nullptr;
}

std::size_t wire_size(const qmi_idl_field& field) {
    return field.value == qmi_idl_value::result_code ? kResultCodeSize : field.size;
}

uint32_t get_number(const uint8_t* from, std::size_t size) {
    uint32_t number = 0;
    for (std::size_t i = 0; i < size; ++i) number |= static_cast<uint32_t>(from[i]) << (8 * i);
    return number;
}

void put_number(uint8_t* to, std::size_t size, uint32_t number) {
    for (std::size_t i = 0; i < size; ++i) to[i] = static_cast<uint8_t>(number >> (8 * i));
}

void encode_value(const qmi_idl_field& field, const uint8_t* record, uint8_t* out) {
    const uint8_t* from = record + field.offset;
    if (field.value == qmi_idl_value::text) {
        memcpy(out, from, field.size);
        return;
    }
    uint32_t number = 0;
    memcpy(&number, from, sizeof(number));
    if (field.value == qmi_idl_value::number) {
        put_number(out, 4, number);
        return;
    }
    put_number(out, 2, number);
    memcpy(&number, from + sizeof(number), sizeof(number));
    put_number(out + 2, 2, number);
}

void decode_value(const qmi_idl_field& field, const uint8_t* value, uint8_t* record) {
    uint8_t* to = record + field.offset;
    if (field.value == qmi_idl_value::text) {
        memcpy(to, value, field.size);
        return;
    }
    if (field.value == qmi_idl_value::number) {
        const uint32_t number = get_number(value, 4);
        memcpy(to, &number, sizeof(number));
        return;
    }
    const uint32_t code[] = {get_number(value, 2), get_number(value + 2, 2)};
    memcpy(to, code, sizeof(code));
}

const qmi_idl_field* find_field(const qmi_idl_message& message, uint8_t tlv) {
    for (const qmi_idl_field& field : std::span(message.fields, message.field_count))
        if (field.tlv == tlv)
            return &field;
    return nullptr;
}

// Whether what came tells of a failure: then the other fields need not have come.
bool is_failure(const qmi_idl_message& message, uint32_t seen, const uint8_t* record) {
    if (message.field_count == 0 || message.fields[0].value != qmi_idl_value::result_code)
        return false;
    qmi_response_type_v01 code{};
    memcpy(&code, record + message.fields[0].offset, sizeof(code));
    return (seen & 1U) != 0 && code.result != QMI_RESULT_SUCCESS_V01;
}

// Fills `record`; `seen` gets a bit per field in the order of the table.
int decode_fields(const qmi_idl_message& message, std::span<const uint8_t> tlvs, uint8_t* record,
                  uint32_t& seen) {
    while (!tlvs.empty()) {
        if (tlvs.size() < kTlvHeadSize)
            return QMI_IDL_MALFORMED_TLV;
        const std::size_t length = get_number(tlvs.data() + 1, 2);
        if (tlvs.size() - kTlvHeadSize < length)
            return QMI_IDL_MALFORMED_TLV;
        const qmi_idl_field* field = find_field(message, tlvs[0]);
        if (field != nullptr) {
            if (length != wire_size(*field))
                return QMI_IDL_MALFORMED_TLV;
            decode_value(*field, tlvs.data() + kTlvHeadSize, record);
            seen |= 1U << (field - message.fields);
        }
        tlvs = tlvs.subspan(kTlvHeadSize + length);
    }
    return QMI_IDL_NO_ERR;
}

}  // namespace

unsigned qmi_idl_record_size(qmi_idl_service_object_type service, qmi_idl_type_of_message_type type,
                             unsigned id) {
    const qmi_idl_message* message = find_message(service, type, id);
    return message == nullptr ? 0 : message->record_size;
}

int qmi_idl_message_encode(qmi_idl_service_object_type service, qmi_idl_type_of_message_type type,
                           unsigned id, const void* record, unsigned record_length, uint8_t* out,
                           unsigned out_size, unsigned* out_length) {
    const qmi_idl_message* message = find_message(service, type, id);
    if (message == nullptr)
        return QMI_IDL_UNKNOWN_MESSAGE;
    if (record == nullptr || record_length != message->record_size)
        return QMI_IDL_BAD_LENGTH;
    std::size_t length = 0;
    for (const qmi_idl_field& field : std::span(message->fields, message->field_count)) {
        const std::size_t size = wire_size(field);
        if (out_size - length < kTlvHeadSize + size)
            return QMI_IDL_BAD_LENGTH;
        out[length] = field.tlv;
        put_number(out + length + 1, 2, static_cast<uint32_t>(size));
        encode_value(field, static_cast<const uint8_t*>(record), out + length + kTlvHeadSize);
        length += kTlvHeadSize + size;
    }
    *out_length = static_cast<unsigned>(length);
    return QMI_IDL_NO_ERR;
}

int qmi_idl_message_decode(qmi_idl_service_object_type service, qmi_idl_type_of_message_type type,
                           unsigned id, const uint8_t* tlvs, unsigned tlvs_length, void* record,
                           unsigned record_length) {
    const qmi_idl_message* message = find_message(service, type, id);
    if (message == nullptr)
        return QMI_IDL_UNKNOWN_MESSAGE;
    if (record == nullptr || record_length != message->record_size)
        return QMI_IDL_BAD_LENGTH;
    memset(record, 0, record_length);
    auto* const bytes = static_cast<uint8_t*>(record);
    uint32_t seen = 0;
    const int result = decode_fields(*message, {tlvs, tlvs_length}, bytes, seen);
    if (result != QMI_IDL_NO_ERR)
        return result;
    const uint32_t all = (1U << message->field_count) - 1;
    if (seen == all || is_failure(*message, seen, bytes))
        return QMI_IDL_NO_ERR;
    return QMI_IDL_MISSING_TLV;
}
