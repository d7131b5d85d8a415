// The files that a scan must not open: the cache's own, and the engine's temporary ones.
#ifndef TARN_TOOLS_SCAN_OWN_FILES_H
#define TARN_TOOLS_SCAN_OWN_FILES_H

#include <map>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <utility>
#include <vector>

// Closing any descriptor of the cache's database drops the locks that this process holds on it, so its files are told
// by name, by folder and, for other names of the same file, by device and inode. Read-only once it is built.
class COwnFiles {
  public:
    // Only takes statuses; opens nothing but the folder itself. Folders that do not exist are left out.
    explicit COwnFiles(const std::vector<std::string> &vecFolders);

    // For folders: one of ours, under whatever name.
    bool IsOwnFolder(const struct stat &status) const;

    // For files: lies below one of our folders, or is one of the files found there.
    bool IsOwnFile(std::string_view path, const struct stat &status) const;

  private:
    using FileKey = std::pair<dev_t, ino_t>;

    std::vector<std::string> m_vecPrefixes; // with a "/" at the end
    std::map<FileKey, std::string> m_mapFolders;
    std::map<FileKey, std::string> m_mapFiles;
};

#endif
