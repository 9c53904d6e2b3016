// Writes the lines of a recording (docs/recording.md), each with one write to the end of the file,
// which two processes share. Any thread. Allocates nothing but where it is said, so that the shim
// can use it from any call of the daemon's.
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <span>
#include <string>
#include <string_view>

namespace bench {

// One field of a line: a number, or bytes shown as one character each.
struct RecordField {
    constexpr RecordField() = default;
    constexpr RecordField(const char* field, std::int64_t value)
        : name(field), number(value), is_number(true) {}
    constexpr RecordField(const char* field, std::string_view value) : name(field), bytes(value) {}

    const char* name = "";
    std::string_view bytes;
    std::int64_t number = 0;
    bool is_number = false;
};

// The fields of one line, in a row; one too many is left out.
class RecordFields {
  public:
    RecordFields() = default;
    RecordFields(std::initializer_list<RecordField> fields) {
        for (const RecordField& field : fields) {
            add(field);
        }
    }
    void add(const RecordField& field) {
        if (count_ < fields_.size()) {
            fields_[count_++] = field;
        }
    }
    std::span<const RecordField> all() const { return {fields_.data(), count_}; }

  private:
    std::array<RecordField, 6> fields_;
    std::size_t count_ = 0;
};

class RecordWriter {
  public:
    RecordWriter() = default;
    ~RecordWriter();
    RecordWriter(const RecordWriter&) = delete;
    RecordWriter& operator=(const RecordWriter&) = delete;

    // A new file, or the end of one that stands. False: errno tells why.
    bool create(const char* path);
    bool append_to(const char* path);
    bool is_open() const { return file_ >= 0; }

    // Microseconds of CLOCK_MONOTONIC. Taken before a write and after a read, so that lines sorted
    // by time tell causes before effects.
    static std::int64_t now();

    // An event without bytes.
    void event(std::int64_t time, std::string_view place, std::string_view what,
               const RecordFields& more = {});
    // Bytes that passed; more than kLongestPiece become several lines.
    void passed(std::int64_t time, std::string_view place, std::string_view direction,
                std::string_view bytes, const RecordFields& more = {});
    // A line made elsewhere, without its end and of any length. Not for the shim: it allocates.
    void line(std::string text);

    // The errno of the first line that did not go to the file whole; 0: every one did.
    int error();

    static constexpr std::size_t kLongestPiece = 32768;

  private:
    bool open_file(const char* path, int flags);
    void begin(std::int64_t time, std::string_view place);
    void field(const RecordField& field);
    void character(char byte);
    void text(std::string_view text);
    void end();
    void put(std::string_view bytes);

    // The longest escape of a byte is \u00xx.
    static constexpr std::size_t kAreaSize = kLongestPiece * 6 + 4096;

    int file_ = -1;
    int error_ = 0;
    std::mutex mutex_;  // guards the area and the error: one line at a time
    std::array<char, kAreaSize> area_;
    std::size_t used_ = 0;
};

}  // namespace bench
