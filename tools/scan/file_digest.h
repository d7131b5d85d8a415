// The MD5 of a file's content.
#ifndef TARN_TOOLS_SCAN_FILE_DIGEST_H
#define TARN_TOOLS_SCAN_FILE_DIGEST_H

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

// Keeps its buffer from file to file; for one thread.
class CFileDigest {
  public:
    CFileDigest();

    // The digest of the first ullSize bytes from where the descriptor stands. A file that shrinks meanwhile ends it
    // early: its status tells afterwards. False with errno when the file cannot be read, and once bStop is set.
    bool Read(int fd, uint64_t ullSize, const std::atomic<bool> &bStop, std::string &strMD5);

  private:
    std::vector<uint8_t> m_vecBuffer;
};

#endif
