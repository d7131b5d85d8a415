#include "formats/business_values.h"

#include "support/whole_file.h"

#include <algorithm>

namespace {

using namespace std::string_view_literals;

constexpr size_t kLargestFile = size_t{4} << 20U; // bytes
constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kLineEnds = "\r\n\0"sv; // a crash can leave zero bytes in a file
constexpr std::string_view kSignature = "\xef\xbb\xbf";

std::string_view Trim(std::string_view text) {
    const size_t nFirst = std::min(text.find_first_not_of(kBlanks), text.size());
    return text.substr(nFirst, text.find_last_not_of(kBlanks) + 1 - nFirst);
}

// By hand: the host's locale has other letters.
bool IsSameName(std::string_view first, std::string_view second) {
    const auto lower = [](char ch) { return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch; };
    return std::equal(first.begin(), first.end(), second.begin(), second.end(),
                      [&](char chFirst, char chSecond) { return lower(chFirst) == lower(chSecond); });
}

} // namespace

_FileCheck LoadKeyFile(const char *pszPath, std::string &strText) {
    strText.clear();
    CDescriptor file;
    const _FileCheck check = OpenChecked(AT_FDCWD, pszPath, O_RDONLY, kSharedMode, file);
    if (!check.IsGood()) {
        return check;
    }
    const int iError = LoadWholeFile(file, kLargestFile, strText);
    return iError == 0 ? _FileCheck{} : _FileCheck{EFileFault::Failure, iError};
}

std::optional<std::string_view> FindBusinessValue(std::string_view text, std::string_view section,
                                                  std::string_view name) noexcept {
    std::optional<std::string_view> value;
    bool bInSection = section.empty(); // what stands above the first section has none
    text.remove_prefix(text.starts_with(kSignature) ? kSignature.size() : 0);
    while (!text.empty()) {
        const size_t nEnd = std::min(text.find_first_of(kLineEnds), text.size());
        const std::string_view line = Trim(text.substr(0, nEnd));
        text.remove_prefix(std::min(nEnd + 1, text.size()));
        const bool bHeader = line.starts_with('[');
        const size_t nSplit = line.find(bHeader ? ']' : '=');
        if (nSplit == std::string_view::npos || nSplit == 0 || line.front() == ';' || line.front() == '#') {
            continue;
        }
        if (bHeader) {
            bInSection = IsSameName(Trim(line.substr(1, nSplit - 1)), section);
        } else if (bInSection && IsSameName(Trim(line.substr(0, nSplit)), name)) {
            value = Trim(line.substr(nSplit + 1));
        }
    }
    return value;
}
