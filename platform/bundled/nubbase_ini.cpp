#include "platform/nubbase.h"

#include "platform/bundled/nubbase_ini_text.h"
#include "platform/tarncore.h"
#include "support/call_guard.h"
#include "support/whole_file.h"

#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <string_view>

// Without these two Debian's header expects its own library, and with that ICU.
#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>

#pragma weak error_output

namespace {

constexpr size_t kMaxFileSize = size_t{4} << 20U; // bytes; far above any configuration, far below a mistaken path
constexpr int kMaxPasses = 4;                     // two are usual
constexpr mode_t kNewFileMode = 0600;

// A save keeps neither line breaks nor blanks around a text.
bool IsKept(std::string_view text) {
    constexpr std::string_view kBlanks(IniText::kBlanks);
    return text.find_first_of("\r\n") == kBlanks.npos &&
           (text.empty() || (kBlanks.find(text.front()) == kBlanks.npos && kBlanks.find(text.back()) == kBlanks.npos));
}

bool IsUsableKey(std::string_view key) {
    return !key.empty() && IsKept(key) && key.find('=') == std::string_view::npos &&
           std::string_view(";#[").find(key.front()) == std::string_view::npos;
}

class CIniFile {
  public:
    // Repeated keys are allowed, because other programs' sections may hold lists.
    CIniFile() : m_ini(false, true, false) {}

    [[nodiscard]] bool Parse(std::string_view raw) {
        std::string strText = IniText::Prepare(raw);
        m_ini.SetSpaces(IniText::UsesSpaces(strText));
        const size_t nBody = IniText::BodyLength(strText);
        m_strTail = strText.substr(nBody);
        m_strTail.erase(0, m_strTail.find_first_not_of(IniText::kBlanks));
        m_strTail.erase(m_strTail.find_last_not_of(IniText::kBlanks) + 1);
        strText.resize(nBody);
        return m_ini.LoadData(strText) >= 0;
    }

    [[nodiscard]] const char *Get(const char *section, const char *key) const {
        bool bRepeated = false;
        const char *pszValue = m_ini.GetValue(section, key, nullptr, &bRepeated);
        if (bRepeated) {
            CSimpleIniA::TNamesDepend values;
            m_ini.GetAllValues(section, key, values);
            pszValue = values.back().pItem;
        }
        return pszValue;
    }

    [[nodiscard]] bool Set(const std::string &strSection, const std::string &strKey, const std::string &strValue) {
        return m_ini.SetValue(strSection.c_str(), strKey.c_str(), strValue.c_str(), nullptr, true) >= 0;
    }

    // Reads back what it writes until the text stays the same: the parser may see a comment at the top as a section's
    // at first and as the file's own afterwards, and saving twice has to give the same bytes.
    [[nodiscard]] bool Serialise(std::string &strText) const {
        bool bGood = WriteOnce(strText);
        std::string strBefore;
        for (int iPass = 0; bGood && iPass < kMaxPasses && strText != strBefore; ++iPass) {
            strBefore.swap(strText);
            CIniFile again;
            bGood = again.Parse(strBefore) && again.WriteOnce(strText);
        }
        return bGood;
    }

  private:
    [[nodiscard]] bool WriteOnce(std::string &strText) const {
        strText.clear();
        if (m_ini.Save(strText, m_ini.IsUnicode()) < 0) {
            return false;
        }
        if (!m_strTail.empty()) {
            strText += (strText.empty() ? "" : "\n") + m_strTail + "\n";
        }
        strText = IniText::Restore(strText);
        return true;
    }

    CSimpleIniA m_ini;
    std::string m_strTail; // comments after the last entry, which the parser would drop
};

// The log may be a product's own or not be there at all, in a program that uses this library alone.
void Report(const char *pszPath, const _FileCheck &check) noexcept {
    if (check.IsRefused() && error_output != nullptr) {
        error_output(2, "nubbase", __LINE__, "[ini_file_load]%s is refused: %s", pszPath, check.Text());
    }
}

int Fail(int iError) {
    errno = iError;
    return -1;
}

} // namespace

void *ini_file_load(const char *path) {
    if (path == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    const CCancelGuard noCancel;
    try {
        std::string strText;
        const _FileCheck check = LoadCheckedFile(path, kPublicMode, kMaxFileSize, strText);
        if (!check.IsGood()) {
            Report(path, check);
            errno = check.iError;
            return nullptr;
        }
        auto file = std::make_unique<CIniFile>();
        if (file->Parse(strText)) {
            return file.release();
        }
    } catch (...) { // only memory can be short here; reported below
    }
    errno = ENOMEM;
    return nullptr;
}

const char *ini_file_get(void *ini, const char *section, const char *key) {
    if (ini == nullptr || section == nullptr || key == nullptr) {
        return nullptr;
    }
    try {
        return static_cast<const CIniFile *>(ini)->Get(section, key);
    } catch (...) {
        return nullptr;
    }
}

int ini_file_set(void *ini, const char *section, const char *key, const char *value) {
    if (ini == nullptr || section == nullptr || key == nullptr || value == nullptr || !IsKept(section) ||
        std::string_view(section).find(']') != std::string_view::npos || !IsUsableKey(key) || !IsKept(value)) {
        return Fail(EINVAL);
    }
    try {
        // Copies, because the arguments may be text of this handle that the change frees.
        return static_cast<CIniFile *>(ini)->Set(section, key, value) ? 0 : Fail(ENOMEM);
    } catch (...) {
        return Fail(ENOMEM);
    }
}

int ini_file_save(void *ini, const char *path, int /*flags*/) {
    if (ini == nullptr || path == nullptr) {
        return Fail(EINVAL);
    }
    const CCancelGuard noCancel;
    try {
        std::string strText;
        if (!static_cast<const CIniFile *>(ini)->Serialise(strText)) {
            return Fail(ENOMEM);
        }
        const int iError = SaveWholeFile(path, strText, kNewFileMode, EExisting::Replace);
        return iError == 0 ? 0 : Fail(iError);
    } catch (...) {
        return Fail(ENOMEM);
    }
}

void ini_file_free(void *ini) {
    delete static_cast<CIniFile *>(ini);
}
