// log_repeats.h - keeps one trouble from filling the log: which lines are written and which are counted instead.
#ifndef TARN_PLATFORM_BUNDLED_LOG_REPEATS_H
#define TARN_PLATFORM_BUNDLED_LOG_REPEATS_H

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

// Where a line comes from, and how many of its lines were left out.
struct _LeftOut {
    int iLevel = 0;
    char szSource[32] = ""; // the beginning of a longer one
    int iLine = 0;
    uint64_t ullLines = 0;
};

// In a minute, one place in the sources writes at most five lines, and no text twice. Of fixed size: never allocates.
// Not locked: the logger's mutex guards every call.
class CRepeats {
  public:
    using Time = std::chrono::steady_clock::time_point;

    // Whether the line is to be written. leftOut.ullLines is what was left out of another place, which had to make
    // room.
    [[nodiscard]] bool Admit(int iLevel, std::string_view source, int iLine, std::string_view message, Time now,
                             _LeftOut &leftOut) noexcept;
    // Gives a place whose minute is over and of which lines were left out; false when there is none. Time::max() asks
    // for any.
    [[nodiscard]] bool TakeOverdue(Time now, _LeftOut &leftOut) noexcept;

  private:
    static constexpr size_t kPlaces = 64;
    static constexpr size_t kLinesPerPlace = 5;
    static constexpr auto kInterval = std::chrono::seconds(60);

    struct _Place {
        uint64_t ullKey = 0;
        Time start = Time::min(); // of its minute
        size_t nWritten = 0;
        std::array<uint64_t, kLinesPerPlace> aullTexts = {}; // hashes of what was written
        _LeftOut leftOut;
    };

    [[nodiscard]] _Place &FindOrMakeRoom(uint64_t ullKey) noexcept;

    std::array<_Place, kPlaces> m_aPlaces;
};

#endif
