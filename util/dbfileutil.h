// dbfileutil.h - the walk that turns path hashes back into paths.
//
// Holds no lock and uses only its own object: walks on different threads do not interfere. May run long.
#ifndef TARN_UTIL_DBFILEUTIL_H
#define TARN_UTIL_DBFILEUTIL_H

#include "interface/tarncache.h"
#include "util/record_map.h"

#include <functional>
#include <list>
#include <string>
#include <vector>

class TARN_API CdbFileUtil {
  public:
    CdbFileUtil();
    virtual ~CdbFileUtil();
    CdbFileUtil(const CdbFileUtil &) = delete;
    CdbFileUtil &operator=(const CdbFileUtil &) = delete;

    // Walks from "/", breadth first, into every directory that could hold one of the records, and writes the path of a
    // regular file into the first record (in map order) with the file's path hash; a later file with the same hash
    // overwrites it. Links are not followed and no file is opened. Always TARN_OK: what cannot be read is logged and
    // skipped. Unmatched records keep what their path field held. An empty field has to be zeroed throughout, as in a
    // new record.
    // m_onFolder, when it is set, is called for each directory that is read (absolute, ending in '/').
    [[nodiscard]] uint32_t FindFilesByCchRecords(RecordMap &records);

    // The next two belong to the fixed interface of this class; nothing in the library calls them.

    // Appends each record's path index, in map order, duplicates kept, null pointers skipped.
    void GetAllFilePathIndex(const RecordMap &records, std::vector<std::string> &indexes);

    // True: skip the directory (absolute, ending in '/'), since no index begins with its own. The walk itself asks a
    // prefix set with the same answers.
    [[nodiscard]] bool FilterDir(const char *dirPath, std::vector<std::string> indexes);

    std::function<void(const char *)> m_onFolder;

  private:
    void TellFolder(const char *pszFolder);

    std::list<std::string> m_listDirs; // directories still to be read, each ending in '/'
};

#endif
