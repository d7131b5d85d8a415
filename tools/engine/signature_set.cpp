#include "tools/engine/signature_set.h"

#include "support/descriptor.h"
#include "support/hex.h"
#include "tools/text/path_argument.h"
#include "tools/text/text.h"

#include <clamav.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <nettle/sha2.h>
#include <string_view>
#include <vector>

namespace {

// Raised whenever the scan options or the meaning of a stored verdict change, so that older verdicts are dropped.
constexpr std::string_view kScanPolicy = "policy 3";

// The extensions that the engine loads from a folder.
constexpr std::array<std::string_view, 41> kExtensions = {
    "cat", "cbc", "cdb", "cfg", "cld", "crb",  "crtdb", "cud", "cvd",  "db",  "fp",  "ftm",  "gdb", "hdb",
    "hdu", "hsb", "hsu", "hw",  "idb", "ign",  "ign2",  "imp", "info", "ioc", "ldb", "ldu",  "mdb", "mdu",
    "msb", "msu", "ndb", "ndu", "pdb", "pwdb", "rmd",   "sdb", "sfp",  "wdb", "yar", "yara", "zmd"};

bool IsSignatureFile(const std::filesystem::path &path) {
    const std::string strExtension = path.extension().string();
    return !strExtension.empty() && std::find(kExtensions.begin(), kExtensions.end(),
                                              std::string_view(strExtension).substr(1)) != kExtensions.end();
}

// The set's files in a fixed order; a set that is one file has that file.
std::vector<std::string> SignatureFiles(const std::string &strPath) {
    std::error_code error;
    std::vector<std::string> vecFiles;
    if (std::filesystem::is_regular_file(strPath, error)) {
        vecFiles.push_back(strPath);
        return vecFiles;
    }
    auto iterator = std::filesystem::directory_iterator(strPath, error);
    for (; !error && iterator != std::filesystem::directory_iterator(); iterator.increment(error)) {
        std::error_code ignored;
        if (IsSignatureFile(iterator->path()) && iterator->is_regular_file(ignored)) {
            vecFiles.push_back(iterator->path().string());
        }
    }
    std::sort(vecFiles.begin(), vecFiles.end());
    return vecFiles;
}

void UpdateText(sha256_ctx &hash, std::string_view text) {
    std::string strCounted = std::to_string(text.size());
    strCounted += ':';
    strCounted += text;
    strCounted += '\n';
    sha256_update(&hash, strCounted.size(), reinterpret_cast<const uint8_t *>(strCounted.data()));
}

std::string Digest(sha256_ctx &hash) {
    std::string strBytes(SHA256_DIGEST_SIZE, '\0');
    sha256_digest(&hash, strBytes.size(), reinterpret_cast<uint8_t *>(strBytes.data()));
    return HexText(strBytes);
}

bool DigestFile(const std::string &strPath, std::string &strDigest) {
    const CDescriptor file(open(strPath.c_str(), O_RDONLY | O_CLOEXEC));
    std::vector<uint8_t> vecBuffer(1u << 18);
    sha256_ctx hash = {};
    sha256_init(&hash);
    while (file.IsOpen()) {
        const ssize_t nRead = read(file.Get(), vecBuffer.data(), vecBuffer.size());
        if (nRead < 0 && errno == EINTR) {
            continue;
        }
        if (nRead < 0) {
            return false;
        }
        if (nRead == 0) {
            strDigest = Digest(hash);
            return true;
        }
        sha256_update(&hash, static_cast<size_t>(nRead), vecBuffer.data());
    }
    return false;
}

bool Fingerprint(const std::vector<std::string> &vecFiles, std::string &strFingerprint, std::string &strError) {
    sha256_ctx hash = {};
    sha256_init(&hash);
    UpdateText(hash, kScanPolicy);
    UpdateText(hash, cl_retver());
    UpdateText(hash, std::to_string(cl_retflevel()));
    for (const std::string &strFile : vecFiles) {
        std::string strDigest;
        if (!DigestFile(strFile, strDigest)) {
            strError = "cannot read the signatures in " + ErrnoText(strFile, errno);
            return false;
        }
        UpdateText(hash, strFile.substr(strFile.rfind('/') + 1));
        UpdateText(hash, strDigest);
    }
    strFingerprint = Digest(hash);
    return true;
}

} // namespace

bool ChooseSignatureSet(const std::string &strOption, const std::string &strOwnFolder, _SignatureSet &set,
                        std::string &strError) {
    std::vector<std::string> vecCandidates = {cl_retdbdir(), strOwnFolder};
    if (!strOption.empty()) {
        vecCandidates = {AbsolutePath(strOption)};
    }
    for (const std::string &strCandidate : vecCandidates) {
        if (access(strCandidate.c_str(), R_OK) != 0 && errno == EACCES) {
            strError = "cannot read the signatures in " + ErrnoText(strCandidate, EACCES);
            return false; // falling back on a smaller set would hide what is there
        }
        const std::vector<std::string> vecFiles = SignatureFiles(strCandidate);
        if (!vecFiles.empty()) {
            set.strPath = strCandidate;
            set.bTestOnly = strOption.empty() && strCandidate == strOwnFolder;
            return Fingerprint(vecFiles, set.strFingerprint, strError);
        }
    }
    strError = "no signature files in";
    for (const std::string &strCandidate : vecCandidates) {
        strError += ' ';
        strError += EscapeName(strCandidate);
    }
    return false;
}
