// The QMI service: messages to records and back, the text collected from the UDP server, requests
// from one end to the other. Input: pieces of a letter and what belongs to it:
//
//   t TYPE ID TEXT  TLVs of a request, a response, an indication
//   v TYPE TEXT     a record's bytes, to TLVs and back
//   u TYPE ROOM TEXTS  datagrams, divided by 0xFD; an empty one is a wait that brings nothing
//   q LENGTH TEXT TEXTS  a request of this text, whose data_len says so much; the answer's
//   datagrams f SOCKETS FAULT TEXT  the same with so many failing sockets, and writes that fail
#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "mbim_udp_relay.h"
#include "plain_rules.h"
#include "qmi_csi.h"
#include "vexa_mbim_at_service.h"
#include "vexa_mbim_service_v01.h"
#include "world.h"

namespace {

constexpr char kNextDatagram = '\xfd';
constexpr std::size_t kMostBytes = 20'000;

// What the service answers; its library is not part of this.
struct Answered {
    int count = 0;
    vexa_mbim_at_resp_msg_v01 response{};
} g_answered;

qmi_idl_service_object_type service() {
    return vexa_mbim_get_service_object_internal_v01(1, 1, 6);
}

// The three messages' fields, id and bytes on the wire.
struct PlainField {
    uint8_t id;
    std::size_t size;
};
std::vector<PlainField> fields_of(int type) {
    if (type == QMI_IDL_REQUEST)
        return {{1, 4}, {2, 1024}};
    if (type == QMI_IDL_RESPONSE)
        return {{2, 4}, {3, 4}, {4, 1024}};
    return {{1, 1024}};
}

// What the TLVs of one message must lead to.
int decode_plainly(int type, std::string_view tlvs) {
    const std::vector<PlainField> fields = fields_of(type);
    std::vector<bool> seen(fields.size());
    bool has_failed = false;
    while (!tlvs.empty()) {
        if (tlvs.size() < 3)
            return QMI_IDL_MALFORMED_TLV;
        const std::size_t size =
            static_cast<uint8_t>(tlvs[1]) + static_cast<uint8_t>(tlvs[2]) * 256U;
        if (tlvs.size() < size + 3)
            return QMI_IDL_MALFORMED_TLV;
        for (std::size_t i = 0; i < fields.size(); ++i) {
            if (fields[i].id != static_cast<uint8_t>(tlvs[0]))
                continue;
            if (size != fields[i].size)
                return QMI_IDL_MALFORMED_TLV;
            seen[i] = true;
            if (type == QMI_IDL_RESPONSE && i == 0)
                has_failed = tlvs[3] != 0 || tlvs[4] != 0;
        }
        tlvs.remove_prefix(size + 3);
    }
    const bool is_whole = std::find(seen.begin(), seen.end(), false) == seen.end();
    return is_whole || has_failed ? QMI_IDL_NO_ERR : QMI_IDL_MISSING_TLV;
}

void decode(int type, unsigned id, const std::string& tlvs) {
    const auto kind = static_cast<qmi_idl_type_of_message_type>(type);
    const unsigned size = qmi_idl_record_size(service(), kind, id);
    HOLDS((size != 0) == (id == 1 && type <= QMI_IDL_INDICATION));
    const std::unique_ptr<uint8_t[]> record(new uint8_t[size + 1]);
    record[size] = 0x5A;
    // Its own area, so that a step behind the message is seen.
    const std::unique_ptr<uint8_t[]> bytes(new uint8_t[tlvs.size()]);
    std::copy(tlvs.begin(), tlvs.end(), bytes.get());
    const int result = qmi_idl_message_decode(
        service(), kind, id, bytes.get(), static_cast<unsigned>(tlvs.size()), record.get(), size);
    HOLDS(record[size] == 0x5A);
    HOLDS(result == (size == 0 ? QMI_IDL_UNKNOWN_MESSAGE : decode_plainly(type, tlvs)));
    HOLDS(size == 0 || qmi_idl_message_decode(service(), kind, id, bytes.get(), 0, record.get(),
                                              size - 1) == QMI_IDL_BAD_LENGTH);
}

// A record survives the road to TLVs and back; on the wire a result code has 16 bits each.
void encode(int type, const std::string& text) {
    const auto kind = static_cast<qmi_idl_type_of_message_type>(type);
    const unsigned size = qmi_idl_record_size(service(), kind, 1);
    std::vector<uint8_t> record(size);
    std::copy_n(text.begin(), std::min<std::size_t>(size, text.size()), record.begin());
    if (type == QMI_IDL_RESPONSE)
        record[2] = record[3] = record[6] = record[7] = 0;
    std::vector<uint8_t> wire(size + 16);
    unsigned length = 0;
    HOLDS(qmi_idl_message_encode(service(), kind, 1, record.data(), size, wire.data(),
                                 static_cast<unsigned>(wire.size()), &length) == QMI_IDL_NO_ERR);
    std::vector<uint8_t> back(size);
    HOLDS(qmi_idl_message_decode(service(), kind, 1, wire.data(), length, back.data(), size) ==
          QMI_IDL_NO_ERR);
    HOLDS(back == record);
    // Cut short anywhere it is refused, and an area that is too small as well.
    const unsigned cut = static_cast<unsigned>(text.size()) % length;
    const int result =
        qmi_idl_message_decode(service(), kind, 1, wire.data(), cut, back.data(), size);
    HOLDS(result == decode_plainly(type, {reinterpret_cast<const char*>(wire.data()), cut}));
    HOLDS(qmi_idl_message_encode(service(), kind, 1, record.data(), size, wire.data(), cut,
                                 &length) == QMI_IDL_BAD_LENGTH);
    HOLDS(qmi_idl_message_encode(service(), kind, 1, record.data(), size - 1, wire.data(), 4096,
                                 &length) == QMI_IDL_BAD_LENGTH);
    HOLDS(qmi_idl_message_encode(service(), kind, 2, record.data(), size, wire.data(), 4096,
                                 &length) == QMI_IDL_UNKNOWN_MESSAGE);
    HOLDS(vexa_mbim_get_service_object_internal_v01(1, 1, 5) == nullptr);
    HOLDS(qmi_idl_record_size(nullptr, kind, 1) == 0);
}

std::vector<std::string> datagrams_of(const std::string& text) {
    std::vector<std::string> all(1);
    for (const char byte : text) {
        if (byte == kNextDatagram)
            all.emplace_back();
        else
            all.back().push_back(byte);
    }
    return all;
}

// An empty one stands for two seconds without a word.
void queue_datagrams(int fd, const std::vector<std::string>& datagrams) {
    world::Descriptor& socket = world::at(fd);
    socket.starves_with_error = true;
    socket.incoming.clear();
    for (const std::string& datagram : datagrams)
        socket.incoming.push_back({datagram, {}, datagram.empty()});
}

struct Collected {
    int result = -1;
    std::string text;
};

Collected collect_plainly(const std::vector<std::string>& datagrams, int type, std::size_t room) {
    Collected wanted;
    std::size_t total = 0;
    int silences = 0;
    for (const std::string& datagram : datagrams) {
        if (datagram.empty()) {
            if (++silences == 7)
                return wanted;
            continue;
        }
        const std::string taken = datagram.substr(0, 1024);
        total += taken.size();
        if (total > 1024) {
            wanted.result = 0;
            return wanted;
        }
        const std::string text = plain::until_nul(taken);
        wanted.text = (wanted.text + text).substr(0, room - 1);
        bool is_final = type == VEXA_MBIM_AT_IND;
        for (const char* end :
             {"ok\r\n", "OK\r\n", "error\r\n", "ERROR\r\n", "no carrier", "NO CARRIER", ">"})
            is_final = is_final || text.find(end) != std::string::npos;
        if (is_final) {
            wanted.result = 0;
            return wanted;
        }
    }
    return wanted;
}

void collect(int type, std::size_t room, const std::string& text) {
    const std::vector<std::string> datagrams = datagrams_of(text);
    HOLDS(socket_fd >= 0 || udp_socket_init() == 0);
    queue_datagrams(socket_fd, datagrams);
    const std::unique_ptr<char[]> area(new char[room]());
    const Collected wanted = collect_plainly(datagrams, type, room);
    HOLDS(recv_at_with_udp_socket(area.get(), room, type) == wanted.result);
    HOLDS(std::string(area.get()) == wanted.text);
    world::at(socket_fd).incoming.clear();
}

// The whole road of a request. A socket that cannot be made, or not be sent on, is a failure that
// the client is told.
void request(uint32_t data_len, const std::string& text, const std::string& answer, bool is_sound) {
    const std::unique_ptr<vexa_mbim_at_req_msg_v01> record(new vexa_mbim_at_req_msg_v01{});
    record->data_len = data_len;
    text.copy(record->data, sizeof record->data);
    const std::vector<std::string> datagrams = datagrams_of(answer);
    if (socket_fd >= 0)
        queue_datagrams(socket_fd, datagrams);
    client_info_type client{&client};
    service_context_type context{};
    g_answered = {};
    HOLDS(vexa_mbim_handle_req_cb(&client, nullptr, 1, record.get(), sizeof *record, &context) ==
          QMI_CSI_CB_NO_ERR);
    HOLDS(context.num_requests == 1 && g_answered.count == 1);
    const vexa_mbim_at_resp_msg_v01& response = g_answered.response;
    HOLDS(response.data_len == strnlen(response.data, sizeof response.data));
    HOLDS(response.data_len < sizeof response.data);
    HOLDS(get_client_info()->clnt == &client);
    const bool has_failed = response.resp.result == QMI_RESULT_FAILURE_V01;
    if (!is_sound) {
        HOLDS(has_failed || socket_fd >= 0);
        return;
    }
    if (data_len > sizeof record->data) {
        HOLDS(has_failed && world::at(socket_fd).written.empty());
        return;
    }
    const Collected wanted = collect_plainly(datagrams, VEXA_MBIM_AT_RSP, sizeof response.data);
    HOLDS(has_failed == (wanted.result != 0));
    HOLDS(response.data == wanted.text);
    HOLDS(world::at(socket_fd).all_written() == std::string(record->data, data_len));
}

void refuse_bad_requests() {
    client_info_type client{&client};
    service_context_type context{};
    vexa_mbim_at_req_msg_v01 record{};
    for (const unsigned id : {0U, 2U, 77U})
        HOLDS(vexa_mbim_handle_req_cb(&client, nullptr, id, &record, sizeof record, &context) ==
              QMI_CSI_CB_INTERNAL_ERR);
    HOLDS(vexa_mbim_handle_req_cb(&client, nullptr, 1, nullptr, 0, &context) ==
          QMI_CSI_CB_INTERNAL_ERR);
    HOLDS(vexa_mbim_handle_req_cb(&client, nullptr, 1, &record, 3, &context) ==
          QMI_CSI_CB_INTERNAL_ERR);
}

void step(FuzzInput& input) {
    switch (input.byte()) {
        case 't': {
            const int type = input.byte() % 4;
            const unsigned id = input.byte() % 3;
            return decode(type, id, input.text());
        }
        case 'v': {
            const int type = input.byte() % 3;
            return encode(type, input.text());
        }
        case 'u': {
            const int type = input.byte() % 3;
            const std::size_t room = input.byte() * std::size_t{5} + 1;
            return collect(type, room, input.text());
        }
        case 'q': {
            const uint32_t length = input.byte() * 5U;
            const std::string text = input.text();
            HOLDS(socket_fd >= 0 || udp_socket_init() == 0);
            world::at(socket_fd) = {};
            return request(length, text, input.text(), true);
        }
        case 'f': {
            if (socket_fd >= 0)
                close(socket_fd);
            socket_fd = -1;
            const unsigned calls = input.byte();
            world::fail_next(world::Call::socket, calls & 1U);
            world::fail_next(world::Call::setsockopt, calls >> 1 & 1U);
            if ((calls & 3U) == 0 && udp_socket_init() == 0)
                world::at(socket_fd).fault =
                    static_cast<world::Fault>(input.byte() % world::kFaults);
            request(4, "AT\r", input.text(), false);
            world::fail_next(world::Call::socket, 0);
            world::fail_next(world::Call::setsockopt, 0);
            if (socket_fd >= 0)
                close(socket_fd);
            socket_fd = -1;
            return refuse_bad_requests();
        }
        default:
            return;
    }
}

}  // namespace

extern "C" {
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
qmi_csi_error __wrap_qmi_csi_send_resp(qmi_req_handle /*request*/, unsigned /*id*/, void* response,
                                       unsigned length) {
    HOLDS(length == sizeof g_answered.response);
    memcpy(&g_answered.response, response, length);
    ++g_answered.count;
    return QMI_CSI_NO_ERR;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const world::Run run;
    socket_fd = -1;
    FuzzInput input(data, std::min(size, kMostBytes));
    for (int i = 0; i < 40 && !input.empty(); ++i) step(input);
    socket_fd = -1;
    return 0;
}
}
