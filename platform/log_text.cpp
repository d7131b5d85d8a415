#include "platform/log_text.h"

#include <chrono>
#include <cstdint>
#include <iterator>
#include <spdlog/fmt/fmt.h>
#include <unistd.h>

namespace {

constexpr std::string_view kLevelNames[] = {"off", "severe", "error", "info", "debug"};

// Length of the UTF-8 sequence that text begins with, its code point in codePoint; 0 when it is none. Overlong forms,
// surrogates and values above U+10FFFF are none.
size_t DecodeUtf8(std::string_view text, uint32_t &codePoint) {
    const auto byteAt = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byteAt(0);
    const size_t nLength = lead < 0x80 ? 1 : lead < 0xc2 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf5 ? 4 : 0;
    if (nLength < 2 || text.size() < nLength) {
        codePoint = lead;
        return nLength == 1 ? 1 : 0;
    }
    codePoint = lead & (0x7fU >> nLength);
    for (size_t i = 1; i < nLength; ++i) {
        if ((byteAt(i) & 0xc0) != 0x80) {
            return 0;
        }
        codePoint = (codePoint << 6) | (byteAt(i) & 0x3fU);
    }
    const bool bOverlong = (nLength == 3 && codePoint < 0x800) || (nLength == 4 && codePoint < 0x10000);
    const bool bSurrogate = codePoint >= 0xd800 && codePoint <= 0xdfff;
    return bOverlong || bSurrogate || codePoint > 0x10ffff ? 0 : nLength;
}

// Characters that neither start a line, steer a terminal, nor reorder or hide the text around them.
bool IsPlain(uint32_t codePoint) {
    const auto within = [codePoint](uint32_t low, uint32_t high) { return codePoint >= low && codePoint <= high; };
    const bool bControl = codePoint < 0x20 || within(0x7f, 0x9f);
    const bool bInvisible = within(0x200b, 0x200f) || within(0x2028, 0x202e) || within(0x2060, 0x206f) ||
                            codePoint == 0xfeff || within(0xe0000, 0xe007f);
    return codePoint != '\\' && !bControl && !bInvisible;
}

void AppendEscapedByte(std::string &strOut, char byte) {
    switch (byte) {
    case '\\':
        strOut += "\\\\";
        break;
    case '\n':
        strOut += "\\n";
        break;
    case '\r':
        strOut += "\\r";
        break;
    case '\t':
        strOut += "\\t";
        break;
    default:
        fmt::format_to(std::back_inserter(strOut), "\\x{:02x}", static_cast<unsigned char>(byte));
    }
}

void AppendEscaped(std::string &strOut, std::string_view text) {
    while (!text.empty()) {
        uint32_t codePoint = 0;
        const size_t nLength = DecodeUtf8(text, codePoint);
        if (nLength > 0 && IsPlain(codePoint)) {
            strOut.append(text.substr(0, nLength));
            text.remove_prefix(nLength);
        } else {
            AppendEscapedByte(strOut, text.front());
            text.remove_prefix(1);
        }
    }
}

} // namespace

std::string FormatLogLine(int nLevel, std::string_view source, int nLine, std::string_view message) {
    // Calendar arithmetic instead of localtime or gmtime: they share a lock with the whole process, which a child
    // forked from a busy host may find taken for ever.
    using namespace std::chrono;
    const auto now = floor<milliseconds>(system_clock::now());
    const auto today = floor<days>(now);
    const year_month_day date(today);
    const hh_mm_ss<milliseconds> time(now - today);
    std::string strLine =
        fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z {} {}/{} ", static_cast<int>(date.year()),
                    static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), time.hours().count(),
                    time.minutes().count(), time.seconds().count(), time.subseconds().count(),
                    kLevelNames[nLevel >= 0 && nLevel <= 4 ? nLevel : 2], getpid(), gettid());
    strLine.reserve(strLine.size() + source.size() + message.size() + 16);
    AppendEscaped(strLine, source);
    fmt::format_to(std::back_inserter(strLine), ":{} ", nLine);
    AppendEscaped(strLine, message);
    strLine += '\n';
    return strLine;
}
