// What the keeper does for the bench inside the module's namespaces.
#pragma once

#include "messages.h"

namespace bench {

struct Answer {
    std::vector<std::string> fields;
    std::vector<UniqueFd> descriptors;
};

// pty PATH · listen PATH TYPE · remove PATH · file PATH TEXT · socket DOMAIN TYPE PROTOCOL ·
// spawn ENVIRONMENT PROGRAM ARGUMENT... (descriptors: output, input) · signal PID NUMBER ·
// uevent TEXT
Answer carry_out(const Message& request);

}  // namespace bench
