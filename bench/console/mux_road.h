// The multiplexer on the UART port as a console road.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "answer_reader.h"
#include "bench_module.h"
#include "mux_host.h"
#include "road.h"

namespace bench {

// Commands go to the command channel, dial commands and the data after their CONNECT to the dial
// channel. What comes on the other one meanwhile is shown with its DLCI.
class MuxRoad : public Road {
  public:
    explicit MuxRoad(BenchModule& module) : module_(module) {}

    bool open(const std::function<void()>& opened) override;
    void send(std::string_view bytes) override;
    bool carry_out(const std::string& line, const std::function<void()>& done) override;
    std::string title() const override;

  private:
    void say(int dlci, std::string_view text);
    void carry();
    void take_heard(int dlci);
    void follow_dial(std::string_view text);
    void look_for_expected();

    BenchModule& module_;
    MuxHost host_;
    std::function<void()> opened_;
    int channel_ = kMuxCommandChannel;  // of the console's lines
    AnswerReader dial_reader_;
    std::map<int, std::string> unread_;  // of scripts, by DLCI
    MuxStep expected_;
    std::function<void()> found_;
};

}  // namespace bench
