// Scope guards of the object graph.
//
// CLockGuard takes a named mutex with no time-out for the life of the scope and, when the
// DebugLogging setting is above 1, traces the wait, the acquisition and the release with the
// method's name. A null mutex makes it do nothing but say so.
//
// InitializeCounter counts operations that hold the object graph in a changing state; a refresh
// on demand happens only while the count is 0.
//
// RefreshingScope raises the process-wide isRefreshing flag for the life of a rebuild.
//
// Each undoes what it holds also when a failed allocation unwinds through it (objects/boundary.h).
#pragma once

#include "platform/platform.h"

class CLockGuard {
public:
    CLockGuard(const char* function, MutexHandle mutex);
    ~CLockGuard();
    CLockGuard(const CLockGuard&) = delete;
    CLockGuard& operator=(const CLockGuard&) = delete;

private:
    const char* function_;
    MutexHandle mutex_;
    const char* name_;
};

class InitializeCounter {
public:
    InitializeCounter();
    ~InitializeCounter();
    InitializeCounter(const InitializeCounter&) = delete;
    InitializeCounter& operator=(const InitializeCounter&) = delete;
};

class RefreshingScope {
public:
    RefreshingScope();
    ~RefreshingScope();
    RefreshingScope(const RefreshingScope&) = delete;
    RefreshingScope& operator=(const RefreshingScope&) = delete;
};
