// entry.h - what every exported function has in common: arguments first, then the agent, and nothing thrown at a C
// caller.
#ifndef TARN_INTERFACE_ENTRY_H
#define TARN_INTERFACE_ENTRY_H

#include "agent/dbagent.h"
#include "support/call_guard.h"

#include <new>

// Null while the library is not initialised, and in a child that was forked while it was. Read without a lock: the
// caller keeps entry points apart from the last LocalCacheUnInit.
CDataBaseAgent *GlobalAgent();

inline bool IsEmpty(const char *pszText) {
    return pszText == nullptr || *pszText == '\0';
}

// Running out of memory becomes a result code. A thread that the host cancels meanwhile ends at its next cancellation
// point after the call.
template <typename Body> uint32_t CallWithoutThrowing(Body body) noexcept {
    const CCancelGuard noCancel;
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return TARN_E_OUTOFMEMORY;
    } catch (...) {
        return TARN_E_FAIL;
    }
}

// An entry point that asks. body: uint32_t(CDataBaseAgent &).
template <typename Body> uint32_t Ask(bool bArguments, Body body) noexcept {
    if (!bArguments) {
        return TARN_E_INVALIDARG;
    }
    CDataBaseAgent *const pAgent = GlobalAgent();
    return pAgent == nullptr ? TARN_E_NOT_INITIALIZED : CallWithoutThrowing([&] { return body(*pAgent); });
}

// One that changes something: not for readers.
template <typename Body> uint32_t Change(bool bArguments, Body body) noexcept {
    return Ask(bArguments, [&](CDataBaseAgent &agent) { return agent.IsReader() ? TARN_E_FAIL : body(agent); });
}

#endif
