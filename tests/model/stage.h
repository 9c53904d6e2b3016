// Plays a conversation against the daemon that ships, on the simulated module, and holds every byte
// at every boundary against the plain model.
#pragma once

#include <chrono>
#include <string>

#include "conversation.h"
#include "plain_model.h"

namespace model {

struct PlayOptions {
    Broken broken = Broken::none;
    // For what is expected and does not come: while the daemon is at work (a command's own wait of
    // 10 s may lie in between), and once it has read everything and waits for more.
    std::chrono::milliseconds deadline = std::chrono::seconds(60);
    std::chrono::milliseconds rest = std::chrono::seconds(15);
};

struct PlayCounts {
    long conversations = 0;
    long steps = 0;
    long together = 0;  // steps that were played at the same time as another
    long bytes = 0;     // compared at all boundaries
    long torn = 0;      // conversations that the system made another one of
    void add(const PlayCounts& more);
};

struct PlayResult {
    bool differs = false;
    bool late = false;  // nothing wrong came, but not all that was expected, or it never rested
    // The kernel cut what was typed at another place, so another conversation was played.
    bool torn = false;
    std::size_t step = 0;  // the last one played
    std::string place;     // where it differs
    std::string what;      // for a person
    PlayCounts counts;
};

// Steps that the model cannot tell the outcome of are passed over, so every part of a conversation
// can be played. Steps that go together are played one after another where the order matters.
PlayResult play(const Conversation& conversation, const PlayOptions& options = {});

}  // namespace model
