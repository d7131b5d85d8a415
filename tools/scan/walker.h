// Finds the files to scan and feeds them to the queue. Runs on its own thread.
#ifndef TARN_TOOLS_SCAN_WALKER_H
#define TARN_TOOLS_SCAN_WALKER_H

#include "tools/scan/counters.h"
#include "tools/scan/own_files.h"
#include "tools/scan/queue.h"
#include "tools/scan/report.h"

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

// Never follows a link below an argument, opens folders only, and leaves the kernel's own file systems alone.
class CTreeWalker {
  public:
    CTreeWalker(const std::vector<std::string> &vecExclude, const COwnFiles &ownFiles, const std::atomic<bool> &stop,
                CJobQueue &queue, CScanReport &report, _ScanCounters &counters)
        : m_vecExclude(vecExclude), m_ownFiles(ownFiles), m_stop(stop), m_queue(queue), m_report(report),
          m_counters(counters) {}

    // One PATH: a file, or a folder with everything below it. False once the scan is to stop.
    bool Walk(const std::string &strArgument);

    // A list of PATHs, one a line or, with cSeparator '\0', each ended by a NUL; "-" is standard input.
    void WalkList(const std::string &strList, char cSeparator);

  private:
    struct _PendingFolder {
        std::shared_ptr<const _OpenFolder> pParent; // null for an argument
        std::string strName;
        std::string strPath;
        dev_t parentDevice;
    };

    bool WalkArgument(const std::string &strArgument);
    bool WalkTree(_PendingFolder root);
    bool ReadFolder(const _PendingFolder &pending, std::vector<_PendingFolder> &stack);
    bool TakeEntry(const std::shared_ptr<const _OpenFolder> &pFolder, const struct stat &folderStatus,
                   const char *pszName, unsigned char type, std::vector<_PendingFolder> &stack);
    bool PushFile(_ScanJob job);
    bool PushBatch();
    bool IsExcluded(const std::string &strPath, std::string_view name) const;
    bool IsExcludedArgument(const std::string &strPath) const;
    void Skip(ESkipped eReason) { m_counters.CountSkipped(eReason); }

    const std::vector<std::string> &m_vecExclude;
    const COwnFiles &m_ownFiles;
    const std::atomic<bool> &m_stop;
    CJobQueue &m_queue;
    CScanReport &m_report;
    _ScanCounters &m_counters;
    std::vector<_ScanJob> m_vecBatch; // found, not in the queue yet
};

#endif
