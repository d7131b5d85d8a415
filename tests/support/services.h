// services.h - the base services under the test's control: recorded log lines, the clock, the thread and the timer.
//
// The definitions in services.cpp stand in the test program, so the dynamic linker gives them to libtarncache in place
// of the bundled ones: what a product does when it brings its own.
#ifndef TARN_TESTS_SUPPORT_SERVICES_H
#define TARN_TESTS_SUPPORT_SERVICES_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// What libtarncache logged, from any thread. A line of the source under test is compared by its text, one of any other
// source by "source: text".
namespace RecordedLog {
void Clear();
void SetSource(const std::string &strSource); // the one under test; clears as well
void SetDebug(bool bOn);
std::vector<std::string> Texts(int iLevel = 0); // of one level, or of all
bool Contains(const std::string &strText);      // a whole line
size_t Count(const std::string &strText);
} // namespace RecordedLog

// time(): the real one, or a fixed number of seconds.
struct TestClock {
    static inline std::atomic<int64_t> s_liTime = -1; // below 0: the real time
};

// The event-loop service: threads are real, timers fire when told to.
struct TestLoop {
    static void Reset() {
        s_iThreadError = s_iDueCallbacks = 0;
        s_bFailTimers = s_bFire = false;
    }
    static inline std::atomic<int> s_iThreadError = 0;  // of the next threads; 0: they start
    static inline std::atomic<int> s_iDueCallbacks = 0; // what the loop says is still to run; below 0: throws
    static inline std::atomic<bool> s_bFailTimers = false;
    static inline std::atomic<bool> s_bFire = false;     // runs the callback in the next turn of the timer's loop
    static inline std::atomic<uint64_t> s_ullPeriod = 0; // of the running timer, 0 without one
};

// Polls until the condition holds; false after a minute.
bool WaitFor(const std::function<bool()> &condition);

#endif
