// The bench's side of a recording: what hosts sent, what was done to the module, the daemon's log.
// Without --record every function returns at once. The loop's thread, but for the QMI functions,
// which any thread may call.
#pragma once

#include <string>
#include <string_view>

#include "options.h"
#include "record_writer.h"

namespace bench {

class SessionRecord {
  public:
    SessionRecord() = default;
    ~SessionRecord();
    SessionRecord(const SessionRecord&) = delete;
    SessionRecord& operator=(const SessionRecord&) = delete;

    // A new file with its first line. False: errno tells why.
    bool create(const BenchOptions& options);
    bool is_open() const { return writer_.is_open(); }

    // Time to give to typed and typed_datagram, taken before the bytes go.
    std::int64_t time() const { return is_open() ? RecordWriter::now() : 0; }
    void typed(std::int64_t time, std::string_view port, std::string_view bytes);
    void typed_datagram(std::int64_t time, std::string_view peer, std::string_view bytes);
    void log(std::string_view bytes);
    void qmi_request(std::string_view bytes);
    void qmi_answer(std::string_view bytes, int result, int error);
    void qmi_indication(std::string_view bytes);

    // What was done to the module, in the words of docs/recording.md.
    void done(std::string_view what, const RecordFields& more = {});
    void scenario(const std::string& name, const std::string& text);
    void end(int status);
    // The errno that kept a line out of the file; 0: it is whole.
    int error() { return writer_.error(); }

  private:
    RecordWriter writer_;
    bool has_ended_ = false;
};

}  // namespace bench
