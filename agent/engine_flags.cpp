// Engine updates, on the writer thread at its start: what their markers withdraw is deleted under the table lock held
// for writing.
#include "agent/dbagent.h"

#include "formats/installation.h"
#include "util/log.h"

namespace {

constexpr char kLogSource[] = "dbagent";

} // namespace

bool CDataBaseAgent::ReadCleanCacheFlag(const char *name, int32_t *flag) {
    return name != nullptr && flag != nullptr && ReadMarker(name, *flag);
}

bool CDataBaseAgent::ResetCleanCacheFlag(const char *name) {
    if (name != nullptr) {
        RemoveMarker(name);
    }
    return name != nullptr;
}

void CDataBaseAgent::GetEngineListByFlag(int32_t flag, EngineSet &engines) {
    engines.clear();
    if (flag == 0 || flag == -1) {
        return;
    }
    // Nothing here needs the lock: lookups have always waited at this point of an engine update, and that is kept.
    const CWriteLock lock(m_connection.m_tableLock);
    engines = EnginesOf(flag);
}

uint32_t CDataBaseAgent::CheckDeleteAllCacheRecordsByFlag(int32_t flag) {
    if (flag == 0) {
        return TARN_OK;
    }
    if (flag == -1) {
        return DeleteAllRecords();
    }
    EngineSet engines;
    GetEngineListByFlag(flag, engines);
    const CWriteLock lock(m_connection.m_tableLock);
    if (m_pCacheTable->BatchDeleteRecordsByEngineIds(engines) == 0) {
        TARN_LOG_ERROR("[%s]BatchDeleteRecordsByEngineIds failed, engine cnt=%d", static_cast<int>(engines.size()));
        return TARN_E_FAIL;
    }
    return TARN_OK;
}

uint32_t CDataBaseAgent::CheckDeleteAllCacheRecords() {
    int32_t lFlag = 0;
    if (!ReadCleanCacheFlag(kEngineMarkerName, &lFlag)) {
        return TARN_E_FAIL;
    }
    // The marker is consumed exactly once: a failed deletion is not tried again at the next start.
    (void)CheckDeleteAllCacheRecordsByFlag(lFlag);
    return ResetCleanCacheFlag(kEngineMarkerName) ? TARN_OK : TARN_E_FAIL;
}
