// The scan engine: libclamav with one set of signatures, shared by all worker threads.
#ifndef TARN_TOOLS_ENGINE_SCAN_ENGINE_H
#define TARN_TOOLS_ENGINE_SCAN_ENGINE_H

#include "tools/engine/temporary_folder.h"
#include "tools/engine/verdict.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

struct cl_engine;

struct _ScanLimits {
    uint64_t ullMaxFileSize = 100u << 20; // bytes
    uint64_t ullMaxScanSize = 400u << 20; // bytes, everything unpacked from one file together
    uint32_t ulMaxScanTime = 120;         // seconds for one file, 0 for no limit
};

// One counted reference to the compiled engine.
class CScanEngine {
  public:
    // Loads and compiles the signatures; may take many seconds. Null with the reason in strError. The temporary
    // folder has to outlive every reference.
    static std::unique_ptr<CScanEngine> Load(const std::string &strSignatures, const _ScanLimits &limits,
                                             const CTemporaryFolder &temporary, std::string &strError);
    CScanEngine(const CScanEngine &) = delete;
    CScanEngine &operator=(const CScanEngine &) = delete;
    ~CScanEngine();

    // A further reference for another thread; null when the engine gives none.
    std::unique_ptr<CScanEngine> Share() const;

    // Scans an open file of ullSize bytes from its beginning. Ends early, with EVerdict::Interrupted, once bStop is
    // set. Clean is only what the engine has seen to its end. strError tells more about EVerdict::Error.
    _FileVerdict ScanDescriptor(int fd, uint64_t ullSize, const std::atomic<bool> &bStop, std::string &strError) const;

    unsigned SignatureCount() const { return m_nSignatures; }
    uint64_t MaxFileSize() const { return m_limits.ullMaxFileSize; }

  private:
    CScanEngine(cl_engine *pEngine, const CTemporaryFolder &temporary, const _ScanLimits &limits)
        : m_pEngine(pEngine), m_temporary(temporary), m_limits(limits) {}

    cl_engine *m_pEngine;
    const CTemporaryFolder &m_temporary;
    const _ScanLimits m_limits;
    unsigned m_nSignatures = 0;
};

#endif
