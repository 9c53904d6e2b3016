// Random choices that are the same on every machine for the same seed.
#pragma once

#include <cstdint>
#include <random>
#include <string>

namespace model {

class Dice {
  public:
    explicit Dice(std::uint64_t seed) : engine_(seed) {}

    // Not std::uniform_int_distribution: libraries differ in it.
    std::size_t below(std::size_t end) { return static_cast<std::size_t>(engine_() % end); }
    bool one_in(std::size_t times) { return below(times) == 0; }
    template <typename Sequence>
    typename Sequence::value_type of(const Sequence& all) {
        return all[below(all.size())];
    }
    std::string bytes(std::size_t size) {
        std::string text;
        while (text.size() < size) {
            text += static_cast<char>(below(256));
        }
        return text;
    }
    std::string letters(std::size_t size) {
        static const std::string kAll = "ABCDEFTabcdeft 0123456789+=\",;?\r\n>";
        std::string text;
        while (text.size() < size) {
            text += of(kAll);
        }
        return text;
    }

  private:
    std::mt19937_64 engine_;
};

}  // namespace model
