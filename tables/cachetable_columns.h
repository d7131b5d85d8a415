// cachetable_columns.h - the positions of the columns of "CT": result column, and binding index less one.
#ifndef TARN_TABLES_CACHETABLE_COLUMNS_H
#define TARN_TABLES_CACHETABLE_COLUMNS_H

#include "util/cache_record.h"

class CStatement;

// The verdict stands before the MD5 halves here, and behind them in the record.
constexpr int kColumnFPH = 0;
constexpr int kColumnFAH = 1;
constexpr int kColumnFTV = 2;
constexpr int kColumnFHMD = 3;
constexpr int kColumnFLMD = 4;
constexpr int kColumnQC = 5;
constexpr int kColumnTS = 6;
constexpr int kColumnRS = 7;
constexpr int kColumnFFI = 8;

// Copies a result row of "select *" into the record, its key too.
void ReadCacheRow(const CStatement &query, _CacheRecord &record);

#endif
