#include "tools/scan/own_files.h"

#include <algorithm>
#include <filesystem>

namespace {

// A file that is gone may have left its inode to a stranger; only one that is still there counts.
bool IsStillThere(const std::string &strPath, const struct stat &status) {
    struct stat now = {};
    return lstat(strPath.c_str(), &now) == 0 && now.st_dev == status.st_dev && now.st_ino == status.st_ino;
}

} // namespace

COwnFiles::COwnFiles(const std::vector<std::string> &vecFolders) {
    for (const std::string &strFolder : vecFolders) {
        struct stat status = {};
        if (strFolder.empty() || stat(strFolder.c_str(), &status) != 0) {
            continue;
        }
        m_vecPrefixes.push_back(strFolder + "/");
        m_mapFolders.emplace(FileKey(status.st_dev, status.st_ino), strFolder);
        std::error_code error;
        auto entry = std::filesystem::recursive_directory_iterator(strFolder, error);
        for (; !error && entry != std::filesystem::recursive_directory_iterator(); entry.increment(error)) {
            const std::string strPath = entry->path().string();
            if (lstat(strPath.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
                m_mapFiles.emplace(FileKey(status.st_dev, status.st_ino), strPath);
            }
        }
    }
}

bool COwnFiles::IsOwnFolder(const struct stat &status) const {
    return m_mapFolders.contains(FileKey(status.st_dev, status.st_ino));
}

bool COwnFiles::IsOwnFile(std::string_view path, const struct stat &status) const {
    const bool bBelow = std::any_of(m_vecPrefixes.begin(), m_vecPrefixes.end(),
                                    [&](const std::string &strPrefix) { return path.starts_with(strPrefix); });
    const auto found = m_mapFiles.find(FileKey(status.st_dev, status.st_ino));
    return bBelow || (found != m_mapFiles.end() && IsStillThere(found->second, status));
}
