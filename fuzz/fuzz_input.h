// A fuzzer's input, read from the front. Made to be written by hand in a seed file and to survive
// insertions: texts end at a mark instead of having a length in front.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

class FuzzInput {
  public:
    FuzzInput(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    [[nodiscard]] bool empty() const { return at_ == size_; }
    // 0 when there is nothing left.
    uint8_t byte() { return empty() ? uint8_t{0} : data_[at_++]; }
    // Up to 0xFF or the end; 0xFE takes the next byte as it is.
    std::string text() {
        constexpr uint8_t kEnd = 0xFF;
        constexpr uint8_t kNextAsItIs = 0xFE;
        std::string all;
        while (!empty()) {
            const uint8_t next = byte();
            if (next == kEnd)
                break;
            all.push_back(static_cast<char>(next == kNextAsItIs ? byte() : next));
        }
        return all;
    }
    std::string rest() {
        std::string all(reinterpret_cast<const char*>(data_) + at_, size_ - at_);
        at_ = size_;
        return all;
    }

  private:
    const uint8_t* data_;
    std::size_t size_;
    std::size_t at_ = 0;
};

// The entry of each fuzzer.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);
