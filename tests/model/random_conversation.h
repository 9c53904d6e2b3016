// A conversation made of random steps, of the kinds that hosts, modems and platforms really do and
// of the kinds that nobody should. The same seed makes the same conversation.
#pragma once

#include <cstdint>

#include "conversation.h"

namespace model {

Conversation random_conversation(std::uint64_t seed, std::size_t steps);

}  // namespace model
