// The session's process-wide state at its start for a test on the fake platform, with the debug
// log going to the platform's recorded debugger; and its end.
#pragma once

#include "core/globals.h"
#include "testlib/fake_platform.h"
#include "proxy/session.h"
#include "support/debuglog.h"

namespace testlib {

inline void BeginSessionTest(TestPlatform& tp) {
    tp.Install();
    tp.settings().SetDword(TROV_DEBUG_KEY, "ToDebugger", 1);
    ResetProcessStateForTest();
    DebugOpen(nullptr);
}

inline void EndSessionTest() {
    DebugClose();
    ResetProcessStateForTest();
}

}  // namespace testlib
