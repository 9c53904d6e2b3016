// Pauses at random around the daemon's calls, so that orders come up which a quick machine seldom
// shows: VEXA_PAUSES=MICROSECONDS in the environment is the longest one. Without it nothing pauses.
#pragma once

namespace bench {

void begin_pauses();

// Pauses now and then at its begin and at its end; errno is kept. Any thread.
class RandomPauses {
  public:
    RandomPauses() { pause(); }
    ~RandomPauses() { pause(); }
    RandomPauses(const RandomPauses&) = delete;
    RandomPauses& operator=(const RandomPauses&) = delete;

  private:
    static void pause();
};

}  // namespace bench
