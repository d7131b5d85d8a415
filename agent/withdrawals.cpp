#include "agent/withdrawals.h"

#include "agent/update_list.h"
#include "formats/installation.h"
#include "util/log.h"

#include <algorithm>
#include <tuple>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr size_t kMostDigests = 1000000; // kept in memory, 16 MB

bool IsLess(const CacheMD5 &first, const CacheMD5 &second) {
    return std::tie(first.liHighMD5, first.liLowMD5) < std::tie(second.liHighMD5, second.liLowMD5);
}

} // namespace

void CWithdrawals::FindPending() {
    // In doubt they are in force until it is known better.
    m_bEngine = MayFileBeThere(kEngineMarkerPath) || MayFileBeThere(kEngineTakenPath);
    const bool bList = MayFileBeThere(kHashMarkerPath) && MayFileBeThere(kUpdateCachePath);
    m_eList = bList || MayFileBeThere(kListTakenPath) ? EList::Unread : EList::None;
}

bool CWithdrawals::Covers(const _CacheRecord &record) const {
    if (m_bEngine && VerdictEngineCode(record.liTreatVirus) == kWithdrawnEngine) {
        return true;
    }
    if (m_eList == EList::None) {
        return false;
    }
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_eList == EList::Unread ||
           (m_eList == EList::Read && std::binary_search(m_vecDigests.begin(), m_vecDigests.end(),
                                                         CacheMD5{record.liHighMD5, record.liLowMD5}, IsLess));
}

bool CWithdrawals::TakeEngine() {
    (void)MoveFile(kEngineMarkerPath, kEngineTakenPath); // an earlier one that is there means the same
    if (IsFileThere(kEngineTakenPath) || IsFileThere(kEngineMarkerPath)) {
        return true;
    }
    m_bEngine = MayFileBeThere(kEngineMarkerPath) || MayFileBeThere(kEngineTakenPath);
    return false;
}

void CWithdrawals::EngineDone() {
    RemoveFile(kEngineTakenPath);
    m_bEngine = MayFileBeThere(kEngineMarkerPath);
}

// 1. The list is renamed, so that an updater who leaves another one does not lose it to our removal.
// 2. It is read. A list that is none goes back where it was; its marker was never touched.
// 3. The marker goes. After a crash before this, the next start finds the list set aside and the marker without a list,
//    and comes here again.
uint32_t CWithdrawals::TakeList(const std::function<bool()> &isRunning) {
    if (m_eList == EList::Read) {
        return TARN_OK;
    }
    if (!MayFileBeThere(kListTakenPath) && !MayFileBeThere(kUpdateCachePath)) {
        m_eList = EList::None; // there was only doubt
        return TARN_NOT_CACHED;
    }
    if (!IsFileThere(kListTakenPath) && !MoveFile(kUpdateCachePath, kListTakenPath)) {
        TARN_LOG_ERROR("[%s][cache] the list of digests cannot be set aside.");
        return TARN_E_FAIL;
    }
    uint32_t ulResult = ReadList(isRunning);
    if (ulResult == TARN_E_INVALIDARG) {
        ulResult = ReadList(isRunning); // without memory for its key, a list looks like none too
    }
    if (ulResult == TARN_OK) {
        if (!IsFileThere(kUpdateCachePath)) {
            RemoveFile(kHashMarkerPath);
        }
        m_eList = m_vecDigests.empty() ? EList::Unread : EList::Read;
    } else if (ulResult == TARN_E_INVALIDARG) {
        const bool bNewer = IsFileThere(kUpdateCachePath); // has taken its place
        if (bNewer) {
            RemoveFile(kListTakenPath);
        } else {
            (void)MoveFile(kListTakenPath, kUpdateCachePath); // one that cannot go back is read again by the next start
        }
        m_eList = bNewer ? EList::Unread : EList::None;
    }
    return ulResult;
}

// TARN_OK without digests: there are too many.
uint32_t CWithdrawals::ReadList(const std::function<bool()> &isRunning) {
    CUpdateListFile list(isRunning);
    switch (list.Open(kListTakenPath)) {
    case TARN_OK:
        break;
    case TARN_NOT_CACHED: // no descriptor or no memory is left: for the moment, and no fault of the list
    case TARN_E_OUTOFMEMORY:
    case TARN_E_ABORT:
        return TARN_E_FAIL;
    default:
        return TARN_E_INVALIDARG;
    }
    m_vecDigests.clear();
    if (!ReadDigests(list.Digests(), kMostDigests, m_vecDigests)) {
        return TARN_E_FAIL;
    }
    if (m_vecDigests.size() == kMostDigests) {
        m_vecDigests = std::vector<CacheMD5>();
        return TARN_OK;
    }
    std::sort(m_vecDigests.begin(), m_vecDigests.end(), IsLess);
    // A text deciphered with a wrong key may by chance begin like a version line, but it holds no digest.
    return m_vecDigests.empty() ? TARN_E_INVALIDARG : TARN_OK;
}

void CWithdrawals::ListDone() {
    RemoveFile(kListTakenPath);
    if (!MayFileBeThere(kUpdateCachePath)) {
        RemoveFile(kHashMarkerPath); // it may have been kept before
    }
    const bool bAnother = MayFileBeThere(kHashMarkerPath) && MayFileBeThere(kUpdateCachePath);
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_eList = bAnother ? EList::Unread : EList::None;
    m_vecDigests.clear();
}
