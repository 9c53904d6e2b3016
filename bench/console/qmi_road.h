// AT commands over the QMI AT service, hosted in a process of its own inside the module.
#pragma once

#include <deque>
#include <mutex>
#include <string>

#include "qmi_at_client.h"
#include "road.h"
#include "unique_fd.h"

namespace bench {

class QmiRoad : public Road {
  public:
    explicit QmiRoad(BenchModule& module);
    ~QmiRoad() override;

    bool open(const std::function<void()>& opened) override;
    void send(std::string_view bytes) override;
    std::string title() const override { return "the QMI AT service"; }

  private:
    // Called on the client's thread; the loop's takes it from there.
    void put(std::string bytes, std::string note = {});
    void take();

    struct Heard {
        std::string bytes;
        std::string note;
    };

    BenchModule& module_;
    std::string folder_;
    UniqueFd wake_;
    std::mutex mutex_;  // guards `waiting_`
    std::deque<Heard> waiting_;
    QmiAtClient client_;  // last: its thread ends before what it fills
};

}  // namespace bench
