#include "tools/scan_engine.h"

#include "tools/text.h"

#include <clamav.h>

#include <algorithm>
#include <string_view>

namespace {

constexpr uint64_t kEngineLargestFile = INT32_MAX - 2; // bytes; the engine takes no file above that
constexpr std::string_view kLimitNames = "Heuristics.Limits.Exceeded";

// What the engine's callbacks know of the scan they run in.
struct _ScanContext {
    const std::atomic<bool> *pStop = nullptr;
    bool bBroken = false;
    std::string strType; // of the outermost layer
};

// Called for the file and for everything unpacked from it, before each is scanned. Blocking is the answer that ends
// the whole scan at once ("allowed" would still unpack every other member); the verdict is then not looked at.
cl_error_t BeforeLayer(int, const char *pszType, void *pContext) {
    auto *pScan = static_cast<_ScanContext *>(pContext);
    if (pScan->strType.empty() && pszType != nullptr)
        pScan->strType = pszType;
    pScan->bBroken = pScan->bBroken || pScan->pStop->load(std::memory_order_relaxed);
    return pScan->bBroken ? CL_VIRUS : CL_CLEAN;
}

// The engine's remarks on odd files would fill the error output; its result codes say what matters.
void DropMessage(cl_msg, const char *, const char *, void *) {}

bool SetUp(cl_engine *pEngine, const _ScanLimits &limits, const std::string &strTemporaryFolder) {
    const auto setNumber = [&](cl_engine_field field, uint64_t value) {
        return cl_engine_set_num(pEngine, field, static_cast<long long>(value)) == CL_SUCCESS;
    };
    cl_engine_set_clcb_pre_cache(pEngine, BeforeLayer);
    return setNumber(CL_ENGINE_DISABLE_CACHE, 1) && setNumber(CL_ENGINE_MAX_FILESIZE, limits.uMaxFileSize) &&
           setNumber(CL_ENGINE_MAX_SCANSIZE, limits.uMaxScanSize) &&
           setNumber(CL_ENGINE_MAX_SCANTIME, uint64_t{limits.uMaxScanTime} * 1000) &&
           (strTemporaryFolder.empty() ||
            cl_engine_set_str(pEngine, CL_ENGINE_TMPDIR, strTemporaryFolder.c_str()) == CL_SUCCESS);
}

_FileVerdict VerdictOf(cl_error_t result, const char *pszName, std::string &strError) {
    const std::string_view name = pszName == nullptr ? "" : pszName;
    _FileVerdict verdict;
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

} // namespace

std::unique_ptr<CScanEngine> CScanEngine::Load(const std::string &strSignatures, const _ScanLimits &limits,
                                               const std::string &strTemporaryFolder, std::string &strError) {
    cl_error_t result = cl_init(CL_INIT_DEFAULT);
    cl_set_clcb_msg(DropMessage);
    cl_engine *pEngine = result == CL_SUCCESS ? cl_engine_new() : nullptr;
    if (pEngine == nullptr) {
        strError = "the scan engine does not start: " + std::string(cl_strerror(result));
        return nullptr;
    }
    const uint64_t uMaxFileSize =
        limits.uMaxFileSize == 0 ? kEngineLargestFile : std::min(limits.uMaxFileSize, kEngineLargestFile);
    std::unique_ptr<CScanEngine> pLoaded(new CScanEngine(pEngine, 0, uMaxFileSize));
    if (!SetUp(pEngine, limits, strTemporaryFolder)) {
        strError = "the scan engine refuses its settings";
        return nullptr;
    }
    result = cl_load(strSignatures.c_str(), pEngine, &pLoaded->m_nSignatures, CL_DB_STDOPT);
    if (result == CL_SUCCESS)
        result = cl_engine_compile(pEngine);
    if (result == CL_SUCCESS && pLoaded->m_nSignatures != 0)
        return pLoaded;
    strError = "cannot load the signatures in " + EscapeName(strSignatures) + ": " +
               (result == CL_SUCCESS ? "there are none" : cl_strerror(result));
    return nullptr;
}

CScanEngine::~CScanEngine() {
    (void)cl_engine_free(m_pEngine);
}

std::unique_ptr<CScanEngine> CScanEngine::Share() const {
    if (cl_engine_addref(m_pEngine) != CL_SUCCESS)
        return nullptr;
    return std::unique_ptr<CScanEngine>(new CScanEngine(m_pEngine, m_nSignatures, m_uMaxFileSize));
}

_FileVerdict CScanEngine::ScanDescriptor(int fd, const std::atomic<bool> &stop, std::string &strError) const {
    _ScanContext context;
    context.pStop = &stop;
    cl_scan_options options{};
    options.general = CL_SCAN_GENERAL_HEURISTICS;
    options.parse = ~0u;
    options.heuristic = CL_SCAN_HEURISTIC_EXCEEDS_MAX;
    const char *pszName = nullptr;
    unsigned long blocks = 0;
    // No file name: with one, some unpackers open the path again and could be led to another file.
    const cl_error_t result = cl_scandesc_callback(fd, nullptr, &pszName, &blocks, m_pEngine, &options, &context);
    _FileVerdict verdict;
    verdict.eVerdict = EVerdict::Interrupted;
    if (!context.bBroken)
        verdict = VerdictOf(result, pszName, strError);
    verdict.eType = TypeOf(context.strType);
    return verdict;
}
