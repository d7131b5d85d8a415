#include "platform/bundled/nubbase_ini_text.h"

#include <algorithm>
#include <cctype>
#include <set>

namespace {

// Stands before a hidden line. The control character keeps it apart from the comments that people write.
constexpr std::string_view kHidden = ";\x01";
constexpr std::string_view kSignature = "\xef\xbb\xbf";
constexpr auto kNone = std::string_view::npos;

std::string_view Trim(std::string_view text) {
    const size_t nFirst = text.find_first_not_of(IniText::kBlanks);
    return nFirst == kNone ? std::string_view()
                           : text.substr(nFirst, text.find_last_not_of(IniText::kBlanks) + 1 - nFirst);
}

bool IsComment(std::string_view line) {
    const std::string_view text = Trim(line);
    return !text.empty() && (text.front() == ';' || text.front() == '#');
}

// Calls visit with each line, without its line end.
template <typename Visit> void ForEachLine(std::string_view text, Visit visit) {
    while (!text.empty()) {
        const size_t nEnd = std::min(text.find('\n'), text.size());
        visit(text.substr(0, nEnd));
        text.remove_prefix(std::min(nEnd + 1, text.size()));
    }
}

std::string_view SignatureOf(std::string_view text) {
    return text.substr(0, text.starts_with(kSignature) ? kSignature.size() : 0);
}

std::string WithPlainLineEnds(std::string_view raw) {
    std::string strText;
    strText.reserve(raw.size());
    for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] != '\r' || i + 1 == raw.size() || raw[i + 1] != '\n') {
            strText += raw[i] == '\0' || raw[i] == '\r' ? '\n' : raw[i];
        }
    }
    return strText;
}

class CPreparation {
  public:
    void AddLine(std::string_view line) {
        const std::string_view text = Trim(line);
        if (text.empty() || (IsComment(text) && !text.starts_with(kHidden))) {
            AddComment(line);
        } else if (text.front() == '[' && text.find(']') != kNone) {
            AddSection(text);
        } else if (text.front() != '[' && text.front() != '=' && text.find('=') != kNone && !IsComment(text)) {
            m_strText.append(m_strComments).append(line).append("\n");
            m_strComments.clear();
        } else {
            AddComment(std::string(kHidden).append(line));
        }
    }

    std::string Take() { return std::move(m_strText.append(m_strComments)); }

  private:
    void AddComment(std::string_view line) { m_strComments.append(line).append("\n"); }

    void AddSection(std::string_view text) {
        const size_t nEnd = text.find(']');
        std::string strName(Trim(text.substr(1, nEnd - 1)));
        std::transform(strName.begin(), strName.end(), strName.begin(),
                       [](unsigned char ch) { return static_cast<char>(std::tolower(ch)); });
        // The parser merges sections of one name and drops the comments above all but the first.
        if (m_setSections.insert(std::move(strName)).second) {
            m_strText.append(m_strComments);
            m_strComments.clear();
        }
        m_strText.append(text.substr(0, nEnd + 1)).append("\n");
        if (const std::string_view rest = Trim(text.substr(nEnd + 1)); !rest.empty()) {
            AddComment(std::string(IsComment(rest) ? "" : "; ").append(rest));
        }
    }

    std::string m_strText;
    std::string m_strComments; // since the last entry or section: comments, hidden lines and blank ones
    std::set<std::string> m_setSections = {""}; // in lower case; the part above the first section has no name
};

} // namespace

std::string IniText::Prepare(std::string_view raw) {
    const std::string strText = WithPlainLineEnds(raw);
    const std::string_view text(strText);
    const std::string_view signature = SignatureOf(text);
    CPreparation preparation;
    ForEachLine(text.substr(signature.size()), [&](std::string_view line) { preparation.AddLine(line); });
    return std::string(signature).append(preparation.Take());
}

std::string IniText::Restore(std::string_view prepared) {
    std::string strText(SignatureOf(prepared));
    strText.reserve(prepared.size());
    ForEachLine(prepared.substr(strText.size()), [&](std::string_view line) {
        line.remove_prefix(line.starts_with(kHidden) ? kHidden.size() : 0);
        strText.append(line).append("\n");
    });
    return strText;
}

size_t IniText::BodyLength(std::string_view prepared) {
    size_t nEnd = prepared.size();
    while (nEnd > 0) {
        const size_t nStart = nEnd < 2 ? 0 : prepared.rfind('\n', nEnd - 2) + 1; // npos + 1 is 0
        const std::string_view line = prepared.substr(nStart, nEnd - nStart);
        if (!Trim(line).empty() && !IsComment(line)) {
            break;
        }
        nEnd = nStart;
    }
    return nEnd;
}

bool IniText::UsesSpaces(std::string_view prepared) {
    bool bFound = false;
    bool bSpaces = false;
    ForEachLine(prepared, [&](std::string_view line) {
        const size_t nEquals = line.find('=');
        if (!bFound && nEquals != kNone && nEquals > 0 && !IsComment(line) && Trim(line).front() != '[') {
            bFound = true;
            bSpaces = line[nEquals - 1] == ' ';
        }
    });
    return bSpaces;
}
