// How the console's bytes reach the daemon: one class per kind of port. A new one is a row in
// roads.cpp.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

class BenchModule;

class Road {
  public:
    virtual ~Road() = default;

    // Called when the daemon serves its ports; calls back once commands can be sent. False: error()
    // tells why not.
    virtual bool open(const std::function<void()>& opened) {
        opened();
        return true;
    }
    virtual void send(std::string_view bytes) = 0;
    // A line of the road's own language (such as "mux send 2 AT\r"); false: it is none. Calls back,
    // after it returned, when the line is done.
    virtual bool carry_out(const std::string& /*line*/, const std::function<void()>& /*done*/) {
        return false;
    }
    // One line for the person at the console: where the commands go.
    virtual std::string title() const = 0;

    void on_output(std::function<void(std::string_view)> heard) { heard_ = std::move(heard); }
    // What comes beside the conversation, a line each.
    void on_aside(std::function<void(const std::string&)> heard) { aside_ = std::move(heard); }
    const std::string& error() const { return error_; }

  protected:
    void aside(const std::string& line) {
        if (aside_) {
            aside_(line);
        }
    }
    void heard(std::string_view bytes) {
        if (heard_) {
            heard_(bytes);
        }
    }
    bool fail(const std::string& what) {
        error_ = what;
        return false;
    }

  private:
    std::function<void(std::string_view)> heard_;
    std::function<void(const std::string&)> aside_;
    std::string error_;
};

// What --port may be.
std::vector<std::string> road_ports();
// Null when no road has this name.
std::unique_ptr<Road> make_road(const std::string& port, BenchModule& module);

}  // namespace bench
