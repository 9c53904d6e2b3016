// A difference between the daemon and the model, and the short conversation that shows it.
#pragma once

#include <functional>
#include <string>

#include "stage.h"

namespace model {

struct Finding {
    Conversation conversation;
    PlayResult result;
    bool comes_again = false;  // whenever it is played; else this is the conversation as it was
};

// Plays again what the system tore.
PlayResult play_untorn(const Conversation& conversation, const PlayOptions& options);

// Shortens a conversation that differed. `goes_on` is asked before every attempt.
Finding pursue(const Conversation& conversation, const PlayResult& first,
               const PlayOptions& options, const std::function<bool()>& goes_on = {});

// Without the steps that cannot be played, and with what it showed as its reason.
std::string kept_text(const Finding& finding, const std::string& origin);
// The path of the new file; empty: it could not be written.
std::string keep(const Finding& finding, const std::string& folder, const std::string& origin);

}  // namespace model
