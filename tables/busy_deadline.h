// busy_deadline.h - one deadline for all that a call waits for while another process holds the database.
//
// Without one, a statement waits as often as its operation says, and the time-out stays set on the connection.
#ifndef TARN_TABLES_BUSY_DEADLINE_H
#define TARN_TABLES_BUSY_DEADLINE_H

#include "tables/statement.h"

// As long as it lives, this thread's statements wait until the deadline, all of them together, and then find the
// database busy at once. Inside another one it changes nothing: the outer deadline counts.
class CBusyDeadline {
  public:
    explicit CBusyDeadline(bool bWanted, int iMilliseconds = kBusyTimeoutMs) noexcept;
    ~CBusyDeadline();
    CBusyDeadline(const CBusyDeadline &) = delete;
    CBusyDeadline &operator=(const CBusyDeadline &) = delete;

    [[nodiscard]] static bool IsSet() noexcept;
    // Lets the connection's statements wait by these deadlines; one without a deadline does not wait. A time-out set
    // later takes its place.
    static void Attach(sqlite3 *pDB);

  private:
    static int OnBusy(void *pUnused, int nCalls) noexcept;

    const bool m_bSets;
};

#endif
