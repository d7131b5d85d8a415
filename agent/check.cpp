// The check of the database, on a caller's thread under the table lock for reading. Reports what is wrong and changes
// nothing.
#include "agent/dbagent.h"

#include "util/log.h"

#include <sqlite3.h>

namespace {

constexpr char kLogSource[] = "dbagent";

class CFindings {
  public:
    CFindings(void (*onFinding)(const char *, void *), void *pContext) : m_onFinding(onFinding), m_pContext(pContext) {}

    void Report(const std::string &strText) {
        ++m_nFindings;
        if (m_onFinding != nullptr) {
            m_onFinding(strText.c_str(), m_pContext);
        }
    }
    [[nodiscard]] bool IsSound() const { return m_nFindings == 0; }

  private:
    void (*m_onFinding)(const char *, void *);
    void *m_pContext;
    size_t m_nFindings = 0;
};

// Questions whose every row is a finding. SQLite's own check says "ok" when it has none.
struct _Question {
    const char *pszSQL;
    const char *pszFinding; // in front of the row's text
};

constexpr _Question kQuestions[] = {
    {"pragma integrity_check;", ""},
    {"select name from sqlite_master where name not in ('CT', 'CT_MD5', 'VDT', 'VST') and name not like 'sqlite@_%' "
     "escape '@';",
     "not one of the cache's own tables: "},
    {"select count(*) from CT where FPH < 0 or FPH >= 1 << 48 having count(*) > 0;",
     "records whose key is no path hash: "},
    {"select count(*) from CT where FTV >> 48 >= 0 and FTV >> 48 not in (select VID from VDT) having count(*) > 0;",
     "records whose virus description is missing: "},
};

// False when the question cannot be asked to its end.
bool Ask(sqlite3 *pDB, const _Question &question, CFindings &findings) {
    CStatement answer(pDB, question.pszSQL);
    while (answer.Step() == SQLITE_ROW) {
        if (const std::string strText(answer.Text(0)); strText != "ok") {
            findings.Report(question.pszFinding + strText);
        }
    }
    return answer.Result() == SQLITE_DONE;
}

} // namespace

uint32_t CDataBaseAgent::CheckSoundness(void (*onFinding)(const char *, void *), void *context) {
    CFindings findings(onFinding, context);
    const CReadLock lock(m_connection.m_tableLock);
    for (const _Question &question : kQuestions) {
        if (!Ask(m_connection.Handle(), question, findings)) {
            TARN_LOG_ERROR("[%s][cache] the database cannot be checked: %s", question.pszSQL);
            findings.Report("cannot be checked to the end");
        }
    }
    // The tables' own check compares the stored schema with what the next start expects.
    if (m_pCacheTable->CheckTableIntegrity() != 0 || m_pVirusTable->CheckTableIntegrity() != 0 ||
        m_pVersionTable->CheckTableIntegrity() != 0) {
        findings.Report("a table is missing or has another schema; the next start makes it anew, empty");
    }
    return findings.IsSound() ? TARN_OK : TARN_E_FAIL;
}
