// global_agent.h - the one agent, shared by the entry-point files.
#ifndef TARN_INTERFACE_GLOBAL_AGENT_H
#define TARN_INTERFACE_GLOBAL_AGENT_H

#include "agent/dbagent.h"
#include "interface/tarncache.h"
#include "platform/call_guard.h"

#include <new>

// Null while the library is not initialised. Entry points read it without a lock: the caller keeps them apart from the
// last LocalCacheUnInit.
CDataBaseAgent *GlobalAgent();

// Runs an entry point's body; running out of memory becomes a result code, so that nothing is thrown at a C caller. A
// thread that the host cancels meanwhile ends at its next cancellation point after the call.
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

#endif
