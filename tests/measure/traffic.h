// Commands of every kind on the three host ports at once, each answered by the modem or by the app
// platform, one after the other on a port.
#pragma once

#include <array>
#include <string>

#include "fake_platform.h"
#include "module.h"

class MixedTraffic {
  public:
    explicit MixedTraffic(ModuleWithPlatform& both);

    // Until every port has had this many commands answered since the start.
    void run_to(int commands);

  private:
    struct Port {
        int answered = 0;
        bool waits = false;
    };

    void answer_as_modem();
    void type(int index);
    void take_answer(int index);
    bool all_answered(int commands) const;

    Module& module_;
    FakePlatform& platform_;
    std::array<Port, 3> ports_;
};
