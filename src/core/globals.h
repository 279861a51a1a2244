// Process-wide state of the provider, grouped in one place.
//
// The provider's own values live in one record, g_globals; the names the logic uses for them
// (isProviderOnline, Options, ...) are references into it. The other process-wide state has
// its own few places: the connection (proxy/session.h: the session, the transport and the
// heartbeat channel), the monitor (core/monitor.h) and the debug log (support/debuglog.h).
// ResetProcessStateForTest returns all of them to process start at once.
//
// The flags and counters that several threads read (the host's callers, the monitors, the
// heartbeat thread) are atomics with relaxed order: the same behaviour as plain variables,
// without data races.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "platform/platform.h"
#include "platform/wintypes.h"

class CProvider;

// Provider name (up to 320 characters) and version (up to 32), with their defaults.
constexpr size_t kProviderNameChars = 320;
constexpr size_t kProviderVersionChars = 32;

struct ProviderGlobals {
    std::atomic<CProvider*> provider{nullptr};
    std::atomic<int> online{0};
    std::atomic<int> refreshing{0};
    // Down while a controller-port lookup walks the controllers: no refresh may start inside it.
    std::atomic<int> allowQueryRefresh{1};
    std::atomic<uint32_t> numOperation{0};
    std::atomic<uint32_t> debugLogging{0};
    std::atomic<uint32_t> options{0};
    std::atomic<uint32_t> startingLun{1};
    WCHAR name[kProviderNameChars] = u"Halden iSCSI VDS Provider";
    WCHAR version[kProviderVersionChars] = u"2.8.5.45";
    // Made at module load and kept for the process; not part of a test's reset.
    MutexHandle refreshMutex = nullptr;
    MutexHandle notificationMutex = nullptr;
    // The host generation, worked out on first use.
    std::mutex hostMu;
    bool hostKnown = false;
    bool win2008 = false, win7 = false, win8 = false;
};

extern ProviderGlobals g_globals;

inline std::atomic<CProvider*>& g_pProvider = g_globals.provider;
inline std::atomic<int>& isProviderOnline = g_globals.online;
inline std::atomic<int>& isRefreshing = g_globals.refreshing;
inline std::atomic<int>& allowQueryRefresh = g_globals.allowQueryRefresh;
inline std::atomic<uint32_t>& NumOperation = g_globals.numOperation;
inline std::atomic<uint32_t>& DebugLogging = g_globals.debugLogging;
inline std::atomic<uint32_t>& Options = g_globals.options;
inline std::atomic<uint32_t>& StartingLUN = g_globals.startingLun;
inline WCHAR (&g_ProviderName)[kProviderNameChars] = g_globals.name;
inline WCHAR (&g_ProviderVersion)[kProviderVersionChars] = g_globals.version;

// The named mutexes, made at module load. Null means "run unlocked".
inline MutexHandle& hRefreshMutex = g_globals.refreshMutex;
inline MutexHandle& hNotificationMutex = g_globals.notificationMutex;
// hVdsMutex lives with the command exchange (proxy/kelvane.h).

// Options bits.
constexpr uint32_t kOptionLoadDelayMask = 0xF;
constexpr uint32_t kOptionRescanOnReenumerate = 1u << 14;
constexpr uint32_t kOptionReconnectAtRefresh = 1u << 15;
constexpr uint32_t kOptionAskNeedRefresh = 1u << 16;
constexpr uint32_t kOptionPoolsOff = 1u << 18;

// Host generation flags, worked out from the Platform's version on first use.
bool HostIsWin2008();
bool HostIsWin7();
bool HostIsWin8();
// Forgets the detection (tests that change the host version).
void ResetHostVersionForTest();

// Returns the provider's own values (g_globals, but the mutex handles) to their start (tests only).
void ResetProviderGlobalsForTest();

// Returns every piece of process-wide state to process start: the provider's values, the load
// delay, the new-name table, the monitor, the connection (threads still running are woken and
// joined) and the debug log. The one reset of every test environment (tests only).
void ResetProcessStateForTest();
