// The engine's private folder for what it unpacks.
#ifndef TARN_TOOLS_ENGINE_TEMPORARY_FOLDER_H
#define TARN_TOOLS_ENGINE_TEMPORARY_FOLDER_H

#include "support/descriptor.h"

#include <cstdint>
#include <string>

// Made below TMPDIR when that is set. Else in memory when ullMostBytes fit there several times over: the engine makes
// and removes a folder for every single file, which takes a disk ten times as long as the scan of a small file. Else
// below /tmp. Removed with everything in it at the end. One that a killed scan left there is removed by the next: a
// folder in use is locked, and the lock goes with its process.
class CTemporaryFolder {
  public:
    explicit CTemporaryFolder(uint64_t ullMostBytes);
    CTemporaryFolder(const CTemporaryFolder &) = delete;
    CTemporaryFolder &operator=(const CTemporaryFolder &) = delete;
    ~CTemporaryFolder();
    const std::string &Path() const { return m_strPath; }   // empty when none could be made
    const std::string &Error() const { return m_strError; } // why not

    // Whether a few more small files would fit.
    bool HasRoom() const;

  private:
    bool Make(const std::string &strParent);

    std::string m_strPath;
    std::string m_strError;
    CDescriptor m_folder; // holds the lock
};

#endif
