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
    static void Set(int64_t liSeconds) { s_liTime = liSeconds; }
    static void UseRealTime() { s_liTime = -1; }
    static inline std::atomic<int64_t> s_liTime = -1; // below 0: the real time
};

// The event-loop service: threads are real, timers fire when told to.
struct TestLoop {
    static void FailThreads(int iError) { s_iThreadError = iError; } // 0: succeed again
    static void FailTimers(bool bFail) { s_bFailTimers = bFail; }
    static void FireTimer() { s_bFire = true; }           // the callback runs in the next turn of the timer's loop
    static uint64_t TimerPeriod() { return s_ullPeriod; } // of the running timer, 0 without one
    static void SetDueCallbacks(int iCount) { s_iDueCallbacks = iCount; } // what the loop says is still to run
    static void Reset() {
        s_iThreadError = s_iDueCallbacks = 0;
        s_bFailTimers = s_bFire = false;
    }
    static inline std::atomic<int> s_iThreadError = 0, s_iDueCallbacks = 0;
    static inline std::atomic<bool> s_bFailTimers = false, s_bFire = false;
    static inline std::atomic<uint64_t> s_ullPeriod = 0;
};

// Polls until the condition holds; false after a minute.
bool WaitFor(const std::function<bool()> &condition);

#endif
