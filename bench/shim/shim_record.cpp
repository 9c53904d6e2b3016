#include "shim_record.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "device_names.h"
#include "record_writer.h"

namespace bench {
namespace {

struct Speed {
    speed_t code;
    int bits_per_second;
};
constexpr std::array<Speed, 9> kSpeeds{{{B9600, 9600},
                                        {B19200, 19200},
                                        {B38400, 38400},
                                        {B57600, 57600},
                                        {B115200, 115200},
                                        {B230400, 230400},
                                        {B460800, 460800},
                                        {B921600, 921600},
                                        {B3000000, 3000000}}};

// Never destroyed: other threads may still call while the process ends.
RecordWriter& writer() {
    alignas(RecordWriter) static std::array<std::byte, sizeof(RecordWriter)> area;
    static RecordWriter* const made = new (area.data()) RecordWriter;
    return *made;
}

// The recording must not show in what the daemon sees of its calls.
class KeptErrno {
  public:
    KeptErrno() : kept_(errno) {}
    ~KeptErrno() { errno = kept_; }
    KeptErrno(const KeptErrno&) = delete;
    KeptErrno& operator=(const KeptErrno&) = delete;
    int value() const { return kept_; }

  private:
    int kept_;
};

std::string_view error_name(int error) {
    const char* name = strerrorname_np(error);
    return name == nullptr ? "unknown" : name;
}

std::string_view bytes_of(const void* bytes, std::int64_t size) {
    return {static_cast<const char*>(bytes), static_cast<std::size_t>(std::max<int64_t>(size, 0))};
}

bool would_block(int error) {
    return error == EAGAIN || error == EINTR;
}

class PeerName {
  public:
    explicit PeerName(const sockaddr_in& peer) {
        std::array<char, INET_ADDRSTRLEN> address;
        inet_ntop(AF_INET, &peer.sin_addr, address.data(), address.size());
        const int size = snprintf(text_.data(), text_.size(), "%s:%u", address.data(),
                                  unsigned{ntohs(peer.sin_port)});
        size_ = static_cast<std::size_t>(size);
    }
    std::string_view text() const { return {text_.data(), size_}; }

