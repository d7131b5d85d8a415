// Finds the files to scan. Runs on its own thread.
#ifndef TARN_TOOLS_SCAN_WALKER_H
#define TARN_TOOLS_SCAN_WALKER_H

#include "tools/scan/counters.h"
#include "tools/scan/job.h"
#include "tools/scan/own_files.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// What a walk tells, on its own thread.
struct _WalkListener {
    std::function<bool(std::vector<_ScanJob> &vecJobs)> onFiles; // leaves the vector empty; false ends the walk
    std::function<void(ESkipped eReason)> onSkipped;
    std::function<void(const std::string &strPath, const std::string &strError)> onProblem;
    std::function<void(const std::string &strText)> onNote;
};

// Never follows a link below an argument, opens folders only, and leaves the kernel's own file systems alone.
class CTreeWalker {
  public:
    CTreeWalker(const std::vector<std::string> &vecExclude, const COwnFiles &ownFiles, const std::atomic<bool> &bStop,
                const _WalkListener &listener)
        : m_vecExclude(vecExclude), m_ownFiles(ownFiles), m_bStop(bStop), m_listener(listener) {}

    // One PATH: a file, or a folder with everything below it. False once the scan is to stop.
    bool Walk(const std::string &strArgument);

    // A list of PATHs, one a line or, with cSeparator '\0', each ended by a NUL; "-" is standard input.
    void WalkList(const std::string &strList, char cSeparator);

  private:
    struct _PendingFolder {
        std::shared_ptr<const _OpenFolder> pParent; // null for an argument
        std::string strName;
        std::string strArgumentPath; // the absolute path of an argument; below it the parent has all but the name
        dev_t parentDevice = 0;

        std::string Path() const;
    };

    bool WalkArgument(const std::string &strArgument);
    bool WalkTree(_PendingFolder root);
    bool ReadFolder(const _PendingFolder &pending, std::vector<_PendingFolder> &vecPending);
    bool IsSkipped(const _PendingFolder &pending, const _OpenFolder &folder, const struct stat &status) const;
    bool ListFolder(const std::shared_ptr<const _OpenFolder> &pFolder, const struct stat &status,
                    std::vector<_PendingFolder> &vecPending);
    bool TakeEntry(const std::shared_ptr<const _OpenFolder> &pFolder, const struct stat &folderStatus,
                   const char *pszName, unsigned char type, std::vector<_PendingFolder> &vecPending);
    bool PushFile(_ScanJob job);
    bool IsExcluded(const std::string &strPath, std::string_view name) const;
    bool IsExcludedArgument(const std::string &strPath) const;
    void TellProblem(const std::string &strPath, int iError) const;

    const std::vector<std::string> &m_vecExclude;
    const COwnFiles &m_ownFiles;
    const std::atomic<bool> &m_bStop;
    const _WalkListener &m_listener;
    std::vector<_ScanJob> m_vecBatch; // found, not told yet
};

#endif
