#include "agent/start_gate.h"

int CStartGate::Create() {
    const int iError = m_mutex.Create();
    return iError != 0 ? iError : m_condition.Create(CLOCK_MONOTONIC);
}

int CStartGate::Destroy() {
    const int iError = m_condition.Destroy();
    return iError != 0 ? iError : m_mutex.Destroy();
}

void CStartGate::Close() {
    const CMutexLock lock(m_mutex);
    m_bOpen = false;
}

void CStartGate::Open(uint32_t ulResult) {
    const CMutexLock lock(m_mutex);
    if (!m_bOpen) {
        m_bOpen = true;
        m_ulResult = ulResult;
        m_condition.SignalAll();
    }
}

uint32_t CStartGate::Wait(uint32_t ulTimeoutMs) {
    const timespec deadline = DeadlineAfter(ulTimeoutMs);
    const CMutexLock lock(m_mutex);
    while (!m_bOpen && m_condition.WaitUntil(m_mutex, deadline)) {
    }
    return m_bOpen ? m_ulResult : TARN_E_TIMEOUT;
}
