// schema_audit.h - does the database hold the cache's own tables and nothing else? Triggers, views and tables of others
// would be obeyed at every write, or would keep a start busy.
#ifndef TARN_AGENT_SCHEMA_AUDIT_H
#define TARN_AGENT_SCHEMA_AUDIT_H

#include <string>

struct sqlite3;

enum class ESchema { Unreadable, Ours, Foreign };

// Unreadable: the connection's failures say why. Foreign: strObject names the first thing that is not ours, or of
// another shape. Tables that are missing are none of its business, but for descriptions that records still refer to.
// Must be the connection's first question: it gives up early on a database with thousands of objects.
[[nodiscard]] ESchema AuditSchema(sqlite3 *pDB, std::string &strObject);

#endif
