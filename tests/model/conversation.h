// What the daemon's surroundings do in one conversation, step by step, and its text form: a short
// file that a person can read, write and keep.
//
//     # Why this conversation is kept.
//     with pcie                         the channels of the PCIe pipe are connected
//     without platform                  nobody listens where the app platform should
//     host at AT+CGMR\r                 a chunk typed on modem, at, uart or pipe
//     platform at command \r\nOK\r\n    a pack of indication, command, data or online
//     + command more                    one more pack in the same write
//     cp modem \r\nRING\r\n             a message of the modem processor on a port's channel
//     client a AT\r                     a datagram of the UDP client a, b or c
//     & host uart AT                    at the same time as the step before
//
// Bytes are written as in the bench's scenario files: \r \n \t \e \\ \xHH.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace model {

inline constexpr int kModem = 0;
inline constexpr int kAt = 1;
inline constexpr int kUart = 2;
inline constexpr int kPorts = 3;
inline constexpr int kPipe = 3;  // another host device of the AT port
inline constexpr int kHostDevices = 4;
inline constexpr int kClients = 3;

enum class Who { host, cp, platform, client };

struct Pack {
    unsigned kind = 0;
    std::string payload;
    bool operator==(const Pack&) const = default;
};

struct Step {
    Who who = Who::host;
    int place = 0;
    std::string bytes;        // of all but the platform
    std::vector<Pack> packs;  // of the platform: one write
    bool together = false;    // with the step before
    bool operator==(const Step&) const = default;
};

// What is there from the start to the end.
struct World {
    bool pcie = false;
    bool platform = true;
    bool operator==(const World&) const = default;
};

struct Conversation {
    std::string reason;  // of a kept one
    World world;
    std::vector<Step> steps;
};

struct ParsedConversation {
    Conversation conversation;
    std::string error;  // empty, or "line N: what is wrong"
};

// "host modem", as a line of the text form begins.
std::string name_of(Who who, std::size_t place);
std::string to_text(const Step& step);
std::string to_text(const Conversation& conversation);
ParsedConversation parse_conversation(std::string_view text);

}  // namespace model
