// Makes a failing conversation short: fewer steps first, then fewer bytes in each.
#pragma once

#include <functional>

#include "conversation.h"

namespace model {

// `fails` is asked at most `tries` times; what is returned failed when it was asked last.
Conversation shrink(const Conversation& conversation,
                    const std::function<bool(const Conversation&)>& fails, int tries);

}  // namespace model
