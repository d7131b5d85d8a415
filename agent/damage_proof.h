// damage_proof.h - is a database file damaged? Two witnesses have to say so before anything is done about it.
#ifndef TARN_AGENT_DAMAGE_PROOF_H
#define TARN_AGENT_DAMAGE_PROOF_H

#include <string>

struct sqlite3;

// Unknown: it could not be found out, for lack of memory, of descriptors, of permission, by a read error, by a lock.
enum class ESoundness { Unknown, Sound, Damaged };

// What one connection says: pszPragma is "quick_check" or "integrity_check". strFinding: the first damage, or why it is
// not known.
[[nodiscard]] ESoundness AskForDamage(sqlite3 *pDB, const char *pszPragma, std::string &strFinding);

// Both witnesses: a fresh connection, which also rolls back what a crash has left, and then the file as we read it
// ourselves. No connection of this process may have the file open. Damaged only when both find damage and no read has
// failed. Reads the whole file: seconds for a large one.
[[nodiscard]] ESoundness ProveDamage(const std::string &strPath, std::string &strFinding);

#endif
