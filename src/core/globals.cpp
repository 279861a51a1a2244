#include "core/globals.h"

#include <cstring>

#include "core/monitor.h"
#include "core/provider.h"
#include "lun/lun.h"
#include "platform/wstr.h"
#include "proxy/session.h"
#include "support/debuglog.h"

constinit ProviderGlobals g_globals;

namespace {

struct HostFlags {
    bool win2008, win7, win8;
};

HostFlags Detect() {
    ProviderGlobals& g = g_globals;
    std::lock_guard<std::mutex> lock(g.hostMu);
    if (!g.hostKnown) {
        uint32_t major = 0, minor = 0;
        Plat()->HostVersion(&major, &minor);
        g.win2008 = major >= 6;
        // Deliberately false for any major version above 6.
        g.win7 = major == 6 && minor != 0;
        g.win8 = major == 6 && minor >= 2;
        g.hostKnown = true;
        DebugTrace("win2008=%d win7=%d win8=%d major=%d minor=%d\n", g.win2008, g.win7, g.win8, major, minor);
    }
    return HostFlags{g.win2008, g.win7, g.win8};
}

}  // namespace

bool HostIsWin2008() { return Detect().win2008; }
bool HostIsWin7() { return Detect().win7; }
bool HostIsWin8() { return Detect().win8; }

void ResetHostVersionForTest() {
    std::lock_guard<std::mutex> lock(g_globals.hostMu);
    g_globals.hostKnown = false;
}

void ResetProviderGlobalsForTest() {
    ProviderGlobals& g = g_globals;
    g.provider = nullptr;
    g.online = 0;
    g.refreshing = 0;
    g.allowQueryRefresh = 1;
    g.numOperation = 0;
    g.debugLogging = 0;
    g.options = 0;
    g.startingLun = 1;
    const char16_t name[] = u"Halden iSCSI VDS Provider";
    const char16_t version[] = u"2.8.5.45";
    std::memset(g.name, 0, sizeof g.name);
    std::memset(g.version, 0, sizeof g.version);
    std::memcpy(g.name, name, sizeof name);
    std::memcpy(g.version, version, sizeof version);
    ResetHostVersionForTest();
}

void ResetProcessStateForTest() {
    ResetProviderGlobalsForTest();
    ResetLoadDelayForTest();
    ResetNewNamesForTest();
    // The connection first: it joins threads that may still log or touch the monitor.
    ResetSessionForTest();
    ResetMonitorForTest();
    DebugLogResetForTest();
}
