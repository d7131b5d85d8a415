#include "agent/update_list.h"

#include "formats/business_values.h"
#include "platform/nubbase.h"
#include "util/log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr char kFunction[] = "DeleteCacheRecordsByFileMD5";
constexpr int kKeyLength = static_cast<int>(kKeySize);

constexpr size_t kPieceSize = 65536; // of the file, in whole blocks of the cipher

// Like fopen "rb", but a pipe in the list's place cannot hold the thread up. Null: it cannot be opened.
std::FILE *OpenForReading(const char *pszPath) {
    int fd = open(pszPath, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0 && errno == EWOULDBLOCK) { // a file server holds a lease on it and gives it up soon
        fd = open(pszPath, O_RDONLY | O_CLOEXEC);
    }
    if (fd < 0) {
        return nullptr;
    }
    std::FILE *const pFile = fdopen(fd, "rb");
    if (pFile == nullptr) {
        (void)close(fd);
    }
    return pFile;
}

} // namespace

CListCipher::CListCipher() {
    unsigned char abKey[kKeyLength + 1] = {};
    (void)get_business_value(kKeySection, kKeyName, 0, 0, abKey, kKeyLength); // without a key the text is no list
    RC4_set_key(&m_keyed, kKeyLength, abKey);
    explicit_bzero(abKey, sizeof abKey);
}

CListCipher::~CListCipher() {
    explicit_bzero(&m_keyed, sizeof m_keyed);
}

void CListCipher::Apply(char *pBytes, size_t nBytes) const {
    CipherUpdateList(pBytes, nBytes, [this](unsigned char *pBlock, size_t nBlock) {
        RC4_STATE workingState = m_keyed;
        RC4_crypt(&workingState, nBlock, pBlock, pBlock);
        explicit_bzero(&workingState, sizeof workingState);
    });
}

void ParseMemToChar(char *buffer, size_t size) {
    if (buffer == nullptr) {
        TARN_LOG_SEVERE("[%s]arg pBuffer is null");
        return;
    }
    CListCipher().Apply(buffer, size);
}

bool ParseDigest(const char (&szDigest)[kDigestTextSize], CacheMD5 &md5) {
    // Text that is not hexadecimal would turn into 16 zero bytes and withdraw records that nobody named.
    if (!IsMD5Text(szDigest)) {
        return false;
    }
    (void)MD5_StrResultConvert(szDigest, &md5);
    return true;
}

bool ReadDigests(CListText &text, size_t nMost, std::vector<CacheMD5> &vecDigests) {
    char szDigest[kDigestTextSize] = {};
    while (vecDigests.size() < nMost && text.NextDigest(szDigest) && !text.IsBrokenOff()) {
        TARN_LOG_INFO("[%s]will clean cache md5: %s", szDigest);
        if (CacheMD5 md5 = {}; ParseDigest(szDigest, md5)) {
            vecDigests.push_back(md5);
        }
    }
    return !text.IsBrokenOff();
}

// The file's size and memory for a piece of it. Codes as Open.
uint32_t CUpdateListFile::Measure(const char *pszPath) {
    struct stat status = {};
    if (stat(pszPath, &status) != 0) {
        TARN_LOG_AS(ELogLevel::Error, kFunction, "[%s]_stat(szFilePath, &info) %s failed with hr = 0x%08x", pszPath,
                    TARN_E_FAIL);
        return TARN_E_FAIL;
    }
    if (status.st_size <= 0 || static_cast<uint64_t>(status.st_size) > kMaxUpdateListSize) {
        return TARN_E_FAIL;
    }
    m_ullLeft = static_cast<uint64_t>(status.st_size);
    m_pPiece.reset(new (std::nothrow) char[kPieceSize]);
    if (m_pPiece == nullptr) {
        TARN_LOG_AS(ELogLevel::Error, kFunction, "[%s]GetFileSize() %s failed with hr = 0x%08x", pszPath,
                    TARN_E_OUTOFMEMORY);
        return TARN_E_OUTOFMEMORY;
    }
    return TARN_OK;
}

std::optional<std::string_view> CUpdateListFile::NextPiece() {
    if (!m_isRunning()) {
        return std::nullopt;
    }
    const auto nPiece = static_cast<size_t>(std::min<uint64_t>(m_ullLeft, kPieceSize));
    m_ullLeft -= nPiece;
    // What cannot be read counts as zeros and deciphers to no digest.
    const size_t nRead = std::fread(m_pPiece.get(), 1, nPiece, m_pFile.get());
    std::memset(m_pPiece.get() + nRead, 0, nPiece - nRead);
    m_cipher->Apply(m_pPiece.get(), nPiece);
    return std::string_view(m_pPiece.get(), nPiece);
}

uint32_t CUpdateListFile::Open(const char *pszPath) {
    char szPath[TARN_PATH_SIZE] = {};
    dirutils_path_transform(pszPath, szPath, sizeof szPath);
    m_pFile.reset(OpenForReading(szPath));
    if (m_pFile == nullptr) {
        TARN_LOG_AS(ELogLevel::Error, kFunction, "[%s]fopen %s failed", szPath);
        return TARN_NOT_CACHED;
    }
    if (const uint32_t ulResult = Measure(szPath); ulResult != TARN_OK) {
        return ulResult;
    }
    m_cipher.emplace();
    char szVersionId[kVersionIdSize] = {};
    const bool bVersion = m_text.ReadVersion(szVersionId);
    if (m_text.IsBrokenOff()) {
        return TARN_E_ABORT;
    }
    if (!bVersion) {
        TARN_LOG_AS(ELogLevel::Error, kFunction, "[%s]ParseToGetVersionID() failed");
        return TARN_E_INVALIDARG;
    }
    TARN_LOG_DEBUG_AS(kFunction, "[%s]Open file %s and get VersionID = %s", szPath, szVersionId);
    return TARN_OK;
}
