#include "tools/scan/file_digest.h"

#include "support/hex.h"

#include <nettle/md5.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr size_t kReadSize = 256u << 10; // bytes

} // namespace

CFileDigest::CFileDigest() : m_vecBuffer(kReadSize) {}

bool CFileDigest::Read(int fd, uint64_t ullSize, const std::atomic<bool> &bStop, std::string &strMD5) {
    md5_ctx hash = {};
    md5_init(&hash);
    (void)posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    for (uint64_t ullDone = 0; ullDone < ullSize;) {
        if (bStop.load(std::memory_order_relaxed)) {
            return false;
        }
        const ssize_t nRead = read(fd, m_vecBuffer.data(), std::min<uint64_t>(m_vecBuffer.size(), ullSize - ullDone));
        if (nRead < 0 && errno == EINTR) {
            continue;
        }
        if (nRead < 0) {
            return false;
        }
        if (nRead == 0) {
            break;
        }
        md5_update(&hash, static_cast<size_t>(nRead), m_vecBuffer.data());
        ullDone += static_cast<uint64_t>(nRead);
    }
    std::string strBytes(MD5_DIGEST_SIZE, '\0');
    md5_digest(&hash, strBytes.size(), reinterpret_cast<uint8_t *>(strBytes.data()));
    strMD5 = HexText(strBytes);
    return true;
}
