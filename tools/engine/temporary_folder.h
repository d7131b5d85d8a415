// The engine's private folder for what it unpacks.
#ifndef TARN_TOOLS_ENGINE_TEMPORARY_FOLDER_H
#define TARN_TOOLS_ENGINE_TEMPORARY_FOLDER_H

#include "support/descriptor.h"

#include <cstdint>
#include <string>

// Made below TMPDIR when that is set. Else in memory when the most bytes that the engine may unpack fit there several
// times over: the engine makes and removes a folder for every single file, which takes a disk ten times as long as the
// scan of a small file. Else below /tmp. Removed with everything in it at the end. One that a killed scan left there is
// removed by the next: a folder in use is locked, and the lock goes with its process.
class CTemporaryFolder {
  public:
    CTemporaryFolder() = default;
    CTemporaryFolder(const CTemporaryFolder &) = delete;
    CTemporaryFolder &operator=(const CTemporaryFolder &) = delete;
    ~CTemporaryFolder();

    // Call it once. False when no folder can be made, with the reason in strError.
    bool Make(uint64_t ullMostBytes, std::string &strError);

    // Empty until Make succeeds.
    const std::string &Path() const { return m_strPath; }

    // Whether a few more small files would fit.
    bool HasRoom() const;

  private:
    bool MakeBelow(const std::string &strParent);

    std::string m_strPath;
    CDescriptor m_folder; // holds the lock
};

#endif
