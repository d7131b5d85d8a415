#include "agent/database_health.h"

#include "support/descriptor.h"

namespace {

constexpr char kMark[] = ".open"; // behind the database's name

} // namespace

void CDatabaseHealth::BeginRun(const std::string &strPath) {
    m_strMark = strPath + kMark;
    const CDescriptor mark(
        open(m_strMark.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    // A journal too: a full disk may have kept the mark away.
    struct stat status = {};
    m_bUnclean = (!mark.IsOpen() && errno == EEXIST) || lstat((strPath + "-journal").c_str(), &status) == 0;
}

void CDatabaseHealth::EndRun(bool bDamage) {
    if (!m_strMark.empty() && !m_bUnclean && !m_bSuspect && !bDamage) {
        (void)unlink(m_strMark.c_str()); // what stays costs a check
    }
    m_strMark.clear();
}

void CDatabaseHealth::NoteFile(const std::string &strPath) {
    if (lstat(strPath.c_str(), &m_file) != 0) {
        m_file = {};
    }
}

bool CDatabaseHealth::IsInPlace(const std::string &strPath) const {
    struct stat now = {};
    return lstat(strPath.c_str(), &now) == 0 && now.st_dev == m_file.st_dev && now.st_ino == m_file.st_ino;
}

bool CDatabaseHealth::FollowFile(const std::string &strPath) {
    struct stat now = {};
    if (lstat(strPath.c_str(), &now) != 0 || now.st_dev != m_file.st_dev || now.st_ino != m_file.st_ino ||
        now.st_size < m_file.st_size) {
        return false;
    }
    m_file.st_size = now.st_size;
    return true;
}
