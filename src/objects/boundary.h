// The interface boundary: what the host gets when memory runs out.
//
// The rule. An exception never reaches the host. Every method of a published interface that the
// provider, the objects of the tree, the enumerator or the asynchronous handle implement is a
// function-try-block that ends in TROV_CATCH_OOM: a failed allocation anywhere beneath it answers
// E_OUTOFMEMORY (and anything else, which the code beneath never raises, E_UNEXPECTED), after one
// log line. The code beneath the interface methods raises nothing itself; it lets std::bad_alloc
// travel up, and scope guards undo on the way what a method held: the notification mutex
// (CLockGuard), the operation count (InitializeCounter), the refreshing flag (RefreshingScope),
// counted references (CComPtr) and task memory not yet handed out (TaskMem). An interface method
// writes its out-parameters last, after everything that can fail, so a host never receives
// anything together with E_OUTOFMEMORY.
//
// An allocation that reports failure by a null (a task-memory block, a nothrow new) answers
// E_OUTOFMEMORY the same way where it happens. An interface method that calls another and gets
// E_OUTOFMEMORY passes it on (PassOnOutOfMemory) instead of taking it for an empty answer.
#pragma once

#include <memory>
#include <new>

#include "platform/hresult.h"
#include "platform/platform.h"

// The handler of an interface method's function-try-block.
#define TROV_CATCH_OOM \
    catch (...) { return BoundaryFailure(__PRETTY_FUNCTION__, __LINE__); }

// The answer to the exception being handled: E_OUTOFMEMORY for std::bad_alloc, E_UNEXPECTED for
// anything else; logged with the method's name. Never throws.
HRESULT BoundaryFailure(const char* prettyFunction, int line) noexcept;

// Turns an E_OUTOFMEMORY from a called interface method back into the failure it stands for.
inline void PassOnOutOfMemory(HRESULT hr) {
    if (hr == E_OUTOFMEMORY) throw std::bad_alloc();
}

// A task-memory block the method still owns: freed unless it was handed out (release()).
struct TaskMemFreer {
    void operator()(void* p) const { CoTaskMemFree(p); }
};
template <class T>
using TaskMem = std::unique_ptr<T, TaskMemFreer>;
