// The commands of the program, one file each. Each function adds its command with all its options to the command line.
#ifndef TARN_TOOLS_COMMANDS_COMMANDS_H
#define TARN_TOOLS_COMMANDS_COMMANDS_H

#include "tools/commands/command.h"

// scan: finds infected files, and answers unchanged ones from the cache.
_Command AddScan(CLI::App &app);

// lookup: what the cache knows of files.
_Command AddLookup(CLI::App &app);

// stats: how much the cache holds, and what waits for the next scan.
_Command AddStats(CLI::App &app);

// forget: deletes the records of files with certain MD5s.
_Command AddForget(CLI::App &app);

// find: which files on this machine carry certain MD5s, as far as the cache knows them.
_Command AddFind(CLI::App &app);

// withdraw: what an updater does to take verdicts on single files back. Leaves the enciphered list and its marker for
// the next start of the cache.
_Command AddWithdraw(CLI::App &app);

#endif
