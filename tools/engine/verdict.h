// What a scan says of one file.
#ifndef TARN_TOOLS_ENGINE_VERDICT_H
#define TARN_TOOLS_ENGINE_VERDICT_H

#include <cstdint>
#include <string>
#include <string_view>

enum class EVerdict {
    Clean,
    Infected,
    LimitExceeded,
    TimedOut,
    Error,
    Interrupted,
    Changed // during the scan: what was found holds neither for the file before nor after
};

// Stored in caches: never renumber. 0 is left out on purpose: as the low byte of a flag word it would make the cache's
// writer run for every single file.
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

const char *TypeName(EFileType eType);
const char *VerdictName(EVerdict eVerdict);

#endif
