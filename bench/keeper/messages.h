// What the bench and the keeper of a module's namespaces say to each other: one message a packet
// on a sequenced-packet socket, text fields separated by NUL, descriptors beside it. A request gets
// one answer that begins with "ok" or "error"; "exit PID STATUS" comes by itself.
#pragma once

#include <string>
#include <vector>

#include "unique_fd.h"

namespace bench {

inline constexpr std::size_t kMaxMessage = 60000;
inline constexpr std::size_t kMaxPassed = 8;

struct Message {
    std::vector<std::string> fields;
    std::vector<UniqueFd> descriptors;
};

// False when the peer is gone; errno tells why.
bool send_message(int socket, const std::vector<std::string>& fields,
                  const std::vector<int>& descriptors);
// Blocks; an empty message (no field) means that the peer is gone.
Message receive_message(int socket);

}  // namespace bench