  private:
    std::array<char, INET_ADDRSTRLEN + sizeof ":65535"> text_;
    std::size_t size_ = 0;
};

void record_sent(std::int64_t time, std::string_view place, RecordFields fields,
                 std::string_view asked, std::int64_t result, int error) {
    const std::string_view sent =
        asked.substr(0, result < 0 ? 0 : static_cast<std::size_t>(result));
    if (sent.size() < asked.size()) {
        fields.add({"asked", static_cast<std::int64_t>(asked.size())});
    }
    if (result < 0) {
        fields.add({"err", error_name(error)});
    }
    writer().passed(time, place, "out", sent, fields);
}

}  // namespace

void begin_recording() {
    const char* path = getenv("VEXA_RECORD");
    if (path == nullptr) {
        return;
    }
    if (!writer().append_to(path)) {
        fprintf(stderr, "vexa_shim: %s: %s; nothing is recorded\n", path, strerror(errno));
    }
    unsetenv("VEXA_RECORD");
}

bool is_recording() {
    return writer().is_open();
}

std::int64_t record_time() {
    return is_recording() ? RecordWriter::now() : 0;
}

void record_open(std::size_t device, std::int64_t time, int result) {
    const KeptErrno kept;
    if (result >= 0) {
        writer().event(time, kPlaces[device], "open");
    } else {
        writer().event(time, kPlaces[device], "open", {{"err", error_name(kept.value())}});
    }
}

void record_close(std::size_t device) {
    const KeptErrno kept;
    writer().event(record_time(), kPlaces[device], "close");
}

void record_read(std::size_t device, const void* bytes, std::int64_t result) {
    const KeptErrno kept;
    if (result >= 0) {
        writer().passed(record_time(), kPlaces[device], "in", bytes_of(bytes, result));
    } else if (!would_block(kept.value())) {
        writer().passed(record_time(), kPlaces[device], "in", {},
                        {{"err", error_name(kept.value())}});
    }
}

void record_write(std::size_t device, std::int64_t time, const void* bytes, std::size_t asked,
                  std::int64_t result) {
    const KeptErrno kept;
    record_sent(time, kPlaces[device], {}, bytes_of(bytes, static_cast<std::int64_t>(asked)),
                result, kept.value());
}

void record_lines(std::size_t device, bool is_set, std::uint32_t bits) {
    const KeptErrno kept;
    const LinesOn on(bits);
    writer().event(record_time(), kPlaces[device], is_set ? "lines-set" : "lines-read",
                   {{"lines", on.text()}});
}

void record_intent(std::size_t device, std::uint32_t size, int result) {
    const KeptErrno kept;
    RecordFields fields{{"size", static_cast<std::int64_t>(size)}};
    if (result != 0) {
        fields.add({"err", error_name(kept.value())});
    }
    writer().event(record_time(), kPlaces[device], "intent", fields);
}

void record_settings(std::size_t device, speed_t speed) {
    const KeptErrno kept;
    const auto* row = std::find_if(kSpeeds.begin(), kSpeeds.end(),
                                   [speed](const Speed& one) { return one.code == speed; });
    writer().event(record_time(), kPlaces[device], "settings",
                   {{"speed", std::int64_t{row == kSpeeds.end() ? 0 : row->bits_per_second}}});
}

void record_poll(std::size_t device, short revents) {
    const KeptErrno kept;
    if ((revents & POLLPRI) != 0) {
        writer().event(record_time(), kPlaces[device], "lines-changed");
    }
    if ((revents & POLLHUP) != 0) {
        writer().event(record_time(), kPlaces[device], "hangup");
    }
}

void record_platform_event(int number, std::int64_t time, const char* what, int result) {
    const KeptErrno kept;
    RecordFields fields{{"conn", std::int64_t{number}}};
    if (result < 0) {
        fields.add({"err", error_name(kept.value())});
    }
    writer().event(time, "platform", what, fields);
}

void record_platform_sent(int number, std::int64_t time, const void* bytes, std::size_t asked,
                          std::int64_t result) {
    const KeptErrno kept;
    record_sent(time, "platform", {{"conn", std::int64_t{number}}},
                bytes_of(bytes, static_cast<std::int64_t>(asked)), result, kept.value());
}

void record_platform_received(int number, const void* bytes, std::int64_t result) {
    const KeptErrno kept;
    if (result >= 0) {
        writer().passed(record_time(), "platform", "in", bytes_of(bytes, result),
                        {{"conn", std::int64_t{number}}});
    }
}

void record_datagram_sent(std::int64_t time, const sockaddr_in& peer, const void* bytes,
                          std::size_t asked, std::int64_t result) {
    const KeptErrno kept;
    const PeerName name(peer);
    record_sent(time, "udp", {{"peer", name.text()}},
                bytes_of(bytes, static_cast<std::int64_t>(asked)), result, kept.value());
}

void record_datagram_received(const sockaddr_in& peer, const void* bytes, std::int64_t result) {
    const KeptErrno kept;
    if (result >= 0) {
        const PeerName name(peer);
        writer().passed(record_time(), "udp", "in", bytes_of(bytes, result),
                        {{"peer", name.text()}});
    }
}

void record_uevent(const void* bytes, std::int64_t result) {
    const KeptErrno kept;
    if (result >= 0) {
        writer().passed(record_time(), "uevent", "in", bytes_of(bytes, result));
    }
}

void record_mode(std::size_t device, int mode) {
    const KeptErrno kept;
    const bool is_known = mode >= 0 && mode < static_cast<int>(kModeNames.size());
    writer().event(record_time(), kPlaces[device], "mode",
                   {{"mode", is_known ? kModeNames[static_cast<std::size_t>(mode)] : "unknown"}});
}

}  // namespace bench
