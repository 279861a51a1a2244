// An object the host hands to the provider (its admin interface, its advise sink): one interface,
// a reference count that starts at 1 for the maker, and deletion at the last Release.
#pragma once

#include <atomic>

#include "platform/wintypes.h"

namespace trovctl {

template <class Interface>
class HostObject : public Interface {
public:
    explicit HostObject(REFIID iid) : iid_(iid) {}

    HRESULT QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        if (riid == IID_IUnknown || riid == iid_) {
            *ppv = static_cast<Interface*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    ULONG AddRef() override { return static_cast<ULONG>(++ref_); }
    ULONG Release() override {
        long n = --ref_;
        if (n == 0) delete this;
        return static_cast<ULONG>(n);
    }

protected:
    virtual ~HostObject() = default;

private:
    const IID& iid_;
    std::atomic<long> ref_{1};
};

}  // namespace trovctl
