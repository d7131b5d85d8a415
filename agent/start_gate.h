// start_gate.h - lets callers wait until the writer's start-up work is done.
#ifndef TARN_AGENT_START_GATE_H
#define TARN_AGENT_START_GATE_H

#include "interface/tarncache.h"
#include "util/locks.h"

class CStartGate {
  public:
    // 0 or an errno value; destroying what was not created succeeds.
    [[nodiscard]] int Create();
    [[nodiscard]] int Destroy();

    // Closes the gate: there is work, and somebody who will do it.
    void Close();
    // ulResult: what everybody who waits, now or later, gets. The first one counts.
    void Open(uint32_t ulResult);
    // The result, or TARN_E_TIMEOUT.
    [[nodiscard]] uint32_t Wait(uint32_t ulTimeoutMs);

  private:
    CMutex m_mutex;
    CCondition m_condition;
    bool m_bOpen GUARDED_BY(m_mutex) = true;
    uint32_t m_ulResult GUARDED_BY(m_mutex) = TARN_OK;
};

#endif
