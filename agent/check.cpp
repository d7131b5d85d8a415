// The check of the database, on a caller's thread; each question runs under the table lock for reading. Changes
// nothing.
#include "agent/dbagent.h"

#include "util/log.h"

#include <sqlite3.h>

namespace {

constexpr char kLogSource[] = "dbagent";

// Questions whose every row is a finding. SQLite's own check says "ok" when it has none.
struct _Question {
    const char *pszSQL;
    const char *pszFinding; // in front of the row's text
};

constexpr _Question kQuestions[] = {
    {"pragma integrity_check;", ""},
    {"select name from sqlite_master where name not in ('CT', 'CT_MD5', 'VDT', 'VST', 'CIT') and name not like "
     "'sqlite@_%' "
     "escape '@';",
     "not one of the cache's own tables: "},
    {"select count(*) from CT where FPH < 0 or FPH >= 1 << 48 having count(*) > 0;",
     "records whose key is no path hash: "},
    {"select count(*) from CT where FTV >> 48 >= 0 and FTV >> 48 not in (select VID from VDT) having count(*) > 0;",
     "records whose virus description is missing: "},
};

// False when the question cannot be asked to its end.
bool Ask(sqlite3 *pDB, const _Question &question, std::vector<std::string> &vecFindings) {
    CStatement answer(pDB, question.pszSQL);
    while (answer.Step() == SQLITE_ROW) {
        if (const std::string strText(answer.Text(0)); strText != "ok") {
            vecFindings.push_back(question.pszFinding + strText);
        }
    }
    return answer.Result() == SQLITE_DONE;
}

} // namespace

// The findings are collected first: no lock may be held while the host's function runs.
uint32_t CDataBaseAgent::CheckSoundness(void (*onFinding)(const char *, void *), void *context) {
    std::vector<std::string> vecFindings;
    for (const _Question &question : kQuestions) {
        const CReadLock lock(m_connection.m_tableLock);
        if (!Ask(m_connection.Handle(), question, vecFindings)) {
            TARN_LOG_ERROR("[%s][cache] the database cannot be checked: %s", question.pszSQL);
            vecFindings.emplace_back("cannot be checked to the end");
        }
    }
    if (!HasExpectedTables()) {
        vecFindings.emplace_back("a table is missing or has another schema; the next start makes it anew, empty");
    }
    for (const std::string &strFinding : vecFindings) {
        if (onFinding != nullptr) {
            onFinding(strFinding.c_str(), context);
        }
    }
    return vecFindings.empty() ? TARN_OK : TARN_E_FAIL;
}

// The tables' own check compares the stored schema with what the next start expects.
bool CDataBaseAgent::HasExpectedTables() {
    const CReadLock lock(m_connection.m_tableLock);
    return m_pCacheTable->CheckTableIntegrity() == 0 && m_pVirusTable->CheckTableIntegrity() == 0 &&
           m_pVersionTable->CheckTableIntegrity() == 0;
}
