// update_list.h - the update-cache file by way of the base services: key, cipher and binary digests.
#ifndef TARN_AGENT_UPDATE_LIST_H
#define TARN_AGENT_UPDATE_LIST_H

#include "formats/update_list.h"
#include "platform/tarncore.h"
#include "util/cache_record.h"

#include <cstddef>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

// Deciphers (or enciphers) in place: RC4 in blocks of 256 bytes, each from the freshly keyed state. The key comes from
// the business-value store; a missing one counts as zero bytes.
class CListCipher {
  public:
    CListCipher();
    ~CListCipher();
    CListCipher(const CListCipher &) = delete;
    CListCipher &operator=(const CListCipher &) = delete;

    // Whole blocks, but for the last call.
    void Apply(char *pBytes, size_t nBytes) const;

  private:
    RC4_STATE m_keyed = {};
};

// The same over a whole buffer. A null buffer is logged.
void ParseMemToChar(char *buffer, size_t size);

// One list's file, read and deciphered piece by piece. Logs in the name of the agent's DeleteCacheRecordsByFileMD5.
class CUpdateListFile {
  public:
    // isRunning is asked before each piece; the text is broken off when it says no.
    explicit CUpdateListFile(std::function<bool()> isRunning) : m_isRunning(std::move(isRunning)) {}
    CUpdateListFile(const CUpdateListFile &) = delete;
    CUpdateListFile &operator=(const CUpdateListFile &) = delete;

    // Opens it and reads the version line. pszPath: expanded, or with its "@". TARN_OK; TARN_NOT_CACHED: cannot be
    // opened; TARN_E_FAIL (no status, empty or above 4 GiB), TARN_E_OUTOFMEMORY, TARN_E_INVALIDARG (no version line),
    // TARN_E_ABORT (broken off).
    [[nodiscard]] uint32_t Open(const char *pszPath);
    [[nodiscard]] CListText &Digests() { return m_text; } // behind the version line

  private:
    struct _FileClose {
        void operator()(std::FILE *pFile) const { (void)std::fclose(pFile); }
    };

    uint32_t Measure(const char *pszPath);
    std::optional<std::string_view> NextPiece();

    const std::function<bool()> m_isRunning;
    std::unique_ptr<std::FILE, _FileClose> m_pFile;
    uint64_t m_ullLeft = 0; // bytes
    std::unique_ptr<char[]> m_pPiece;
    std::optional<CListCipher> m_cipher;
    CListText m_text = CListText([this] { return NextPiece(); });
};

// A whole line of 32 hexadecimal digits becomes a digest; false for any other text.
[[nodiscard]] bool ParseDigest(const char (&szDigest)[kDigestTextSize], CacheMD5 &md5);

// Adds digests until there are nMost, or no more. False: the text was broken off.
[[nodiscard]] bool ReadDigests(CListText &text, size_t nMost, std::vector<CacheMD5> &vecDigests);

#endif
