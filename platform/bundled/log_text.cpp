#include "platform/bundled/log_text.h"

#include "support/utf8.h"

#include <chrono>
#include <iterator>
#include <spdlog/fmt/fmt.h>
#include <unistd.h>

std::string FormatLogLine(int iLevel, std::string_view source, int iLine, std::string_view message) {
    // Calendar arithmetic instead of localtime or gmtime: they share a lock with the whole process, which a child
    // forked from a busy host may find taken for ever.
    using namespace std::chrono;
    const auto now = floor<milliseconds>(system_clock::now());
    const auto today = floor<days>(now);
    const year_month_day date(today);
    const hh_mm_ss<milliseconds> time(now - today);
    std::string strLine = fmt::format(
        "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z {} {}/{} ", static_cast<int>(date.year()),
        static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), time.hours().count(),
        time.minutes().count(), time.seconds().count(), time.subseconds().count(),
        kLevelNames[iLevel >= kLevelOff && iLevel <= kLevelDebug ? iLevel : kLevelError], getpid(), gettid());
    strLine.reserve(strLine.size() + source.size() + message.size() + 16);
    AppendEscaped(strLine, source);
    fmt::format_to(std::back_inserter(strLine), ":{} ", iLine);
    AppendEscaped(strLine, message);
    strLine += '\n';
    return strLine;
}
