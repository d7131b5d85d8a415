// faults.h - the n-th file operation of SQLite or the n-th allocation fails, in a child process. Linked into a test
// program, this stands in front of malloc, fsync and SQLite's file system.
#ifndef TARN_TESTS_SUPPORT_FAULTS_H
#define TARN_TESTS_SUPPORT_FAULTS_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace Faults {

enum class EKind { None, File, Kill, Memory }; // Kill: SIGKILL before the file operation

void Install(); // before SQLite is used
// Counts the calls of this kind in nPoints; the nAt-th fails, with bForEver each later one too.
void Arm(EKind eKind, uint64_t nAt, bool bForEver, std::atomic<uint64_t> &nPoints);
// Runs body in a child. "", or how it ended: "killed" (as it is when the time is up), "signal 6", "status 1" (leaks).
std::string RunInChild(const std::function<void()> &body, std::chrono::microseconds limit = std::chrono::minutes(1));

extern const bool kSanitized;
} // namespace Faults

#endif
