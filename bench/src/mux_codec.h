// The host's own reading and writing of multiplexer frames (3GPP TS 27.010, basic option). Shares
// nothing with the daemon's, so that each checks the other.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace bench {

enum class MuxControl : uint8_t { sabm = 0x3F, ua = 0x73, dm = 0x1F, disc = 0x53, uih = 0xEF };

struct MuxFrame {
    int dlci = 0;
    bool command = true;  // the C/R bit
    uint8_t control = static_cast<uint8_t>(MuxControl::uih);
    std::string information;
};

// At most 127 bytes of information; with more, the two-byte length form.
std::string encode_mux_frame(const MuxFrame& frame);

// One thing that was on the line.
struct MuxItem {
    bool is_frame = false;
    bool fcs_fits = false;  // of a frame
    MuxFrame frame;
    std::string raw;  // the frame with its flags, or bytes that belong to none
};

// Frames and the bytes between them out of a stream that is cut anywhere.
class MuxDecoder {
  public:
    void feed(std::string_view bytes) { pending_.append(bytes); }
    // The next item; nothing while it is not complete. Bytes outside frames come as soon as they
    // are there, so one text may come in several items.
    std::optional<MuxItem> next();

  private:
    MuxItem take_stray(std::size_t count);

    std::string pending_;
};

}  // namespace bench
