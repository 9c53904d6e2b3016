// What is measured of a contestant. Each figure is one JSON object.
#pragma once

#include <nlohmann/json.hpp>

#include "contestants.h"

namespace compare {

struct Amounts {
    int warm_up;           // commands
    int latency_commands;  // a round
    double rate_seconds;
    double to_modem_seconds;  // of data; no rest paces it, and what it carries varies by a tenth
    double to_host_seconds;
};

// From a command's last byte to its answer's last byte, each command after a rest that is longer
// than any pause: nanoseconds, one by one.
nlohmann::json measure_latency(Rig& rig, Contestant& contestant, const Amounts& amounts);

// Commands back to back on so many ports at once; `command` ends with its CR.
nlohmann::json measure_rate(Rig& rig, Contestant& contestant, const Amounts& amounts, int ports,
                            std::string_view command);

// What a rest of 1 ms lasts on this machine, in nanoseconds, one by one: timers and wake-ups add to
// it, whoever rests.
nlohmann::json measure_rests();

enum class Direction { to_modem, to_host };
// Data after a dial, in chunks of this size as fast as they are taken.
nlohmann::json measure_stream(Rig& rig, Contestant& contestant, const Amounts& amounts,
                              Direction direction, std::size_t chunk);
// Dials on the first port: what follows is data.
void dial(Rig& rig, Contestant& contestant);

}  // namespace compare
