#include "tools/engine/scan_engine.h"

#include "tools/engine/memory_watch.h"
#include "tools/text/text.h"

#include <clamav.h>

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

constexpr uint64_t kEngineLargestFile = INT32_MAX - 2; // bytes; the engine takes no file above that
constexpr uint64_t kUnpackStep = 8192;                 // bytes; a member above a limit is cut off at a multiple of them
constexpr uint64_t kSmallestScanned = 6;               // bytes; the engine does not look at less
constexpr std::string_view kLimitNames = "Heuristics.Limits.Exceeded";

// What the engine's callbacks know of the scan they run in.
struct _ScanContext {
    const std::atomic<bool> &bStop;
    const CTemporaryFolder &temporary;
    bool bBrokenOff = false;     // because of bStop
    bool bFull = false;          // the temporary folder was
    uint64_t nLayers = 0;        // the file, and everything unpacked from it
    std::string strType = {};    // of the outermost layer
    uint64_t ullLargestPart = 0; // bytes, of all layers but the outermost
    uint64_t ullTotal = 0;       // bytes, of all layers
    std::string strFailure = {}; // the first error that the engine told
    const uint64_t ullFailedBefore = FailedAllocations();
};

// The scan that this thread is in. The engine's messages come without it as long as its own folder is not made.
thread_local _ScanContext *t_pScan = nullptr;

// Called for the file and for everything unpacked from it, before each is scanned. Blocking is the answer that ends
// the whole scan at once ("allowed" would still unpack every other member); the verdict is then not looked at.
cl_error_t BeforeLayer(int, const char *pszType, void *pContext) {
    auto *pScan = static_cast<_ScanContext *>(pContext);
    ++pScan->nLayers;
    if (pScan->strType.empty() && pszType != nullptr) {
        pScan->strType = pszType;
    }
    pScan->bBrokenOff = pScan->bBrokenOff || pScan->bStop.load(std::memory_order_relaxed);
    return pScan->bBrokenOff ? CL_VIRUS : CL_CLEAN;
}

// Called after it for the same layer. The size is the layer's own, which the status of the descriptor does not tell
// where the layer is a piece of another. Some unpackers do not tell that they could not write; the layer is then what
// did fit, and still there.
cl_error_t AtLayerSize(int, const char *, const char **, size_t, const char *, size_t nSize, const char *,
                       uint32_t ulDepth, uint32_t, void *pContext) {
    auto *pScan = static_cast<_ScanContext *>(pContext);
    if (ulDepth != 0) {
        pScan->ullLargestPart = std::max<uint64_t>(pScan->ullLargestPart, nSize);
    }
    pScan->ullTotal += nSize;
    pScan->bFull = pScan->bFull || !pScan->temporary.HasRoom();
    return CL_CLEAN;
}

// The engine's remarks on odd files (warnings) would fill the error output. Errors are what it could not do, such as
// writing a temporary file, and its result code does not tell them.
void OnMessage(cl_msg eSeverity, const char *, const char *pszText, void *) {
    if (eSeverity == CL_MSG_ERROR && t_pScan != nullptr && t_pScan->strFailure.empty()) {
        t_pScan->strFailure = "engine: " + EscapeName(std::string_view(pszText, std::strcspn(pszText, "\n")));
    }
}

// For what is unpacked. With less than a step, nothing of a member would be left to be seen.
uint64_t PartLimit(const _ScanLimits &limits) {
    return std::max(limits.ullMaxFileSize, 2 * kUnpackStep);
}

// Members above a limit are cut off, and the rest is not scanned, without a word.
bool IsCutShort(const _ScanContext &scan, const _ScanLimits &limits) {
    return scan.ullLargestPart + kUnpackStep > PartLimit(limits) ||
           (scan.ullLargestPart != 0 && limits.ullMaxScanSize != 0 &&
            scan.ullTotal + kUnpackStep > limits.ullMaxScanSize);
}

bool SetUp(cl_engine *pEngine, const _ScanLimits &limits, const std::string &strTemporaryFolder) {
    const auto setNumber = [&](cl_engine_field field, uint64_t ullValue) {
        return cl_engine_set_num(pEngine, field, static_cast<long long>(ullValue)) == CL_SUCCESS;
    };
    cl_engine_set_clcb_pre_cache(pEngine, BeforeLayer);
    cl_engine_set_clcb_file_inspection(pEngine, AtLayerSize);
    return setNumber(CL_ENGINE_DISABLE_CACHE, 1) && setNumber(CL_ENGINE_MAX_FILESIZE, PartLimit(limits)) &&
           setNumber(CL_ENGINE_MAX_SCANSIZE, limits.ullMaxScanSize) &&
           setNumber(CL_ENGINE_MAX_SCANTIME, uint64_t{limits.ulMaxScanTime} * 1000) &&
           cl_engine_set_str(pEngine, CL_ENGINE_TMPDIR, strTemporaryFolder.c_str()) == CL_SUCCESS;
}

