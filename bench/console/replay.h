// Plays the host's side of a recording against the daemon again, and tells the first difference in
// its answers.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "bench_module.h"
#include "recorded_session.h"
#include "road.h"

namespace bench {

// Options with which the session can be run again; `folder` gets its scenarios. What the command
// line names itself stays.
BenchOptions options_for(const RecordedSession& session, const BenchOptions& given,
                         const std::string& folder);

class Replay {
  public:
    Replay(BenchModule& module, const RecordedSession& session);

    // Begins; calls back when the last answer has come or the first difference was found.
    void start(std::function<void()> done);
    // 0 when every answer was the recorded one, else 1.
    int status() const { return difference_.empty() ? 0 : 1; }
    // What was found, for people.
    std::string report() const;

  private:
    void listen();
    void heard(const StreamName& stream, std::string_view bytes);
    void tick();
    bool carry_out_next();
    bool has_answers(const std::map<StreamName, std::size_t>& wanted) const;
    std::map<StreamName, std::size_t> all_answers() const;
    bool is_read(const RecordedStep& step) const;
    bool carry_out(const RecordedStep& step);
    bool send_on_road(const StreamName& stream, const std::string& kind, const std::string& text);
    void give_up_late(std::int64_t now, const std::map<StreamName, std::size_t>& wanted);
    std::string after_what() const;
    void differ(const std::string& what);
    void finish();

    BenchModule& module_;
    const RecordedSession& session_;
    std::function<void()> done_;
    std::map<StreamName, std::size_t> heard_;
    std::map<StreamName, std::unique_ptr<Road>> roads_;  // of UDP and QMI
    std::size_t next_ = 0;                               // step
    std::int64_t begun_ = 0;                             // as RecordWriter::now
    std::int64_t last_progress_ = 0;                     // when something was carried out or heard
    std::string difference_;
    bool is_finished_ = false;
};

}  // namespace bench
