#include "core/globals.h"

#include <mutex>

#include "platform/wstr.h"
#include "support/debuglog.h"

std::atomic<CProvider*> g_pProvider{nullptr};
std::atomic<int> isProviderOnline{0};
std::atomic<int> isRefreshing{0};
std::atomic<int> allowQueryRefresh{1};
std::atomic<uint32_t> NumOperation{0};
std::atomic<uint32_t> DebugLogging{0};
std::atomic<uint32_t> Options{0};
std::atomic<uint32_t> StartingLUN{1};

WCHAR g_ProviderName[kProviderNameChars] = u"Halden iSCSI VDS Provider";
WCHAR g_ProviderVersion[kProviderVersionChars] = u"2.8.5.45";

MutexHandle hRefreshMutex = nullptr;
MutexHandle hNotificationMutex = nullptr;

namespace {

struct HostFlags {
    bool win2008 = false, win7 = false, win8 = false;
};

std::mutex g_hostMu;
bool g_hostKnown = false;
HostFlags g_host;

HostFlags Detect() {
    std::lock_guard<std::mutex> g(g_hostMu);
    if (!g_hostKnown) {
        uint32_t major = 0, minor = 0;
        Plat()->HostVersion(&major, &minor);
        g_host.win2008 = major >= 6;
        // Deliberately false for any major version above 6.
        g_host.win7 = major == 6 && minor != 0;
        g_host.win8 = major == 6 && minor >= 2;
        g_hostKnown = true;
        DebugTrace("win2008=%d win7=%d win8=%d major=%d minor=%d\n", g_host.win2008, g_host.win7, g_host.win8,
                   major, minor);
    }
    return g_host;
}

}  // namespace

bool HostIsWin2008() { return Detect().win2008; }
bool HostIsWin7() { return Detect().win7; }
bool HostIsWin8() { return Detect().win8; }

void ResetHostVersionForTest() {
    std::lock_guard<std::mutex> g(g_hostMu);
    g_hostKnown = false;
}

void ResetProviderGlobalsForTest() {
    g_pProvider = nullptr;
    isProviderOnline = 0;
    isRefreshing = 0;
    allowQueryRefresh = 1;
    NumOperation = 0;
    DebugLogging = 0;
    Options = 0;
    StartingLUN = 1;
    const char16_t name[] = u"Halden iSCSI VDS Provider";
    const char16_t version[] = u"2.8.5.45";
    std::memcpy(g_ProviderName, name, sizeof name);
    std::memcpy(g_ProviderVersion, version, sizeof version);
    ResetHostVersionForTest();
}
