// protection.h - what the key "protect" adds to the agent: codes that bind records to their files, and withdrawals that
// stay in force.
#ifndef TARN_AGENT_PROTECTION_H
#define TARN_AGENT_PROTECTION_H

#include "agent/identity.h"
#include "agent/withdrawals.h"

#include <chrono>

class CProtection {
  public:
    CIdentity m_identity;
    CWithdrawals m_withdrawals;

    // The writer thread's alone.
    std::chrono::steady_clock::time_point m_nextTry; // of withdrawals that could not be carried out
    int64_t m_liSweptTo = INT64_MIN;                 // how far codes without a record were looked for
    bool m_bSwept = false;
    int m_nFailedSweeps = 0;

    explicit CProtection(sqlite3 *pDB) : m_identity(pDB) {}

    // Nothing may be answered that is withdrawn, and nothing about another file. Table lock for reading.
    [[nodiscard]] bool Allows(const _FileIdentity &file, const _CacheRecord &record, const char *pszDescription) const {
        return !m_withdrawals.Covers(record) && m_identity.Confirms(file, record, pszDescription);
    }
};

#endif
