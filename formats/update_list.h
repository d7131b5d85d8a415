// update_list.h - the update-cache file, in which an updater lists the digests whose verdicts it withdraws.
//
// Deciphered text: a version line "NAME:VERSION\n", then one digest a line, 32 hexadecimal digits; empty and shorter
// lines, and lines that are not hexadecimal, are skipped, longer ones cut, and a NUL ends it.
#ifndef TARN_FORMATS_UPDATE_LIST_H
#define TARN_FORMATS_UPDATE_LIST_H

#include "formats/md5_text.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <utility>

constexpr uint64_t kMaxUpdateListSize = 4294967295; // bytes; a 32-bit size
constexpr size_t kVersionIdSize = 100;              // bytes with the NUL; a longer ID is cut
constexpr size_t kDigestTextSize = kMD5Digits + 1;  // with the NUL

// Enciphers or deciphers a whole list in place: calls cipherBlock for each block of 256 bytes (the last may be shorter)
// to combine it with the beginning of the key's RC4 stream.
void CipherUpdateList(char *pList, size_t nSize,
                      const std::function<void(unsigned char *pBlock, size_t nBytes)> &cipherBlock);

// Reads the text of a list, which may come in pieces.
class CListText {
  public:
    // Gives the next piece, which stays until the next call. Empty: there is no more. None: it was broken off.
    using Source = std::function<std::optional<std::string_view>()>;

    explicit CListText(Source source) : m_source(std::move(source)) {}
    explicit CListText(std::string_view text) : m_source([] { return std::string_view(); }), m_rest(text) {}

    // Reads the first line. False when it is no version line.
    [[nodiscard]] bool ReadVersion(char (&szVersionId)[kVersionIdSize]);
    // Copies the next non-empty line's first 32 characters; false at the end.
    [[nodiscard]] bool NextDigest(char (&szDigest)[kDigestTextSize]);
    // What was read last may then be cut.
    [[nodiscard]] bool IsBrokenOff() const { return m_bBrokenOff; }
    // What is left of the present piece.
    [[nodiscard]] std::string_view Rest() const { return m_rest; }

  private:
    int Next(); // a character, or -1

    Source m_source;
    std::string_view m_rest;
    bool m_bEnd = false;
    bool m_bBrokenOff = false;
};

#endif
