#include "platform/tarncore.h"

#include "formats/business_values.h"
#include "formats/installation.h"
#include "platform/bundled/log_text.h"
#include "platform/nubbase.h"
#include "support/call_guard.h"
#include "support/hex.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <strings.h>
#include <vector>

namespace {

constexpr char kSource[] = "tarncore";
constexpr char kFunction[] = "get_business_value";

// Decoded secret bytes, wiped when they go.
class CSecretBytes {
  public:
    explicit CSecretBytes(size_t nSize) : m_vecBytes(nSize) {}
    ~CSecretBytes() { explicit_bzero(m_vecBytes.data(), m_vecBytes.size()); }
    CSecretBytes(const CSecretBytes &) = delete;
    CSecretBytes &operator=(const CSecretBytes &) = delete;
    uint8_t *Data() noexcept { return m_vecBytes.data(); }

  private:
    std::vector<uint8_t> m_vecBytes;
};

// Returns the bytes copied, or -1 when text is not hexadecimal.
int CopyDecoded(std::string_view text, unsigned char *out, int outLen) {
    if (text.empty()) {
        return -1;
    }
    CSecretBytes bytes(text.size() / 2); // not the caller's buffer, which may be shorter
    if (!DecodeHex(text, bytes.Data())) {
        return -1;
    }
    const size_t nDecoded = text.size() / 2;
    // A longer value is cut and not refused: the caller says how many bytes it wants.
    const int nCopied = static_cast<int>(std::min(nDecoded, static_cast<size_t>(outLen)));
    std::memcpy(out, bytes.Data(), static_cast<size_t>(nCopied));
    return nCopied;
}

int ReadValue(const char *section, const char *name, unsigned char *out, int outLen) {
    char szPath[PATH_MAX];
    if (dirutils_path_transform(kBusinessValuesPath, szPath, sizeof szPath) == 0) {
        error_output(kLevelError, kSource, __LINE__, "[%s]path of %s is too long", kFunction, kBusinessValuesPath);
        return -1;
    }
    std::string strText;
    const _FileCheck check = LoadKeyFile(szPath, strText);
    if (!check.IsGood()) {
        error_output(kLevelError, kSource, __LINE__, "[%s]%s %s: %s", kFunction, szPath,
                     check.IsRefused() ? "is refused" : "cannot be read", check.Text());
        return -1;
    }
    const std::optional<std::string_view> value = FindBusinessValue(strText, section, name);
    if (!value.has_value()) {
        error_output(kLevelError, kSource, __LINE__, "[%s]no value %s in section %s of %s", kFunction, name, section,
                     szPath);
        return -1;
    }
    const int nCopied = CopyDecoded(*value, out, outLen);
    if (nCopied < 0) {
        error_output(kLevelError, kSource, __LINE__, "[%s]value %s in section %s of %s is not hexadecimal", kFunction,
                     name, section, szPath);
    }
    return nCopied;
}

} // namespace

int get_business_value(const char *section, const char *name, int /*reserved0*/, int /*reserved1*/, unsigned char *out,
                       int outLen) {
    if (section == nullptr || name == nullptr || out == nullptr || outLen <= 0) {
        return -1;
    }
    const CCancelGuard noCancel;
    try {
        return ReadValue(section, name, out, outLen);
    } catch (...) {
        error_output(kLevelError, kSource, __LINE__, "[%s]out of memory", kFunction);
        return -1;
    }
}
