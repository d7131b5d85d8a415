#include "platform/bundled/log_repeats.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace {

uint64_t HashOf(std::string_view text) noexcept {
    return std::hash<std::string_view>()(text);
}

} // namespace

// Without the place in the table, the one that has been there longest goes.
CRepeats::_Place &CRepeats::FindOrMakeRoom(uint64_t ullKey) noexcept {
    _Place *pOldest = m_aPlaces.data();
    for (_Place &place : m_aPlaces) {
        if (place.ullKey == ullKey) {
            return place;
        }
        pOldest = place.start < pOldest->start ? &place : pOldest;
    }
    return *pOldest;
}

bool CRepeats::Admit(int iLevel, std::string_view source, int iLine, std::string_view message, Time now,
                     _LeftOut &leftOut) noexcept {
    const uint64_t ullText = HashOf(message);
    const uint64_t ullKey = HashOf(source) * 31 + static_cast<uint64_t>(iLine) * 8 + static_cast<uint64_t>(iLevel) + 1;
    _Place &place = FindOrMakeRoom(ullKey);
    leftOut = {};
    if (place.ullKey != ullKey || now - kInterval >= place.start) {
        leftOut = place.leftOut;
        place = {ullKey, now, 0, {}, {}};
        place.leftOut.iLevel = iLevel;
        place.leftOut.iLine = iLine;
        source.copy(place.leftOut.szSource, sizeof place.leftOut.szSource - 1);
    }
    const uint64_t *const pEnd = place.aullTexts.cbegin() + place.nWritten;
    if (place.nWritten == kLinesPerPlace || std::find(place.aullTexts.cbegin(), pEnd, ullText) != pEnd) {
        ++place.leftOut.ullLines;
        return false;
    }
    place.aullTexts[place.nWritten++] = ullText;
    return true;
}

bool CRepeats::TakeOverdue(Time now, _LeftOut &leftOut) noexcept {
    for (_Place &place : m_aPlaces) {
        if (place.leftOut.ullLines > 0 && now - kInterval >= place.start) {
            leftOut = place.leftOut;
            place.leftOut.ullLines = 0;
            return true;
        }
    }
    return false;
}
