#include "agent/update_list.h"

#include "formats/business_values.h"
#include "platform/nubbase.h"
#include "platform/tarncore.h"
#include "util/log.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr char kFunction[] = "DeleteCacheRecordsByFileMD5";
constexpr int kKeyLength = static_cast<int>(kKeySize);

struct _FileClose {
    void operator()(std::FILE *pFile) const { (void)std::fclose(pFile); }
};

// Like fopen "rb", but a pipe in the list's place cannot hold the thread up.
std::unique_ptr<std::FILE, _FileClose> OpenForReading(const char *pszPath) {
    int fd = open(pszPath, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0 && errno == EWOULDBLOCK) { // a file server holds a lease on it and gives it up soon
        fd = open(pszPath, O_RDONLY | O_CLOEXEC);
    }
    if (fd < 0) {
        return nullptr;
    }
    std::unique_ptr<std::FILE, _FileClose> pFile(fdopen(fd, "rb"));
    if (pFile == nullptr) {
        (void)close(fd);
    }
    return pFile;
}

} // namespace

void ParseMemToChar(char *buffer, size_t size) {
    if (buffer == nullptr) {
        TARN_LOG_SEVERE("[%s]arg pBuffer is null");
        return;
    }
    unsigned char abKey[kKeyLength + 1] = {};
    (void)get_business_value(kKeySection, kKeyName, 0, 0, abKey, kKeyLength); // without a key the text is no list
    RC4_STATE keyedState = {};
    RC4_set_key(&keyedState, kKeyLength, abKey);
    CipherUpdateList(buffer, size, [&keyedState](unsigned char *pBlock, size_t nBytes) {
        RC4_STATE workingState = keyedState;
        RC4_crypt(&workingState, nBytes, pBlock, pBlock);
        explicit_bzero(&workingState, sizeof workingState);
    });
    explicit_bzero(abKey, sizeof abKey);
    explicit_bzero(&keyedState, sizeof keyedState);
}

bool ParseDigest(const char (&szDigest)[kDigestTextSize], CacheMD5 &md5) {
    // Text that is not hexadecimal would turn into 16 zero bytes and withdraw records that nobody named.
    if (!IsMD5Text(szDigest)) {
        return false;
    }
    (void)MD5_StrResultConvert(szDigest, &md5);
    return true;
}

uint32_t CUpdateListText::Read(const char *pszPath) {
    char szPath[TARN_PATH_SIZE] = {};
    dirutils_path_transform(pszPath, szPath, sizeof szPath);
    const auto pFile = OpenForReading(szPath);
    if (pFile == nullptr) {
        TARN_LOG_AS(ELogLevel::Error, kFunction, "[%s]fopen %s failed", szPath);
        return TARN_NOT_CACHED;
    }
    struct stat status = {};
    if (stat(szPath, &status) != 0) {
        TARN_LOG_AS(ELogLevel::Error, kFunction, "[%s]_stat(szFilePath, &info) %s failed with hr = 0x%08x", szPath,
                    TARN_E_FAIL);
        return TARN_E_FAIL;
    }
    if (status.st_size <= 0 || static_cast<uint64_t>(status.st_size) > kMaxUpdateListSize) {
        return TARN_E_FAIL;
    }
    const auto nSize = static_cast<size_t>(status.st_size);
    m_pText.reset(static_cast<char *>(std::calloc(nSize + 1, 1)));
    if (m_pText == nullptr) {
        TARN_LOG_AS(ELogLevel::Error, kFunction, "[%s]GetFileSize() %s failed with hr = 0x%08x", szPath,
                    TARN_E_OUTOFMEMORY);
        return TARN_E_OUTOFMEMORY;
    }
    // What a short read leaves out stays zero and deciphers to no digest.
    [[maybe_unused]] const size_t nRead = std::fread(m_pText.get(), 1, nSize, pFile.get());
    ParseMemToChar(m_pText.get(), nSize);
    char szVersionId[kVersionIdSize] = {};
    m_pszDigests = SplitVersionLine(m_pText.get(), szVersionId);
    if (m_pszDigests == nullptr) {
        TARN_LOG_AS(ELogLevel::Error, kFunction, "[%s]ParseToGetVersionID() failed");
        return TARN_E_INVALIDARG;
    }
    TARN_LOG_DEBUG_AS(kFunction, "[%s]Open file %s and get VersionID = %s", szPath, szVersionId);
    return TARN_OK;
}
