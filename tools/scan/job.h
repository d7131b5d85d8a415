// One file to look at, and the folder it is reached through.
#ifndef TARN_TOOLS_SCAN_JOB_H
#define TARN_TOOLS_SCAN_JOB_H

#include "support/descriptor.h"

#include <memory>
#include <string>

// An open folder. Files are reached through it, so that nobody can slip a link into their path meanwhile, and so that
// paths longer than the system takes at once can be scanned too.
struct _OpenFolder {
    CDescriptor descriptor;
    std::string strPath;

    std::string PathOf(const std::string &strName) const { return (strPath == "/" ? "" : strPath) + "/" + strName; }
};

struct _ScanJob {
    std::shared_ptr<const _OpenFolder> pFolder; // null for a PATH argument
    std::string strName;                        // inside the folder, or what to open
    std::string strArgumentPath;                // the absolute path of an argument

    int FolderFd() const { return pFolder == nullptr ? AT_FDCWD : pFolder->descriptor.Get(); }
    std::string Path() const { return pFolder == nullptr ? strArgumentPath : pFolder->PathOf(strName); }
};

#endif
