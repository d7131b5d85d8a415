// services.h - the base services under the test's control: recorded log lines, the clock, the thread and the timer.
//
// The definitions in services.cpp stand in the test program, so the dynamic linker gives them to libtarncache in place
// of the bundled ones: what a product does when it brings its own.
#ifndef TARN_TESTS_SUPPORT_SERVICES_H
#define TARN_TESTS_SUPPORT_SERVICES_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct _LogLine {
    int iLevel;
    std::string strSource;
    std::string strText;
};

// What libtarncache logged, from any thread.
namespace RecordedLog {
void Clear();
void SetDebug(bool bOn);
std::vector<_LogLine> Lines();
std::vector<std::string> Texts(int iLevel = 0); // of one level, or of all
bool Contains(const std::string &strText);      // a whole line
size_t Count(const std::string &strText);
} // namespace RecordedLog

// time(): the real one, or a fixed number of seconds.
namespace TestClock {
void Set(int64_t liSeconds);
void UseRealTime();
} // namespace TestClock

// The event-loop service: threads are real, timers fire when told to.
namespace TestLoop {
void FailThreads(int iError); // 0: succeed again
void FailTimers(bool bFail);
void FireTimer();       // the callback runs in the next turn of the loop that started the timer
uint64_t TimerPeriod(); // of the running timer, 0 without one
void Reset();
} // namespace TestLoop

// Polls until the condition holds; false after a minute.
bool WaitFor(const std::function<bool()> &condition);

#endif
