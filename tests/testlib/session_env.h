// The session's process-wide state at its start for a test on the fake platform, with the debug
// log going to the platform's recorded debugger; and its end.
#pragma once

#include "testlib/fake_platform.h"
#include "proxy/session.h"
#include "support/debuglog.h"

namespace testlib {

inline void BeginSessionTest(TestPlatform& tp) {
    tp.Install();
    tp.settings().SetDword(TROV_DEBUG_KEY, "ToDebugger", 1);
    DebugLogResetForTest();
    DebugOpen(nullptr);
    ResetSessionForTest();
}

inline void EndSessionTest() {
    ResetSessionForTest();
    DebugClose();
    DebugLogResetForTest();
}

}  // namespace testlib
