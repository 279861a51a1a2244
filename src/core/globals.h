// Process-wide state of the provider, grouped in one place.
//
// The flags and counters that several threads read (the host's callers, the monitors, the
// heartbeat thread) are atomics with relaxed order: the same behaviour as plain variables,
// without data races.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/platform.h"
#include "platform/wintypes.h"

class CProvider;

extern std::atomic<CProvider*> g_pProvider;
extern std::atomic<int> isProviderOnline;
extern std::atomic<int> isRefreshing;
// Down while a controller-port lookup walks the controllers: no refresh may start inside it.
extern std::atomic<int> allowQueryRefresh;
extern std::atomic<uint32_t> NumOperation;
extern std::atomic<uint32_t> DebugLogging;
extern std::atomic<uint32_t> Options;
extern std::atomic<uint32_t> StartingLUN;

// Provider name (up to 320 characters) and version (up to 32), with their defaults.
constexpr size_t kProviderNameChars = 320;
constexpr size_t kProviderVersionChars = 32;
extern WCHAR g_ProviderName[kProviderNameChars];
extern WCHAR g_ProviderVersion[kProviderVersionChars];

// The three named mutexes, made at module load. Null means "run unlocked".
extern MutexHandle hRefreshMutex;
extern MutexHandle hNotificationMutex;
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

// Returns every process-wide value of the provider to its start (tests only).
void ResetProviderGlobalsForTest();
