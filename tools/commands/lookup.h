// lookup: what the cache knows of files.
#ifndef TARN_TOOLS_COMMANDS_LOOKUP_H
#define TARN_TOOLS_COMMANDS_LOOKUP_H

#include "tools/commands/exit_status.h"

#include <string>
#include <vector>

struct _LookupOptions {
    std::vector<std::string> vecPaths;
    std::string strRoot;
    bool bJson = false;
};

EExitStatus RunLookup(const _LookupOptions &options);

#endif
