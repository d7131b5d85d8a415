// The search for the files that carry certain MD5s.
#ifndef TARN_TOOLS_CACHE_FILE_SEARCH_H
#define TARN_TOOLS_CACHE_FILE_SEARCH_H

#include <functional>
#include <string>
#include <vector>

struct _FoundFile {
    std::string strPath;
    bool bChanged = false; // since it was scanned: it may carry another MD5 by now
};

struct _FoundDigest {
    std::string strMD5;
    std::vector<_FoundFile> vecFiles;
    bool bKnown = false; // has records, whether or not their files were found

    bool HasUnchangedFile() const;
};

// Walks the file system, which may take long; the cache has to be started. One entry for each MD5, in ascending order.
// onFolder: called with each folder that is entered. False when the search failed, with the reason in strError.
bool FindFiles(const std::vector<std::string> &vecMD5, const std::function<void(const char *pszFolder)> &onFolder,
               std::vector<_FoundDigest> &vecFound, std::string &strError);

#endif
