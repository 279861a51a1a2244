#include <atomic>

#include "platform/com.h"

namespace {
std::atomic<long> g_moduleLocks{0};
}

long ModuleLockCount() { return g_moduleLocks.load(); }
void ModuleLock() { ++g_moduleLocks; }
void ModuleUnlock() { --g_moduleLocks; }
