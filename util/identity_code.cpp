#include "util/identity_code.h"

#include "support/whole_file.h"

#include <cerrno>
#include <cstring>
#include <sodium.h>
#include <unistd.h>

namespace {

constexpr uint64_t kVerdictMask = 0x0000FFFFFFFFFFFF; // flag word and engine; the description counts by its text
constexpr mode_t kOthers = S_IRWXG | S_IRWXO;

// What is hashed in front of the path and the description. The lengths keep the two apart.
struct _IdentityBlock {
    uint64_t ullPathLength;
    uint64_t ullDescriptionLength;
    uint64_t ullFileSystem;
    uint64_t ullInode;
    int64_t liSize;         // bytes
    int64_t liChangeTime;   // seconds
    int64_t liChangeTimeNs; // and nanoseconds
    uint64_t ullVerdict;
    int64_t liResultState;
    int64_t liHighMD5;
    int64_t liLowMD5;
};
static_assert(sizeof(_IdentityBlock) == 88, "hashed as it lies in memory; codes are stored");
static_assert(sizeof(IdentityCode) == crypto_shorthash_siphashx24_BYTES);
constexpr char kCodeKeyUse[] = "identity code"; // what the key in the file is used for

// 0, ENOENT, or another errno value: EPERM stands for a file that others may have read or written.
int ReadKey(const std::string &strPath, std::string &strKey) {
    const CDescriptor file = OpenForReading(AT_FDCWD, strPath.c_str(), ELastLink::Refuse);
    struct stat status = {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        return errno;
    }
    if ((status.st_mode & kOthers) != 0 || (status.st_uid != geteuid() && status.st_uid != 0) || status.st_nlink != 1) {
        return EPERM;
    }
    return LoadWholeFile(file, kIdentityKeySize, strKey);
}

} // namespace

CIdentityKey::~CIdentityKey() {
    sodium_memzero(m_abCodeKey.data(), m_abCodeKey.size());
}

bool CIdentityKey::Load(const std::string &strPath, bool bMake, std::string &strError) {
    if (sodium_init() < 0) {
        strError = "no random numbers";
        return false;
    }
    std::string strKey;
    int iError = ReadKey(strPath, strKey);
    const bool bUnusable = iError == ENOENT || iError == EPERM || iError == ELOOP || iError == EFBIG ||
                           (iError == 0 && strKey.size() != kIdentityKeySize);
    if (bUnusable && bMake) {
        strKey.resize(kIdentityKeySize);
        randombytes_buf(strKey.data(), strKey.size());
        (void)unlink(strPath.c_str()); // a link or somebody else's file is replaced, never written through
        iError = SaveWholeFile(strPath.c_str(), strKey, S_IRUSR | S_IWUSR, EExisting::Replace);
    }
    if (iError == 0 && strKey.size() != kIdentityKeySize) {
        iError = EBADMSG;
    }
    if (iError != 0) {
        strError = strPath + ": " + std::strerror(iError);
        return false;
    }
    (void)crypto_generichash(m_abCodeKey.data(), m_abCodeKey.size(), // cannot fail with these sizes
                             reinterpret_cast<const unsigned char *>(kCodeKeyUse), sizeof kCodeKeyUse - 1,
                             reinterpret_cast<const unsigned char *>(strKey.data()), strKey.size());
    sodium_memzero(strKey.data(), strKey.size());
    return true;
}

IdentityCode CIdentityKey::CodeOf(const _FileIdentity &file, const _CacheRecord &record,
                                  std::string_view description) const {
    const std::string_view path = file.pszPath;
    const _IdentityBlock block = {path.size(),
                                  description.size(),
                                  file.ullFileSystem,
                                  file.status.st_ino,
                                  file.status.st_size,
                                  file.status.st_ctim.tv_sec,
                                  file.status.st_ctim.tv_nsec,
                                  static_cast<uint64_t>(record.liTreatVirus) & kVerdictMask,
                                  record.lResultState,
                                  record.liHighMD5,
                                  record.liLowMD5};
    std::string strText;
    strText.reserve(sizeof block + path.size() + description.size());
    strText.append(reinterpret_cast<const char *>(&block), sizeof block).append(path).append(description);
    IdentityCode code = {};
    (void)crypto_shorthash_siphashx24(code.data(), reinterpret_cast<const unsigned char *>(strText.data()),
                                      strText.size(), m_abCodeKey.data()); // cannot fail
    return code;
}
