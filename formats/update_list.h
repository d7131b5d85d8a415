// update_list.h - the update-cache file, in which an updater lists the digests whose verdicts it withdraws.
//
// Deciphered text: a version line "NAME:VERSION\n", then one digest a line, 32 hexadecimal digits; empty and shorter
// lines, and lines that are not hexadecimal, are skipped, longer ones cut, and a NUL ends it.
#ifndef TARN_FORMATS_UPDATE_LIST_H
#define TARN_FORMATS_UPDATE_LIST_H

#include "formats/md5_text.h"

#include <cstdint>
#include <functional>

constexpr uint64_t kMaxUpdateListSize = 4294967295; // bytes; a 32-bit size
constexpr size_t kVersionIdSize = 100;              // bytes with the NUL; a longer ID is cut
constexpr size_t kDigestTextSize = kMD5Digits + 1;  // with the NUL

// Enciphers or deciphers a whole list in place: calls cipherBlock for each block of 256 bytes (the last may be shorter)
// to combine it with the beginning of the key's RC4 stream.
void CipherUpdateList(char *pList, size_t nSize,
                      const std::function<void(unsigned char *pBlock, size_t nBytes)> &cipherBlock);

// Splits off the version line: copies its ID into szVersionId and returns the text behind it; null without such a line.
[[nodiscard]] char *SplitVersionLine(char *pszText, char (&szVersionId)[kVersionIdSize]);

// Walks over the digest lines of a text, which it leaves alone.
class CDigestLines {
  public:
    explicit CDigestLines(const char *pszText) : m_pszNext(pszText) {}
    // Copies the next non-empty line's first 32 characters; false at the end.
    bool Next(char (&szDigest)[kDigestTextSize]);

  private:
    const char *m_pszNext;
};

#endif
