// update_list.h - the update-cache file by way of the base services: key, cipher and binary digests.
#ifndef TARN_AGENT_UPDATE_LIST_H
#define TARN_AGENT_UPDATE_LIST_H

#include "formats/update_list.h"
#include "util/cache_record.h"

#include <cstddef>
#include <cstdlib>
#include <memory>

// Deciphers (or enciphers) the buffer in place: RC4 in blocks of 256 bytes, each from the freshly keyed state. The key
// comes from the business-value store; a missing one counts as zero bytes. A null buffer is logged.
void ParseMemToChar(char *buffer, size_t size);

// The text of one list, read and deciphered. Logs in the name of the agent's DeleteCacheRecordsByFileMD5.
class CUpdateListText {
  public:
    // pszPath: expanded, or with its "@". TARN_OK; TARN_NOT_CACHED: cannot be opened; TARN_E_FAIL (no status, empty or
    // above 4 GiB), TARN_E_OUTOFMEMORY, TARN_E_INVALIDARG (no version line).
    [[nodiscard]] uint32_t Read(const char *pszPath);
    [[nodiscard]] char *Digests() const { return m_pszDigests; } // behind the version line; valid as long as the object

  private:
    struct _MemoryFree {
        void operator()(char *pMemory) const { std::free(pMemory); }
    };

    std::unique_ptr<char, _MemoryFree> m_pText;
    char *m_pszDigests = nullptr;
};

// A whole line of 32 hexadecimal digits becomes a digest; false for any other text.
[[nodiscard]] bool ParseDigest(const char (&szDigest)[kDigestTextSize], CacheMD5 &md5);

#endif
