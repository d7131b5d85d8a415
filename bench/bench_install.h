// bench_install.h - the temporary installation with a database that is filled before the library opens it, real files
// for its rows, and the small things that every measurement needs.
#ifndef TARN_BENCH_BENCH_INSTALL_H
#define TARN_BENCH_BENCH_INSTALL_H

#include "tests/support/install.h"
#include "util/cache_record.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

constexpr int64_t kDefaultRows = 1000000; // the cap of the cache
constexpr int16_t kFirstEngine = 43;      // rows are spread evenly over the engines 43 to 50
constexpr int kEngines = 8;

// An installation whose configuration lets nothing expire. Its folder goes also when a measurement cannot go on.
class CBenchInstall : public CTempInstall {
  public:
    CBenchInstall();

    // Makes nFiles files of nBytes each below "files", 100 to a folder, and returns their paths.
    std::vector<std::string> MakeFiles(size_t nFiles, size_t nBytes) const;
    // Starts and stops the library so that it makes its tables, then fills them: liRows rows, among them, evenly
    // spread, one for each file. Call while the library is stopped.
    void FillDatabase(int64_t liRows, const std::vector<std::string> &vecFiles) const;
    // As FillDatabase, in a child process that leaves no trace in this one's memory. Call before any thread starts.
    void FillDatabaseInChild(int64_t liRows, const std::vector<std::string> &vecFiles) const;
    // Number of starts whose maintenance is done: the writer saves it right after the vacuum.
    int FinishedStarts() const;
    // Waits until FinishedStarts is above nBefore.
    void WaitForStart(int nBefore) const;
};

// The MD5 of row liRow, which is also that of the file the row belongs to.
CacheMD5 RowDigest(int64_t liRow);
std::string DigestText(const CacheMD5 &md5);

// First column of the first row of a query on a database that the library does not hold open; -1 when it fails.
int64_t QueryNumber(const std::string &strDatabase, const std::string &strSQL);
// Runs statements on a database that the library does not hold open.
void RunSQL(const std::string &strDatabase, const std::string &strSQL);

// Ends the process with a message unless the condition holds: a measurement of something else is worth nothing.
void Require(bool bCondition, const char *pszWhat);
// The number in the last argument, or the default without one.
int64_t CountArgument(int argc, char **argv, int64_t liDefault);
// Prints a measured value beside its limit; true when it is kept.
bool ReportLimit(const char *pszWhat, double value, double limit, const char *pszUnit);

using BenchClock = std::chrono::steady_clock;
double SecondsSince(BenchClock::time_point start);
double TimeSeconds(const std::function<void()> &action);

#endif
