#include "core/lock_guard.h"

#include "core/globals.h"
#include "support/debuglog.h"

CLockGuard::CLockGuard(const char* function, MutexHandle mutex)
    : function_(function), mutex_(mutex), name_(mutex != nullptr && mutex == hRefreshMutex ? "RefreshMutex"
                                                                                          : "NotificationMutex") {
    const bool trace = DebugLogging.load(std::memory_order_relaxed) > 1;
    if (!mutex_) {
        if (trace) DebugTrace("%s trying to acquire lock with null mutex pointer\n", function_);
        return;
    }
    if (trace) DebugTrace("%s waiting on mutex %p (%s)\n", function_, static_cast<void*>(mutex_), name_);
    uint32_t n = Plat()->WaitMutex(mutex_);
    if (trace) {
        // The trailing blank on a clean acquisition tells the two outcomes apart in the log.
        if (n == 0)
            DebugTrace("%s acquired mutex %p (%s) (n=%d) \n", function_, static_cast<void*>(mutex_), name_, n);
        else
            DebugTrace("%s acquired mutex %p (%s) (n=%d)\n", function_, static_cast<void*>(mutex_), name_, n);
    }
}

CLockGuard::~CLockGuard() {
    if (!mutex_) return;
    if (DebugLogging.load(std::memory_order_relaxed) > 1)
        DebugTrace("%s releasing mutex %p (%s)\n", function_, static_cast<void*>(mutex_), name_);
    Plat()->ReleaseMutex(mutex_);
}

InitializeCounter::InitializeCounter() {
    uint32_t n = NumOperation.fetch_add(1, std::memory_order_relaxed) + 1;
    DebugTrace("InitializeCounter() : enter !\n");
    DebugTrace("Add InitializeCounter     : m_pProvider->NumOperation = %d\n", n);
}

InitializeCounter::~InitializeCounter() {
    // Never below 0, also when released once too often.
    uint32_t cur = NumOperation.load(std::memory_order_relaxed);
    while (cur > 0 && !NumOperation.compare_exchange_weak(cur, cur - 1, std::memory_order_relaxed)) {
    }
    DebugTrace("Release InitializeCounter : m_pProvider->NumOperation = %d\n", NumOperation.load());
    DebugTrace("InitializeCounter() : OUT!\n");
}

RefreshingScope::RefreshingScope() { isRefreshing = 1; }

RefreshingScope::~RefreshingScope() { isRefreshing = 0; }
