// The end of a scan's report.
#ifndef TARN_TOOLS_SCAN_SUMMARY_H
#define TARN_TOOLS_SCAN_SUMMARY_H

#include "tools/scan/counters.h"

#include <string>

// What the counters do not know.
struct _ScanSummary {
    double scanSeconds = 0; // from the start of the cache to the last record written
    double loadSeconds = 0; // loading the signatures
    unsigned nSignatures = 0;
    std::string strSignatures;
    bool bTestSignatures = false; // the program's own few, which find test files only
    std::string strRoot;          // the installation folder
    std::string strCacheOff;      // why there was no cache; empty with one
    bool bInterrupted = false;
};

std::string SummaryText(const _ScanSummary &summary, const _ScanCounters &counters);

// One object in one line.
std::string SummaryJson(const _ScanSummary &summary, const _ScanCounters &counters);

#endif
