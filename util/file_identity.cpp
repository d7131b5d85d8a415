// The three small values that identify a file. Pure functions of their arguments and the file system: no state, no
// locks, any thread.
#include "util/file_identity.h"

#include "platform/tarncore.h"
#include "util/log.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace {

constexpr char kLogSource[] = "cacheutil"; // what readers of the log know this file by

// Only 16 bits of the directory's CRC seed the name's CRC and are stored; every stored hash depends on it.
constexpr uint32_t kDirectoryCrcMask = 0xFFFF;

// The block that the attribute hash covers. Modification time, inode, mode and owner are left out on purpose: every
// change of them changes the status-change time too.
struct _AttrBlock {
    int64_t liSize;
    int64_t liStatusChangeTime; // seconds
};
static_assert(sizeof(_AttrBlock) == 16, "hashed as it lies in memory");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "stored hashes are little-endian");

bool IsEmpty(const char *path) {
    return path == nullptr || *path == '\0';
}

} // namespace

int CalcFilePathCrc32(const char *path, uint32_t *out) {
    if (IsEmpty(path) || out == nullptr) {
        return 0;
    }
    const char *pszLastSlash = std::strrchr(path, '/');
    if (pszLastSlash == nullptr) {
        TARN_LOG_ERROR("[%s][cache] the path:%s is invalid.", path);
        return 0;
    }
    const char *pszName = pszLastSlash + 1;
    const auto *pBytes = reinterpret_cast<const unsigned char *>(path);
    const uint32_t ulSeed = Crc32(0, pBytes, static_cast<uint64_t>(pszName - path)) & kDirectoryCrcMask;
    out[0] = Crc32(ulSeed, reinterpret_cast<const unsigned char *>(pszName), std::strlen(pszName));
    out[1] = ulSeed;
    return 1;
}

bool CalcPathHash(const char *pszPath, int64_t &liPathHash) {
    uint32_t aulWords[2] = {};
    if (CalcFilePathCrc32(pszPath, aulWords) == 0) {
        return false;
    }
    std::memcpy(&liPathHash, aulWords, sizeof liPathHash); // the first word is the low half
    return true;
}

bool TakeStatus(const char *pszPath, struct stat &status) {
    if (lstat(pszPath, &status) != 0) {
        TARN_LOG_AS(ELogLevel::Error, "CalcFileAttrCrc32", "[%s][cache] get file:%s attr failed, err:%s.", pszPath,
                    std::strerror(errno));
        return false;
    }
    return true;
}

int CalcFileAttrCrc32(const char *path, uint32_t *out) {
    struct stat status = {};
    if (IsEmpty(path) || out == nullptr || !TakeStatus(path, status)) {
        return 0;
    }
    *out = static_cast<uint32_t>(AttrHashOf(status));
    return 1;
}

int32_t AttrHashOf(const struct stat &status) {
    const _AttrBlock block = {status.st_size, status.st_ctim.tv_sec};
    return static_cast<int32_t>(Crc32(0, reinterpret_cast<const unsigned char *>(&block), sizeof block));
}

int CalcFilePathIndex(const char *path, char *out, uint32_t maxLen) {
    if (IsEmpty(path) || out == nullptr) {
        return 0;
    }
    out[0] = path[0];
    const char *pszCursor = path + 1;
    for (uint32_t i = 1; i < maxLen; ++i) {
        const char *pszSlash = std::strchr(pszCursor, '/');
        if (pszSlash == nullptr || pszSlash[1] == '\0') {
            break; // the last component is the file itself and never counts
        }
        out[i] = *pszCursor;
        pszCursor = pszSlash + 1;
    }
    return 1;
}
