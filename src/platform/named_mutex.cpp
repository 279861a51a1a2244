#include "platform/named_mutex.h"

NamedMutexTable& NamedMutexTable::Instance() {
    static NamedMutexTable* t = new NamedMutexTable();  // never destroyed: handles may outlive statics
    return *t;
}

MutexHandle NamedMutexTable::Create(const char* name) {
    if (!name) return nullptr;
    std::lock_guard<std::mutex> g(mu_);
    NamedMutex*& m = table_[name];
    if (!m) {
        m = new NamedMutex();
        m->name = name;
    }
    ++m->handles;
    return m;
}

MutexHandle NamedMutexTable::Open(const char* name) {
    if (!name) return nullptr;
    std::lock_guard<std::mutex> g(mu_);
    auto it = table_.find(name);
    if (it == table_.end()) return nullptr;
    ++it->second->handles;
    return it->second;
}

void NamedMutexTable::Close(MutexHandle h) {
    if (!h) return;
    std::lock_guard<std::mutex> g(mu_);
    // The mutex itself stays: a thread may still hold it, and the same name must give it again.
    if (h->handles > 0) --h->handles;
}

uint32_t NamedMutexTable::Wait(MutexHandle h) {
    if (!h) return 2;
    h->mu.lock();
    return 0;
}

bool NamedMutexTable::TryWait(MutexHandle h) { return !h || h->mu.try_lock(); }

void NamedMutexTable::Release(MutexHandle h) {
    if (h) h->mu.unlock();
}
