#include "mux_record.h"

#include <time.h>

#include <optional>

namespace bench {

namespace {

// The classic capture format in the machine's byte order; readers tell it by the magic.
struct FileHead {
    uint32_t magic = 0xA1B2C3D4;  // microseconds
    uint16_t major = 2;
    uint16_t minor = 4;
    int32_t zone = 0;
    uint32_t accuracy = 0;
    uint32_t longest = 65535;
    uint32_t link_type = 236;
};

struct PacketHead {
    uint32_t seconds;
    uint32_t microseconds;
    uint32_t captured;
    uint32_t length;
};

static_assert(sizeof(FileHead) == 24);
static_assert(sizeof(PacketHead) == 16);

}  // namespace

bool MuxRecord::create(const std::string& path) {
    file_.reset(std::fopen(path.c_str(), "wbe"));
    if (!file_)
        return false;
    const FileHead head;
    return std::fwrite(&head, sizeof head, 1, file_.get()) == 1 && std::fflush(file_.get()) == 0;
}

void MuxRecord::passed(Direction direction, std::string_view bytes) {
    if (!file_)
        return;
    MuxDecoder& decoder = decoders_[static_cast<std::size_t>(direction)];
    decoder.feed(bytes);
    while (const std::optional<MuxItem> item = decoder.next()) {
        if (item->is_frame)
            write_packet(direction, item->raw);
        else
            bytes_outside_frames_ += item->raw.size();
    }
    std::fflush(file_.get());
}

void MuxRecord::write_packet(Direction direction, std::string_view frame) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const auto length = static_cast<uint32_t>(frame.size() + 2);
    const PacketHead head = {static_cast<uint32_t>(now.tv_sec),
                             static_cast<uint32_t>(now.tv_nsec / 1000), length, length};
    const uint8_t pseudo[2] = {0, static_cast<uint8_t>(direction)};
    std::fwrite(&head, sizeof head, 1, file_.get());
    std::fwrite(pseudo, sizeof pseudo, 1, file_.get());
    std::fwrite(frame.data(), frame.size(), 1, file_.get());
    ++frames_;
}

}  // namespace bench
