// What a test can see and do about one device of the module, beside its bytes.
#pragma once

#include <cstdint>

#include "device_state.h"

namespace bench {
class ModuleSpace;
}

class DeviceControl {
  public:
    DeviceControl(bench::ModuleSpace& space, std::size_t index) : space_(space), index_(index) {}

    // The modem-control word, TIOCM_ bits.
    int modem_bits() const { return static_cast<int>(words().modem_bits.load()); }
    void set_modem_bits(int bits) { words().modem_bits = static_cast<std::uint32_t>(bits); }
    int modem_gets() const { return count(words().modem_gets); }
    int modem_sets() const { return count(words().modem_sets); }

    // Poll events reported once, at once (POLLPRI for one), beside what is really there.
    void raise(int events);

    int intents() const { return count(words().intents); }
    int intent_size() const { return count(words().intent_size); }
    void refuse_intents(int times = 1) { words().intent_refusals = amount(times); }

    int write_calls() const { return count(words().write_calls); }
    // At most this many bytes a write; 0 ends it.
    void limit_writes(int bytes) { words().write_limit = amount(bytes); }
    // The next so many calls fail with this errno; -1: every call from now on; 0 ends it.
    void fail_writes(int error, int times);
    void fail_reads(int error, int times);
    void fail_opens(int error, int times);
    void fail_fcntl(int error, int times);
    void fail_tcsetattr(int error, int times);

    int opens() const { return count(words().opens); }
    int closes() const { return count(words().closes); }
    int polls() const { return count(words().polls); }
    // Whether it was opened at least so often and its reader waits for events of the last open.
    bool is_served(int at_least_opens = 1, int at_least_polls = 1) const {
        return opens() >= at_least_opens && count(words().polls_since_open) >= at_least_polls;
    }
    int settings() const { return count(words().settings); }
    unsigned speed() const { return words().last_settings_speed; }

  private:
    static int count(const bench::Word& word) { return static_cast<int>(word.load()); }
    static std::uint32_t amount(int value) { return static_cast<std::uint32_t>(value); }
    bench::DeviceState& words() const;

    bench::ModuleSpace& space_;
    std::size_t index_;
};
