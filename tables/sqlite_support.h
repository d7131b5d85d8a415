// sqlite_support.h - limits that every statement of the cache shares.
#ifndef TARN_TABLES_SQLITE_SUPPORT_H
#define TARN_TABLES_SQLITE_SUPPORT_H

#include <cstddef>

constexpr int kBusyTimeoutMs = 1500;    // one wait for a database that another process holds
constexpr size_t kStatementSize = 1024; // bytes of a formatted statement with its NUL

#endif
