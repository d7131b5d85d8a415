// set_aside.h - moves a damaged database out of the way.
#ifndef TARN_AGENT_SET_ASIDE_H
#define TARN_AGENT_SET_ASIDE_H

#include <string>

// Renames the database to "<name>.damaged" and its journal to "<name>.damaged-journal"; what was there from an earlier
// time goes. No connection may have it open. 0 or an errno value; the database is then in its place.
[[nodiscard]] int SetDatabaseAside(const std::string &strPath);

#endif
