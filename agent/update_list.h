// update_list.h - the text of the update-cache file: deciphering and parsing, without files or database.
//
// Deciphered text: a version line "NAME:VERSION\n", then one digest a line, 32 hexadecimal digits; empty and shorter
// lines are skipped, longer ones cut, and a NUL ends it.
#ifndef TARN_AGENT_UPDATE_LIST_H
#define TARN_AGENT_UPDATE_LIST_H

#include "util/cache_record.h"

#include <cstddef>

constexpr size_t kVersionIdSize = 100; // bytes with the NUL; a longer ID is cut
constexpr size_t kDigestTextSize = 33; // 32 hexadecimal digits and a NUL

// Deciphers (or enciphers) the buffer in place: RC4 in blocks of 256 bytes, each from the freshly keyed state. The key
// comes from the business-value store; a missing one counts as zero bytes. A null buffer is logged.
void ParseMemToChar(char *buffer, size_t size);

// Splits off the version line: copies its ID into versionId and returns the text behind it; null without such a line.
char *SplitVersionLine(char *text, char (&versionId)[kVersionIdSize]);

// Walks over the digest lines of a text, cutting it up in place.
class CDigestLines {
  public:
    explicit CDigestLines(char *text) : m_pszNext(text) {}
    // Copies the next non-empty line's first 32 characters; false at the end.
    bool Next(char (&digest)[kDigestTextSize]);

  private:
    char *m_pszNext; // null once strtok_r keeps the place
    char *m_pszPlace = nullptr;
};

// A whole line of 32 hexadecimal digits becomes a digest; false for any other text.
bool ParseDigest(const char (&digest)[kDigestTextSize], CacheMD5 &md5);

#endif
