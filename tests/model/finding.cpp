#include "finding.h"

#include <filesystem>
#include <fstream>

#include "shrink.h"

namespace model {
namespace {

using namespace std::chrono_literals;

constexpr int kTornTries = 5;
constexpr int kShrinkTries = 400;
// Long enough for an idle machine, and short enough for hundreds of attempts; the outcome is played
// once more with all the time it may need.
constexpr auto kShrinkDeadline = 2s;
constexpr auto kShrinkRest = 300ms;

// Up to the step that differed.
Conversation without_rest(Conversation conversation, std::size_t step) {
    auto& steps = conversation.steps;
    std::size_t end = std::min(step + 1, steps.size());
    while (end < steps.size() && steps[end].together) {
        ++end;
    }
    steps.resize(end);
    return conversation;
}

}  // namespace

PlayResult play_untorn(const Conversation& conversation, const PlayOptions& options) {
    PlayCounts counts;
    PlayResult result;
    for (int tries = 0; tries < kTornTries; ++tries) {
        result = play(conversation, options);
        counts.add(result.counts);
        if (!result.torn) {
            break;
        }
    }
    result.counts = counts;
    return result;
}

Finding pursue(const Conversation& conversation, const PlayResult& first,
               const PlayOptions& options, const std::function<bool()>& goes_on) {
    PlayOptions quick = options;
    quick.deadline = kShrinkDeadline;
    quick.rest = kShrinkRest;
    const auto fails = [&](const Conversation& less) {
        if (goes_on && !goes_on()) {
            return false;
        }
        const PlayResult result = play_untorn(less, quick);
        // On a busy machine what is due may be late; that does not pass for wrong bytes.
        return result.differs && result.place == first.place && (first.late || !result.late);
    };
    Conversation shorter = without_rest(conversation, first.step);
    if (!fails(shorter)) {
        shorter = conversation;
    }
    shorter = shrink(shorter, fails, kShrinkTries);
    for (const Conversation& candidate : {shorter, conversation}) {
        const PlayResult result = play_untorn(candidate, options);
        if (result.differs) {
            return {candidate, result, true};
        }
    }
    return {conversation, first, false};
}

std::string kept_text(const Finding& finding, const std::string& origin) {
    Conversation kept = finding.conversation;
    kept.reason = "Found by " + origin + (finding.comes_again ? "" : ", once only") +
                  ". Differs at " + finding.result.what + "\n";
    return to_text(kept);
}

std::string keep(const Finding& finding, const std::string& folder, const std::string& origin) {
    std::error_code ignored;
    std::filesystem::create_directories(folder, ignored);
    std::string name = origin;
    for (char& letter : name) {
        letter = letter == ' ' ? '-' : letter;
    }
    const std::string path = folder + "/" + name + ".txt";
    std::ofstream file(path);
    file << kept_text(finding, origin);
    file.close();
    return file ? path : "";
}

}  // namespace model
