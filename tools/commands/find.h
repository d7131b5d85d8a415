// find: which files on this machine carry certain MD5s, as far as the cache knows them.
#ifndef TARN_TOOLS_COMMANDS_FIND_H
#define TARN_TOOLS_COMMANDS_FIND_H

#include "tools/commands/exit_status.h"

#include <string>
#include <vector>

struct _FindOptions {
    std::vector<std::string> vecMD5; // "-" stands for a list on standard input
    std::string strRoot;
    bool bJson = false;
    bool bNullSeparated = false; // paths alone, each ended by a NUL
};

EExitStatus RunFind(const _FindOptions &options);

#endif
