#include "platform/bundled/log_text.h"

#include "support/utf8.h"

#include <chrono>
#include <cstdio>
#include <unistd.h>

std::string FormatLogLine(int iLevel, std::string_view source, int iLine, std::string_view message) {
    // Calendar arithmetic instead of localtime or gmtime: they share a lock with the whole process, which a child
    // forked from a busy host may find taken for ever.
    using namespace std::chrono;
    const auto now = floor<milliseconds>(system_clock::now());
    const auto today = floor<days>(now);
    const year_month_day date(today);
    const hh_mm_ss<milliseconds> time(now - today);
    char szHead[96] = "";
    (void)std::snprintf(szHead, sizeof szHead, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ %s %d/%d ", int{date.year()},
                        unsigned{date.month()}, unsigned{date.day()}, static_cast<int>(time.hours().count()),
                        static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()),
                        static_cast<int>(time.subseconds().count()),
                        kLevelNames[iLevel >= kLevelOff && iLevel <= kLevelDebug ? iLevel : kLevelError], getpid(),
                        gettid());
    std::string strLine(szHead);
    strLine.reserve(strLine.size() + source.size() + message.size() + 16);
    AppendEscaped(strLine, source);
    strLine.append(":").append(std::to_string(iLine)).append(" ");
    AppendEscaped(strLine, message);
    strLine += '\n';
    return strLine;
}
