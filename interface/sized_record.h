// sized_record.h - records whose first field, size, tells how much of them the caller knows, so that they can grow.
#ifndef TARN_INTERFACE_SIZED_RECORD_H
#define TARN_INTERFACE_SIZED_RECORD_H

#include <algorithm>
#include <cstdint>
#include <cstring>

constexpr uint32_t kSmallestSize = 8; // the size and one field

template <typename Record> bool IsSized(const Record *pRecord) {
    return pRecord != nullptr && pRecord->size >= kSmallestSize;
}

// Fills what the caller knows of the record, and leaves the size as it was set.
template <typename Record> void CopySized(const Record &found, Record *pRecord) {
    const uint32_t ulSize = pRecord->size;
    std::memcpy(pRecord, &found, std::min<size_t>(ulSize, sizeof found));
    pRecord->size = ulSize;
}

#endif
