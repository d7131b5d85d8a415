// record_map.h - the records of several MD5s, as the reverse lookup asks for them and answers with them.
#ifndef TARN_UTIL_RECORD_MAP_H
#define TARN_UTIL_RECORD_MAP_H

#include "util/cache_record.h"

#include <map>
#include <string>
#include <vector>

// MD5 text -> its records. They are plain pointers because the class interfaces that hand them on are fixed; whoever
// made the map frees them with FreeRecords.
using RecordMap = std::map<std::string, std::vector<_CacheRecordEx *>>;

// Deletes every record. The MD5s stay, with nothing behind them.
inline void FreeRecords(RecordMap &records) {
    for (auto &[strMD5, vecRecords] : records) {
        for (const _CacheRecordEx *pRecord : vecRecords) {
            delete pRecord;
        }
        vecRecords.clear();
    }
}

#endif
