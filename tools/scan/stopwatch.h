// Time passed, for people.
#ifndef TARN_TOOLS_SCAN_STOPWATCH_H
#define TARN_TOOLS_SCAN_STOPWATCH_H

#include <chrono>

class CStopwatch {
  public:
    // Since it was made; not touched by changes of the wall clock.
    double Seconds() const { return std::chrono::duration<double>(Clock::now() - m_start).count(); }

  private:
    using Clock = std::chrono::steady_clock;

    Clock::time_point m_start = Clock::now();
};

#endif
