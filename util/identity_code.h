// identity_code.h - the keyed code that binds a record to its file: a stranger who knows the sources can forge the
// hashes of a record, but not this.
#ifndef TARN_UTIL_IDENTITY_CODE_H
#define TARN_UTIL_IDENTITY_CODE_H

#include "util/cache_record.h"

#include <array>
#include <string>
#include <string_view>
#include <sys/stat.h>

constexpr size_t kIdentityKeySize = 32; // bytes
constexpr size_t kCodeKeySize = 16;

// A file as one moment saw it.
struct _FileIdentity {
    const char *pszPath;       // the whole path
    uint64_t ullFileSystem;    // its own identity, see CFileSystems
    const struct stat &status; // inode, size, change time
};

class CIdentityKey {
  public:
    CIdentityKey() = default;
    CIdentityKey(const CIdentityKey &) = delete;
    CIdentityKey &operator=(const CIdentityKey &) = delete;
    ~CIdentityKey(); // wipes it

    // Reads the key file, or makes it (bMake; mode 0600, flushed to disk) when it is missing or cannot be trusted: not
    // 32 bytes, a link, or open to others. Every code made with the former key is then worthless, so everything misses
    // once. False with the reason in strError.
    [[nodiscard]] bool Load(const std::string &strPath, bool bMake, std::string &strError);

    // The code of a record and of the file that it is about: SipHash-2-4 with 128 bits, which is made for short texts,
    // over the path, the file's identity and all that a lookup would answer with. Throws std::bad_alloc.
    [[nodiscard]] IdentityCode CodeOf(const _FileIdentity &file, const _CacheRecord &record,
                                      std::string_view description) const;

  private:
    std::array<unsigned char, kCodeKeySize> m_abCodeKey = {}; // made of the key in the file
};

#endif
