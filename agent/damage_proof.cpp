#include "agent/damage_proof.h"

#include "agent/checked_vfs.h"
#include "agent/own_reading.h"
#include "tables/statement.h"

#include <sqlite3.h>

namespace {

constexpr char kWholeCheck[] = "integrity_check"; // entries of an index without their row are found by this one alone

// A connection for one question.
class CFreshConnection {
  public:
    explicit CFreshConnection(const std::string &strPath)
        : m_iResult(m_vfs.OpenConnection(strPath, SQLITE_OPEN_READWRITE, &m_pDB)) {
        if (m_iResult == SQLITE_OK) {
            m_iResult = sqlite3_busy_timeout(m_pDB, kBusyTimeoutMs);
        }
    }
    ~CFreshConnection() { (void)sqlite3_close(m_pDB); }
    CFreshConnection(const CFreshConnection &) = delete;
    CFreshConnection &operator=(const CFreshConnection &) = delete;

    [[nodiscard]] ESoundness Ask(std::string &strFinding) const {
        if (m_iResult != SQLITE_OK) {
            strFinding = sqlite3_errstr(m_iResult);
            return ESoundness::Unknown;
        }
        return AskForDamage(m_pDB, kWholeCheck, strFinding);
    }

  private:
    CCheckedVfs m_vfs; // outlives the connection
    sqlite3 *m_pDB = nullptr;
    int m_iResult;
};

} // namespace

ESoundness AskForDamage(sqlite3 *pDB, const char *pszPragma, std::string &strFinding) {
    CStatement check(pDB, ("pragma " + std::string(pszPragma) + "(1);").c_str());
    const int iStep = check.Step();
    if (iStep == SQLITE_ROW) {
        strFinding = check.Text(0);
        if (strFinding != "ok") {
            return ESoundness::Damaged;
        }
        return check.Step() == SQLITE_DONE ? ESoundness::Sound : ESoundness::Unknown;
    }
    strFinding = check.ErrorText();
    return iStep == SQLITE_CORRUPT || iStep == SQLITE_NOTADB ? ESoundness::Damaged : ESoundness::Unknown;
}

ESoundness ProveDamage(const std::string &strPath, std::string &strFinding) {
    if (const ESoundness eFresh = CFreshConnection(strPath).Ask(strFinding); eFresh != ESoundness::Damaged) {
        return eFresh;
    }
    COwnReading reading;
    if (const int iResult = reading.Open(strPath); iResult != SQLITE_OK) {
        strFinding = sqlite3_errstr(iResult);
        return ESoundness::Unknown;
    }
    const ESoundness eOwn = AskForDamage(reading.Handle(), kWholeCheck, strFinding);
    if (reading.HasFailed() || eOwn == ESoundness::Sound) { // the two disagree: a read has failed on the way
        strFinding = "it cannot be read reliably";
        return ESoundness::Unknown;
    }
    return eOwn;
}
