// cachetable_columns.h - the positions of the columns of "CT": binding index less one, and result column.
#ifndef TARN_TABLES_CACHETABLE_COLUMNS_H
#define TARN_TABLES_CACHETABLE_COLUMNS_H

#include "util/cache_record.h"

struct sqlite3_stmt;

// The verdict stands before the MD5 halves here, and behind them in the record.
enum CacheColumn : int {
    COLUMN_FPH,
    COLUMN_FAH,
    COLUMN_FTV,
    COLUMN_FHMD,
    COLUMN_FLMD,
    COLUMN_QC,
    COLUMN_TS,
    COLUMN_RS,
    COLUMN_FFI
};

// Copies a result row of "select *" into the record, except for the key and the MD5 halves.
void ReadCacheRow(sqlite3_stmt *pStmt, _CacheRecord &record);

#endif
