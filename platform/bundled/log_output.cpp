#include "platform/bundled/log_output.h"

#include "platform/bundled/log_text.h"
#include "support/checked_file.h"

#include <cstdio>
#include <cstring>
#include <utility>

namespace {

constexpr size_t kMaxFileSize = size_t{10} << 20U; // bytes
constexpr size_t kOlderFiles = 2;
constexpr std::chrono::seconds kRetryInterval(60);
constexpr char kNotRenamed[] = "the log file cannot be renamed";

} // namespace

void CLogFile::SetPath(const std::string &strPath) {
    const size_t nName = strPath.rfind('/') + 1; // npos + 1 is 0
    m_strFolder = nName == 0 ? "." : strPath.substr(0, nName);
    m_strName = strPath.substr(nName);
}

std::string CLogFile::Write(std::string strLines) {
    const auto now = std::chrono::steady_clock::now();
    if (m_strName.empty() || strLines.empty() || now < m_nextTry) {
        return strLines;
    }
    if (!std::exchange(m_bFolderChecked, true)) {
        const _FileCheck folder = CheckFolder(m_strFolder.c_str(), false);
        if (folder.IsRefused()) {
            strLines = FormatLogLine(kLevelError, "tarncore", __LINE__,
                                     m_strFolder + ": others can remove the log: " + folder.Text()) +
                       strLines;
        }
    }
    const char *const pszError = TryWrite(strLines);
    if (pszError == nullptr) {
        return {};
    }
    m_file = CDescriptor();
    m_nextTry = now + kRetryInterval;
    return FormatLogLine(kLevelError, "tarncore", __LINE__, m_strFolder + m_strName + ": " + pszError) + strLines;
}

const char *CLogFile::TryWrite(std::string_view lines) {
    if (!m_file.IsOpen()) {
        const char *const pszError = Open();
        if (pszError != nullptr) {
            return pszError;
        }
    }
    const char *const pszError = MakeRoom(lines.size());
    return pszError == nullptr ? Append(lines) : pszError;
}

// A link, a pipe, a device, a file of somebody else: a scanner that runs as root writes to none of them. What is
// checked is the very descriptor that the lines go to.
const char *CLogFile::Open() {
    m_folder = CDescriptor(open(m_strFolder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!m_folder.IsOpen()) {
        return strerrordesc_np(errno);
    }
    const _FileCheck check =
        OpenChecked(m_folder.Get(), m_strName.c_str(), O_WRONLY | O_APPEND | O_CREAT, kPublicMode, m_file);
    return check.IsGood() ? nullptr : check.Text();
}

// Sets a full file aside, and opens the name anew when it bears another file by now: another process has set this one
// aside, or somebody has removed it.
const char *CLogFile::MakeRoom(size_t nSize) {
    struct stat ours = {};
    struct stat named = {};
    if (fstat(m_file.Get(), &ours) != 0) {
        return strerrordesc_np(errno);
    }
    const bool bNamed = fstatat(m_folder.Get(), m_strName.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0;
    if (!bNamed || ours.st_ino != named.st_ino || ours.st_dev != named.st_dev) {
        return Open();
    }
    if (ours.st_size == 0 || static_cast<size_t>(ours.st_size) + nSize <= kMaxFileSize) {
        return nullptr;
    }
    for (size_t nOlder = kOlderFiles; nOlder > 0; --nOlder) {
        const std::string strFrom = NameOf(nOlder - 1);
        const std::string strTo = NameOf(nOlder);
        if (renameat(m_folder.Get(), strFrom.c_str(), m_folder.Get(), strTo.c_str()) != 0 && errno != ENOENT) {
            return kNotRenamed;
        }
    }
    return Open();
}

const char *CLogFile::Append(std::string_view text) noexcept {
    if (m_bTorn && write(m_file.Get(), "\n", 1) == 1) {
        m_bTorn = false;
    }
    while (!text.empty()) {
        const ssize_t nWritten = write(m_file.Get(), text.data(), text.size());
        if (nWritten < 0 && errno != EINTR) {
            return strerrordesc_np(errno);
        }
        text.remove_prefix(nWritten > 0 ? static_cast<size_t>(nWritten) : 0);
        m_bTorn = nWritten > 0 ? !text.empty() : m_bTorn;
    }
    return nullptr;
}

// The number stands in front of the extension: app.log, app.1.log, app.2.log.
std::string CLogFile::NameOf(size_t nOlder) const {
    const size_t nDot = m_strName.rfind('.');
    const size_t nStem = nDot == std::string::npos || nDot == 0 ? m_strName.size() : nDot;
    return nOlder == 0 ? m_strName
                       : m_strName.substr(0, nStem) + "." + std::to_string(nOlder) + m_strName.substr(nStem);
}
