// The process-wide table of named recursive mutexes behind Platform::CreateNamedMutex.
#pragma once
#include <map>
#include <mutex>
#include <string>

#include "platform/platform.h"

struct NamedMutex {
    std::string name;
    std::recursive_mutex mu;
    int handles = 0;
};

class NamedMutexTable {
public:
    static NamedMutexTable& Instance();
    // Creates the mutex or, if the name exists, gives the existing one (as the platform does).
    MutexHandle Create(const char* name);
    // Null when no mutex of that name exists.
    MutexHandle Open(const char* name);
    void Close(MutexHandle h);
    static uint32_t Wait(MutexHandle h);
    // True when taken at once (a null handle: true, nothing to take).
    static bool TryWait(MutexHandle h);
    static void Release(MutexHandle h);

private:
    std::mutex mu_;
    std::map<std::string, NamedMutex*> table_;
};
