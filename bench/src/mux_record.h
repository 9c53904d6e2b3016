// The UART's multiplexer frames as a capture file of link type 236 (LINKTYPE_MUX27010).
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "mux_codec.h"

namespace bench {

// One packet is two bytes, 00 and the direction, and the frame with its flags. Bytes outside
// frames (the commands before the session, refusals) have no place in such a file: they are
// counted instead.
class MuxRecord {
  public:
    enum class Direction : uint8_t { from_host = 0, to_host = 1 };

    // False when the file cannot be written; errno says why.
    bool create(const std::string& path);
    // Bytes as they passed, cut anywhere. Each packet is on disk when the call returns.
    void passed(Direction direction, std::string_view bytes);

    [[nodiscard]] std::size_t frames() const { return frames_; }
    [[nodiscard]] std::size_t bytes_outside_frames() const { return bytes_outside_frames_; }

  private:
    struct Closer {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    void write_packet(Direction direction, std::string_view frame);

    std::unique_ptr<std::FILE, Closer> file_;
    MuxDecoder decoders_[2];
    std::size_t frames_ = 0;
    std::size_t bytes_outside_frames_ = 0;
};

}  // namespace bench
