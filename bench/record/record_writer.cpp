#include "record_writer.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>

namespace bench {
namespace {

// Above the numbers that the daemon's own descriptors get, which so stay what they are without a
// recording.
constexpr int kLowestDescriptor = 400;

constexpr std::string_view kHexDigits = "0123456789abcdef";

}  // namespace

RecordWriter::~RecordWriter() {
    if (is_open()) {
        close(file_);
    }
}

bool RecordWriter::open_file(const char* path, int flags) {
    const int file = open(path, O_WRONLY | O_APPEND | O_CLOEXEC | flags, 0644);
    if (file < 0) {
        return false;
    }
    const int high = fcntl(file, F_DUPFD_CLOEXEC, kLowestDescriptor);
    file_ = high < 0 ? file : high;
    if (high >= 0) {
        close(file);
    }
    return true;
}

bool RecordWriter::create(const char* path) {
    return open_file(path, O_CREAT | O_TRUNC);
}

bool RecordWriter::append_to(const char* path) {
    return open_file(path, 0);
}

std::int64_t RecordWriter::now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::int64_t{time.tv_sec} * 1'000'000 + time.tv_nsec / 1000;
}

void RecordWriter::event(std::int64_t time, std::string_view place, std::string_view what,
                         const RecordFields& more) {
    if (!is_open()) {
        return;
    }
    const std::lock_guard lock(mutex_);
    begin(time, place);
    field({"what", what});
    for (const RecordField& one : more.all()) {
        field(one);
    }
    end();
}

void RecordWriter::passed(std::int64_t time, std::string_view place, std::string_view direction,
                          std::string_view bytes, const RecordFields& more) {
    if (!is_open()) {
        return;
    }
    const std::lock_guard lock(mutex_);
    do {
        const std::string_view piece = bytes.substr(0, kLongestPiece);
        bytes.remove_prefix(piece.size());
        begin(time, place);
        field({"dir", direction});
        field({"n", static_cast<std::int64_t>(piece.size())});
        for (const RecordField& one : more.all()) {
            field(one);
        }
        field({"data", piece});
        end();
    } while (!bytes.empty());
}

void RecordWriter::line(std::string text) {
    if (!is_open()) {
        return;
    }
    // In one go: the daemon's shim appends to the same file.
    text += '\n';
    const std::lock_guard lock(mutex_);
    put(text);
}

int RecordWriter::error() {
    const std::lock_guard lock(mutex_);
    return error_;
}

void RecordWriter::begin(std::int64_t time, std::string_view place) {
    used_ = 0;
    text("{\"t\":");
    std::array<char, 24> digits;
    const auto end = std::to_chars(digits.begin(), digits.end(), time);
    text({digits.data(), static_cast<std::size_t>(end.ptr - digits.data())});
    field({"at", place});
}

void RecordWriter::field(const RecordField& field) {
    text(",\"");
    text(field.name);
    text("\":");
    if (field.is_number) {
        std::array<char, 24> digits;
        const auto end = std::to_chars(digits.begin(), digits.end(), field.number);
        text({digits.data(), static_cast<std::size_t>(end.ptr - digits.data())});
        return;
    }
    text("\"");
    std::for_each(field.bytes.begin(), field.bytes.end(), [this](char byte) { character(byte); });
    text("\"");
}

void RecordWriter::character(char byte) {
    const auto value = static_cast<unsigned char>(byte);
    switch (byte) {
        case '"':
            return text("\\\"");
        case '\\':
            return text("\\\\");
        case '\r':
            return text("\\r");
        case '\n':
            return text("\\n");
        case '\t':
            return text("\\t");
        default:
            break;
    }
    if (value >= 0x20 && value < 0x7f) {
        return text({&byte, 1});
    }
    const std::array<char, 6> escape{
        '\\', 'u', '0', '0', kHexDigits[value >> 4], kHexDigits[value & 0xf]};
    text({escape.data(), escape.size()});
}

// What does not fit is left out with the rest of its line's text; places and names are short, and
// the area holds the longest piece.
void RecordWriter::text(std::string_view text) {
    constexpr std::size_t kRoomForEnd = 2;
    if (text.size() > area_.size() - kRoomForEnd - used_) {
        return;
    }
    std::copy(text.begin(), text.end(), area_.begin() + static_cast<std::ptrdiff_t>(used_));
    used_ += text.size();
}

void RecordWriter::end() {
    area_[used_++] = '}';
    area_[used_++] = '\n';
    put({area_.data(), used_});
}

void RecordWriter::put(std::string_view bytes) {
    const ssize_t taken = write(file_, bytes.data(), bytes.size());
    if (error_ == 0 && taken != static_cast<ssize_t>(bytes.size())) {
        error_ = taken < 0 ? errno : ENOSPC;
    }
}

}  // namespace bench
