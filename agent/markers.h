// markers.h - the files that an engine updater leaves for the next start: two markers, whose existence is the message,
// and the list of withdrawn digests. No lock; the log lines carry the names of the agent's methods that pass the calls
// on.
#ifndef TARN_AGENT_MARKERS_H
#define TARN_AGENT_MARKERS_H

#include "interface/tarncache.h"

#include <set>

using ENGID = int32_t;               // one engine
using EngineSet = std::set<int16_t>; // engines as the cache table stores them

// True when the marker of that name exists; lFlag then is the value it stands for. Another name is logged.
[[nodiscard]] bool ReadMarker(const char *pszName, int32_t &lFlag);

// Removes the marker of that name, and the digest list with the marker that announces it. Whether there was something
// to remove makes no difference.
void RemoveMarker(const char *pszName);

// The engines whose bit is set in the flag, in ascending order.
[[nodiscard]] EngineSet EnginesOf(int32_t lFlag);

// Path of the enciphered digest list into path (size bytes). True when the file exists; else logged and false.
TARN_API bool GetUpdateCacheFilePath(char *path, int32_t size);

// One of the installation's paths, with its "@". Nothing of these is logged.
[[nodiscard]] bool IsFileThere(const char *pszPath);
// Also when that cannot be found out, as without memory for the path.
[[nodiscard]] bool MayFileBeThere(const char *pszPath);
bool MoveFile(const char *pszFrom, const char *pszTo); // false when there is nothing to move, or it cannot be moved
void RemoveFile(const char *pszPath);                  // whether there was something makes no difference

#endif
