// withdrawals.h - what engine updates have withdrawn and the database still holds. With the key "protect" a withdrawal
// is in force from the moment a start finds it until its deletions are committed, over restarts too: the marker or list
// is set aside by one rename and removed last.
#ifndef TARN_AGENT_WITHDRAWALS_H
#define TARN_AGENT_WITHDRAWALS_H

#include "agent/markers.h"
#include "util/cache_record.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

constexpr int16_t kWithdrawnEngine = 48; // whose records the engine marker withdraws

class CWithdrawals {
  public:
    CWithdrawals() = default;
    CWithdrawals(const CWithdrawals &) = delete;
    CWithdrawals &operator=(const CWithdrawals &) = delete;

    // Start-up, before the first lookup: puts into force what is pending. What a list names is not known before it is
    // read, so until then it withdraws everything.
    void FindPending();

    // Must this record not answer? Any thread.
    [[nodiscard]] bool Covers(const _CacheRecord &record) const;

    // --- the writer thread

    [[nodiscard]] bool IsEnginePending() const { return m_bEngine; }
    [[nodiscard]] bool IsListPending() const { return m_eList != EList::None; }
    // Sets the engine's marker aside. False: there is none, or none that can be seen; then nothing is to be deleted.
    [[nodiscard]] bool TakeEngine();
    // Its deletions are committed. A marker that could not be set aside, or that came meanwhile, is then in force.
    void EngineDone();
    // Sets the list aside where that has not happened and reads it into force. TARN_OK; TARN_E_INVALIDARG: it is none
    // and not in force, and is back in its place unless a newer one is there; TARN_E_FAIL: it could not be read and
    // withdraws everything. TARN_NOT_CACHED: there is none.
    // isRunning: as with CUpdateListFile.
    [[nodiscard]] uint32_t TakeList(const std::function<bool()> &isRunning);
    [[nodiscard]] const std::vector<CacheMD5> &Digests() const { return m_vecDigests; }
    // A list of more digests than are kept in memory goes on withdrawing everything until it is done.
    [[nodiscard]] bool IsTooLong() const { return m_eList == EList::Unread; }
    // Its deletions are committed. Another list that came meanwhile is then in force.
    void ListDone();

  private:
    enum class EList { None, Unread, Read };

    uint32_t ReadList(const std::function<bool()> &isRunning);

    std::atomic<bool> m_bEngine = false;
    std::atomic<EList> m_eList = EList::None;
    std::vector<CacheMD5> m_vecDigests; // ascending; changed by the writer thread while m_eList is not Read
    mutable std::mutex m_mutex;         // held while m_vecDigests is asked, and while it stops being Read
};

#endif
