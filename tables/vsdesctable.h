// vsdesctable.h - table "VDT": every virus description once, referenced by a small index.
//
// GetIndexByVirusDesc and LoadRecords run under the agent's write lock; GetVirusDescByIndex runs on lookups under its
// read lock, many at once. The map of descriptions has a small mutex of its own (innermost lock).
#ifndef TARN_TABLES_VSDESCTABLE_H
#define TARN_TABLES_VSDESCTABLE_H

#include "tables/xdatatable.h"

#include <map>
#include <mutex>

struct _VirusRecord {
    int32_t iVirusIndex;                    // VID, the key
    char szVirusDesc[TARN_VIRUS_DESC_SIZE]; // VD
};
static_assert(sizeof(_VirusRecord) == 68);

class TARN_API CVirusTable : public CTableBase<_VirusRecord> {
  public:
    explicit CVirusTable(sqlite3 *pDB = nullptr);
    virtual ~CVirusTable();

    // Sets the name and builds the statement texts; calling it again changes nothing.
    void RegisterSQLs();

    [[nodiscard]] uint32_t InsertRecord(_VirusRecord *pRecord) override;
    // As the interface says, and 1 for a stored text that is empty.
    [[nodiscard]] uint32_t QueryRecord(_VirusRecord *pRecord) override;
    [[nodiscard]] uint32_t DeleteRecord(_VirusRecord *pRecord) override;
    // 0 or the SQLite code (iCounts untouched); 1 without a connection.
    [[nodiscard]] uint32_t QueryRecordCounts(int &iCounts);

    // The description's index, adding the description when it is new; -1 for an empty one. Cut to 63 characters.
    // 1 success (also for a null argument, which is logged), 0 failure.
    [[nodiscard]] int GetIndexByVirusDesc(const char *pszVirusDesc, int *pVirusIndex);
    // The description of an index, cut to fit; zeroes the whole buffer for an index below 0.
    // 1 success (also for a null argument, which is logged), 0 for an unknown index (buffer untouched).
    [[nodiscard]] int GetVirusDescByIndex(int iVirusIndex, char *pszVirusDesc, unsigned int ccbVirusDesc);
    // Finds the description in the table, or adds it under the row count as its index, and notes it in the map, whose
    // mutex must not be held. 0 success, else a SQLite code or 1.
    [[nodiscard]] uint32_t LoadRecords(std::map<int, std::string> *pMap, const char *pszVirusDesc, int *pVirusIndex);

    // Another database takes the place of the one that the map is about.
    void ForgetTexts();

    std::map<int, std::string> m_mapVirusDesc; // what is known so far; only grows

  private:
    [[nodiscard]] uint32_t AddDescription(const std::string &strVirusDesc, int *pVirusIndex);
    [[nodiscard]] bool FindInMap(const std::string &strVirusDesc, int *pVirusIndex);

    std::mutex m_mapMutex; // guards m_mapVirusDesc: lookups add to it under the read lock
};

#endif
