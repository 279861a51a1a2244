// A minimal COM-style object model: IUnknown, atomic reference counts, interface maps, and a
// counted smart pointer. Objects are made through CComObject<T>::CreateInstance; a class lists
// the interfaces it answers in InternalQueryInterface.
#pragma once

#include <atomic>
#include <memory>
#include <new>

#include "platform/hresult.h"
#include "platform/wintypes.h"

#define STDMETHODCALLTYPE
#define STDMETHOD(name) virtual HRESULT name
#define STDMETHOD_(type, name) virtual type name

// {00000000-0000-0000-C000-000000000046}
constexpr IID IID_IUnknown = MakeGuid(0x00000000, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46);
// {00000001-0000-0000-C000-000000000046}
constexpr IID IID_IClassFactory = MakeGuid(0x00000001, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46);

struct IUnknown {
    virtual HRESULT QueryInterface(REFIID riid, void** ppv) = 0;
    virtual ULONG AddRef() = 0;
    virtual ULONG Release() = 0;

protected:
    ~IUnknown() = default;  // objects die through Release only
};

struct IClassFactory : IUnknown {
    virtual HRESULT CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) = 0;
    virtual HRESULT LockServer(BOOL fLock) = 0;
};

// Module-wide count of live objects and server locks, read by DllCanUnloadNow.
long ModuleLockCount();
void ModuleLock();
void ModuleUnlock();

// Base of every object class: the reference count. T of CComObject<T> derives from it.
class CComObjectRootEx {
public:
    virtual ~CComObjectRootEx() = default;

protected:
    ULONG InternalAddRef() { return static_cast<ULONG>(++m_dwRef); }
    ULONG InternalRelease() { return static_cast<ULONG>(--m_dwRef); }
    // Called once after construction; an object may finish its set-up here.
    virtual HRESULT FinalConstruct() { return S_OK; }

    std::atomic<long> m_dwRef{0};

    template <class T>
    friend class CComObject;
};

// The concrete, counted object: AddRef, Release and QueryInterface for all interfaces of T.
// T provides HRESULT InternalQueryInterface(REFIID, void**) that fills *ppv without AddRef.
template <class T>
class CComObject final : public T {
public:
    template <class... Args>
    explicit CComObject(Args&&... args) : T(std::forward<Args>(args)...) {
        ModuleLock();
    }
    ~CComObject() override { ModuleUnlock(); }

    // Makes an object with a count of 0, as the platform's CreateInstance does.
    static HRESULT CreateInstance(CComObject<T>** pp) {
        if (!pp) return E_POINTER;
        *pp = nullptr;
        auto* p = new (std::nothrow) CComObject<T>();
        if (!p) return E_OUTOFMEMORY;
        HRESULT hr = p->FinalConstruct();
        if (FAILED(hr)) {
            delete p;
            return hr;
        }
        *pp = p;
        return S_OK;
    }

    ULONG AddRef() override { return this->InternalAddRef(); }
    ULONG Release() override {
        ULONG n = this->InternalRelease();
        if (n == 0) delete this;
        return n;
    }
    HRESULT QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        *ppv = nullptr;
        HRESULT hr = this->InternalQueryInterface(riid, ppv);
        if (SUCCEEDED(hr) && *ppv) static_cast<IUnknown*>(*ppv)->AddRef();
        return hr;
    }
};

// A counted reference to an interface.
template <class T>
class CComPtr {
public:
    CComPtr() = default;
    CComPtr(T* p) : p_(p) {  // NOLINT: implicit like the platform's
        if (p_) p_->AddRef();
    }
    CComPtr(const CComPtr& o) : CComPtr(o.p_) {}
    CComPtr(CComPtr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
    ~CComPtr() { Release(); }
    CComPtr& operator=(T* p) {
        if (p) p->AddRef();
        Release();
        p_ = p;
        return *this;
    }
    CComPtr& operator=(const CComPtr& o) { return *this = o.p_; }
    CComPtr& operator=(CComPtr&& o) noexcept {
        if (this != std::addressof(o)) {
            Release();
            p_ = o.p_;
            o.p_ = nullptr;
        }
        return *this;
    }
    void Release() {
        T* p = p_;
        p_ = nullptr;
        if (p) p->Release();
    }
    // Takes over a reference without adding one.
    void Attach(T* p) {
        Release();
        p_ = p;
    }
    T* Detach() {
        T* p = p_;
        p_ = nullptr;
        return p;
    }
    T* get() const { return p_; }
    T* operator->() const { return p_; }
    operator T*() const { return p_; }
    T** operator&() {
        Release();
        return &p_;
    }

private:
    T* p_ = nullptr;
};
