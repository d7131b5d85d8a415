// A verdict on one file, and its form in the cache.
#ifndef TARN_TOOLS_ENGINE_FILE_VERDICT_H
#define TARN_TOOLS_ENGINE_FILE_VERDICT_H

#include <cstdint>
#include <string>
#include <string_view>

#include <tarncache.h>

enum class EVerdict { Clean, Infected, LimitExceeded, TimedOut, Error, Interrupted };

// The file type in the flag word's low byte. Stored in caches: never renumber. 0 is left out on purpose, it would make
// the cache's writer run for every single file.
enum class EFileType : uint8_t {
    Other = 1,
    Elf = 2,
    Executable = 3,
    Text = 4,
    Archive = 5,
    Document = 6,
    Html = 7,
    Mail = 8,
    Media = 9
};

struct _FileVerdict {
    EVerdict eVerdict = EVerdict::Error;
    std::string strName; // of the signature, in its stored form; empty unless infected
    EFileType eType = EFileType::Other;
    std::string strMD5; // 32 digits; empty when it was not computed
};

// The name as the cache keeps it: cut to 63 bytes, each double quote (which the cache refuses) made a single one. Used
// for every report as well, so that an answer from the cache reads exactly like the scan before it.
std::string StoredName(std::string_view name);

// From the engine's name of a type ("CL_TYPE_ELF").
EFileType TypeOf(std::string_view engineType);

// From the low byte of a flag word.
EFileType TypeOfFlags(uint32_t ulFlags);

const char *TypeName(EFileType eType);
const char *VerdictName(EVerdict eVerdict);

// What tells the records of one signature set from those of another: 18 bits of the set's fingerprint, in their places
// in the flag word.
uint32_t SignatureTag(std::string_view fingerprint);

// The record to add for a clean or infected file: engine 48, and the flag word
//   bits 0-7           file type
//   bits 13-17         result state: 0 clean, 1 infected
//   bit 18             set when infected
//   bits 8-12, 19-31   the tag of the signatures that gave the verdict
_SCAN_FILE_RESULT ToRecord(const _FileVerdict &verdict, uint32_t ulTag);

// The verdict in a record that the cache gave. False when another engine or other signatures made it, or when it does
// not hold together; the file has to be scanned then. Outdated records are normally deleted, but that may fail or come
// before the last of them is written.
bool FromRecord(const _SCAN_FILE_RESULT &record, const char *pszMD5, uint32_t ulTag, _FileVerdict &verdict);

#endif
