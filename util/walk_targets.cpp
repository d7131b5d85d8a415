#include "util/walk_targets.h"

#include "util/log.h"

#include <bit>
#include <cstring>

namespace {

constexpr char kLogSource[] = "dbfileutil"; // whose part this is

size_t CountRecords(const RecordMap &records) {
    size_t nRecords = 0;
    for (const auto &[strMD5, vecRecords] : records) {
        nRecords += vecRecords.size();
    }
    return nRecords;
}

} // namespace

_DirIndex::_DirIndex(const char *dirPath) {
    if (CalcFilePathIndex(dirPath, szIndex, kPathIndexLength) == 0) {
        TARN_LOG_AS(ELogLevel::Error, "FilterDir", "[%s]CalFilePathIndex failed.");
    }
}

CRecordIndex::CRecordIndex(size_t nRecords) : m_vecSlots(std::bit_ceil(2 * nRecords + 1)) {}

void CRecordIndex::Add(_CacheRecordEx *pRecord) {
    _Slot &slot = Find(pRecord->liFilePathHash);
    if (slot.pRecord == nullptr) {
        slot = {pRecord->liFilePathHash, pRecord};
    }
}

CRecordIndex::_Slot &CRecordIndex::Find(int64_t liFilePathHash) {
    // The low bits of a path hash, a CRC, spread evenly. A free slot always ends the search: half of them are.
    auto n = static_cast<size_t>(liFilePathHash) & (m_vecSlots.size() - 1);
    while (m_vecSlots[n].pRecord != nullptr && m_vecSlots[n].liFilePathHash != liFilePathHash) {
        n = (n + 1) & (m_vecSlots.size() - 1);
    }
    return m_vecSlots[n];
}

CWalkTargets::CWalkTargets(const RecordMap &records) : m_table(CountRecords(records)) {
    for (const auto &[strMD5, vecRecords] : records) {
        for (_CacheRecordEx *pRecord : vecRecords) {
            if (pRecord != nullptr) {
                m_table.Add(pRecord);
                AddPrefixes(pRecord->szFilePathIndex);
            }
        }
    }
}

// Once an index is in, so are all its prefixes; many records share one.
void CWalkTargets::AddPrefixes(const char (&szIndex)[kPathIndexLength + 1]) {
    std::string strPrefix(szIndex, strnlen(szIndex, sizeof szIndex));
    while (!strPrefix.empty() && m_setPrefixes.insert(strPrefix).second) {
        strPrefix.pop_back();
    }
}

bool CWalkTargets::ShouldEnter(const char *dirPath) const {
    const _DirIndex index(dirPath);
    return !index.IsValid() || m_setPrefixes.count(index.szIndex) != 0;
}

void CWalkTargets::Resolve(int64_t liFilePathHash, const char (&szPath)[TARN_PATH_SIZE]) {
    if (_CacheRecordEx *pRecord = m_table.Record(liFilePathHash)) {
        // An empty field is zeroed already: writing 4 KiB into each of many records would cost more than finding them.
        const bool bEmpty = pRecord->szFilePath[0] == '\0';
        std::memcpy(pRecord->szFilePath, szPath, bEmpty ? std::strlen(szPath) + 1 : TARN_PATH_SIZE);
    }
}
