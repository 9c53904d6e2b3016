#include "shrink.h"

#include <algorithm>

namespace model {
namespace {

// Delta debugging: leaves out ever smaller parts for as long as it still fails.
template <typename Sequence, typename Fails>
Sequence reduce(Sequence all, Fails fails) {
    for (std::size_t part = (all.size() + 1) / 2; part > 0 && !all.empty();) {
        bool left_out = false;
        for (std::size_t from = 0; from < all.size();) {
            const auto begin = all.begin() + static_cast<std::ptrdiff_t>(from);
            Sequence less(all.begin(), begin);
            less.insert(less.end(),
                        begin + static_cast<std::ptrdiff_t>(std::min(part, all.size() - from)),
                        all.end());
            if (fails(less)) {
                all = less;
                left_out = true;
            } else {
                from += part;
            }
        }
        if (part == 1 && !left_out) {
            break;
        }
        part = part == 1 ? 1 : (part + 1) / 2;
    }
    return all;
}

class Shrinker {
  public:
    Shrinker(Conversation conversation, const std::function<bool(const Conversation&)>& fails,
             int tries)
        : best_(std::move(conversation)), fails_(fails), tries_(tries) {}

    Conversation shrink() {
        shrink_steps();
        for (std::size_t at = 0; at < best_.steps.size(); ++at) {
            play_alone(at);
            shrink_bytes(at);
        }
        shrink_steps();
        if (!(best_.world == World{})) {
            Conversation usual = best_;
            usual.world = {};
            keep_if_it_fails(usual);
        }
        return best_;
    }

  private:
    bool keep_if_it_fails(const Conversation& less) {
        if (tries_ <= 0) {
            return false;
        }
        --tries_;
        if (!fails_(less)) {
            return false;
        }
        best_ = less;
        return true;
    }

    void shrink_steps() {
        reduce(best_.steps, [this](const std::vector<Step>& steps) {
            Conversation less = best_;
            less.steps = steps;
            return keep_if_it_fails(less);
        });
    }

    void play_alone(std::size_t at) {
        if (best_.steps[at].together) {
            Conversation less = best_;
            less.steps[at].together = false;
            keep_if_it_fails(less);
        }
    }

    void shrink_bytes(std::size_t at) {
        const auto with = [this, at](auto change) {
            return [this, at, change](const auto& bytes) {
                Conversation less = best_;
                change(less.steps[at], bytes);
                return keep_if_it_fails(less);
            };
        };
        reduce(best_.steps[at].bytes,
               with([](Step& step, const std::string& bytes) { step.bytes = bytes; }));
        if (best_.steps[at].packs.size() > 1) {
            reduce(best_.steps[at].packs,
                   with([](Step& step, const std::vector<Pack>& packs) { step.packs = packs; }));
        }
        for (std::size_t pack = 0; pack < best_.steps[at].packs.size(); ++pack) {
            reduce(best_.steps[at].packs[pack].payload,
                   with([pack](Step& step, const std::string& bytes) {
                       step.packs[pack].payload = bytes;
                   }));
        }
    }

    Conversation best_;
    const std::function<bool(const Conversation&)>& fails_;
    int tries_;
};

}  // namespace

Conversation shrink(const Conversation& conversation,
                    const std::function<bool(const Conversation&)>& fails, int tries) {
    return Shrinker(conversation, fails, tries).shrink();
}

}  // namespace model