_FileVerdict VerdictOf(cl_error_t result, const char *pszName, std::string &strError) {
    const std::string_view name = pszName == nullptr ? "" : pszName;
    _FileVerdict verdict = {};
    if (result == CL_CLEAN) {
        verdict.eVerdict = EVerdict::Clean;
    } else if (result == CL_ETIMEOUT || (result == CL_VIRUS && name == "Heuristics.Limits.Exceeded.MaxScanTime")) {
        verdict.eVerdict = EVerdict::TimedOut;
    } else if (result == CL_EMAXREC || result == CL_EMAXSIZE || result == CL_EMAXFILES ||
               (result == CL_VIRUS && name.starts_with(kLimitNames))) {
        verdict.eVerdict = EVerdict::LimitExceeded;
    } else if (result == CL_VIRUS) {
        verdict.eVerdict = EVerdict::Infected;
        verdict.strName = StoredName(name.empty() ? "Unknown" : name);
    } else {
        verdict.eVerdict = EVerdict::Error;
        strError = cl_strerror(result);
    }
    return verdict;
}

// Why a verdict other than infected does not rest on the whole file; empty when it does.
std::string WhyIncomplete(const _ScanContext &scan, uint64_t ullSize, EVerdict eVerdict) {
    if (!scan.strFailure.empty()) {
        return scan.strFailure;
    }
    if (scan.nLayers == 0 && ullSize >= kSmallestScanned && eVerdict == EVerdict::Clean) {
        return "the engine did not look at the file";
    }
    // Of any thread: one too many is scanned again, but what an unpacker lost without a word would be called clean.
    if (FailedAllocations() != scan.ullFailedBefore) {
        return "memory ran out during the scan";
    }
    return scan.bFull || !scan.temporary.HasRoom() ? "the temporary folder is full" : "";
}

} // namespace

std::unique_ptr<CScanEngine> CScanEngine::Load(const std::string &strSignatures, const _ScanLimits &limits,
                                               const CTemporaryFolder &temporary, std::string &strError) {
    const uint64_t ullFailedBefore = FailedAllocations();
    cl_error_t result = cl_init(CL_INIT_DEFAULT);
    cl_set_clcb_msg(OnMessage);
    cl_engine *pEngine = result == CL_SUCCESS ? cl_engine_new() : nullptr;
    if (pEngine == nullptr) {
        strError = "the scan engine does not start: " + std::string(cl_strerror(result));
        return nullptr;
    }
    _ScanLimits effective = limits;
    effective.ullMaxFileSize =
        limits.ullMaxFileSize == 0 ? kEngineLargestFile : std::min(limits.ullMaxFileSize, kEngineLargestFile);
    std::unique_ptr<CScanEngine> pLoaded(new CScanEngine(pEngine, temporary, effective));
    if (!SetUp(pEngine, effective, temporary.Path())) {
        strError = "the scan engine refuses its settings";
        return nullptr;
    }
    result = cl_load(strSignatures.c_str(), pEngine, &pLoaded->m_nSignatures, CL_DB_STDOPT);
    if (result == CL_SUCCESS) {
        result = cl_engine_compile(pEngine);
    }
    if (FailedAllocations() != ullFailedBefore) {
        result = CL_EMEM; // a set with gaps would find less than its fingerprint promises
    }
    if (result == CL_SUCCESS && pLoaded->m_nSignatures != 0) {
        return pLoaded;
    }
    strError = "cannot load the signatures in " + EscapeName(strSignatures) + ": " +
               (result == CL_SUCCESS ? "there are none" : cl_strerror(result));
    return nullptr;
}

CScanEngine::~CScanEngine() {
    (void)cl_engine_free(m_pEngine);
}

std::unique_ptr<CScanEngine> CScanEngine::Share() const {
    if (cl_engine_addref(m_pEngine) != CL_SUCCESS) {
        return nullptr;
    }
    std::unique_ptr<CScanEngine> pShared(new CScanEngine(m_pEngine, m_temporary, m_limits));
    pShared->m_nSignatures = m_nSignatures;
    return pShared;
}

_FileVerdict CScanEngine::ScanDescriptor(int fd, uint64_t ullSize, const std::atomic<bool> &bStop,
                                         std::string &strError) const {
    _ScanContext context = {bStop, m_temporary};
    cl_scan_options options = {};
    options.general = CL_SCAN_GENERAL_HEURISTICS;
    options.parse = ~0u;
    options.heuristic = CL_SCAN_HEURISTIC_EXCEEDS_MAX;
    const char *pszName = nullptr;
    unsigned long ulBlocks = 0;
    // No file name: with one, some unpackers open the path again and could be led to another file.
    t_pScan = &context;
    const cl_error_t result = cl_scandesc_callback(fd, nullptr, &pszName, &ulBlocks, m_pEngine, &options, &context);
    t_pScan = nullptr;
    _FileVerdict verdict = {};
    verdict.eVerdict = EVerdict::Interrupted;
    if (!context.bBrokenOff) {
        verdict = VerdictOf(result, pszName, strError);
    }
    if (verdict.eVerdict == EVerdict::Clean && IsCutShort(context, m_limits)) {
        verdict.eVerdict = EVerdict::LimitExceeded;
    }
    if (verdict.eVerdict == EVerdict::Clean || verdict.eVerdict == EVerdict::LimitExceeded) {
        std::string strWhy = WhyIncomplete(context, ullSize, verdict.eVerdict);
        if (!strWhy.empty()) {
            verdict.eVerdict = EVerdict::Error;
            strError = std::move(strWhy);
        }
    }
    verdict.eType = TypeOf(context.strType);
    return verdict;
}
