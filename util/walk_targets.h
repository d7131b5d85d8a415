// walk_targets.h - what one walk over the file system looks for, in a form whose cost does not grow with the number of
// records.
#ifndef TARN_UTIL_WALK_TARGETS_H
#define TARN_UTIL_WALK_TARGETS_H

#include "interface/tarncache.h"
#include "util/record_map.h"

#include <string>
#include <unordered_set>
#include <vector>

// A directory's own path index, NUL-terminated; empty when it cannot be computed (logged in the name of FilterDir).
struct _DirIndex {
    char szIndex[kPathIndexLength + 1] = {};

    explicit _DirIndex(const char *dirPath); // absolute, ending in '/'
    bool IsValid() const { return szIndex[0] != '\0'; }
};

// Path hash -> record, in one flat table: a walk asks it for every file it meets, and a node-based map would cost
// several cache misses each time.
class CRecordIndex {
  public:
    explicit CRecordIndex(size_t nRecords);

    // The first record with a hash keeps it.
    void Add(_CacheRecordEx *pRecord);
    // Null: there is none.
    _CacheRecordEx *Record(int64_t liFilePathHash) { return Find(liFilePathHash).pRecord; }

  private:
    struct _Slot {
        int64_t liFilePathHash;
        _CacheRecordEx *pRecord; // null: free
    };

    // The slot of this hash, or the free one where it belongs.
    _Slot &Find(int64_t liFilePathHash);

    std::vector<_Slot> m_vecSlots; // a power of two, at most half full
};

// Belongs to one walk and its thread. The records must outlive it.
class CWalkTargets {
  public:
    explicit CWalkTargets(const RecordMap &records);

    // Could the directory (absolute, ending in '/') hold one of the records? True for one whose index cannot be told.
    bool ShouldEnter(const char *dirPath) const;

    // Writes the path into the record with this hash, if there is one. szPath is the whole buffer, zero-padded, and so
    // is the record's field afterwards.
    void Resolve(int64_t liFilePathHash, const char (&szPath)[TARN_PATH_SIZE]);

  private:
    void AddPrefixes(const char (&szIndex)[kPathIndexLength + 1]);

    std::unordered_set<std::string> m_setPrefixes; // every beginning of every record's path index
    CRecordIndex m_table;
};

#endif
