#include "module/module.h"

#include "core/globals.h"
#include "core/provider.h"
#include "proxy/kelvane.h"
#include "support/debuglog.h"
#include "support/host_notice.h"

namespace {

MutexHandle CreateOrOpen(const char* name) {
    MutexHandle h = Plat()->CreateNamedMutex(name);
    if (!h) h = Plat()->OpenNamedMutex(name);
    return h;
}

class CProviderFactory final : public IClassFactory {
public:
    HRESULT QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        if (riid == IID_IUnknown || riid == IID_IClassFactory) {
            *ppv = static_cast<IClassFactory*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    // The factory is a static object of the module: its count only keeps the module loaded.
    ULONG AddRef() override {
        ModuleLock();
        return 2;
    }
    ULONG Release() override {
        ModuleUnlock();
        return 1;
    }
    HRESULT CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        *ppv = nullptr;
        if (pUnkOuter) return CLASS_E_NOAGGREGATION;
        CComObject<CProvider>* p = nullptr;
        HRESULT hr = CComObject<CProvider>::CreateInstance(&p);
        if (FAILED(hr)) return hr;
        p->AddRef();
        hr = p->QueryInterface(riid, ppv);
        p->Release();
        return hr;
    }
    HRESULT LockServer(BOOL fLock) override {
        if (fLock)
            ModuleLock();
        else
            ModuleUnlock();
        return S_OK;
    }
};

CProviderFactory g_factory;

}  // namespace

void InitLock() {
    DebugTrace("InitLock enter\n");
    hVdsMutex = CreateOrOpen("kelvane_lock_vds");
    DebugTrace(hVdsMutex ? "InitLock exit\n" : "InitLock error\n");
}

void InitRefreshLock() {
    DebugTrace("InitRefreshLock enter\n");
    hRefreshMutex = CreateOrOpen("kelvane_lock_refresh");
    if (!hRefreshMutex) {
        // Without the refresh mutex the notification mutex isn't attempted.
        DebugTrace("InitRefreshLock hRefreshMutex error\n");
        return;
    }
    hNotificationMutex = CreateOrOpen("kelvane_lock_notification");
    DebugTrace(hNotificationMutex ? "InitRefreshLock exit\n" : "InitRefreshLock hNotificationMutex error\n");
}

void FreeLock() {
    DebugTrace("FreeLock enter\n");
    Plat()->CloseNamedMutex(hVdsMutex);
    hVdsMutex = nullptr;
    DebugTrace("FreeLock exit\n");
}

void FreeRefreshLock() {
    DebugTrace("FreeRefreshLock enter\n");
    Plat()->CloseNamedMutex(hNotificationMutex);
    Plat()->CloseNamedMutex(hRefreshMutex);
    hNotificationMutex = nullptr;
    hRefreshMutex = nullptr;
    DebugTrace("FreeRefreshLock exit\n");
}

extern "C" TROV_EXPORT BOOL DllMain(void* instance, DWORD reason, void* reserved) {
    DebugTrace("DllMain() Enter\n");
    if (reason == DLL_PROCESS_ATTACH) {
        InitLock();
        InitRefreshLock();
    } else if (reason == DLL_PROCESS_DETACH) {
        FreeLock();
        FreeRefreshLock();
    }
    DebugTrace("DllMain() Exit\n");
    return TRUE;
}

extern "C" TROV_EXPORT HRESULT DllCanUnloadNow() {
    long n = ModuleLockCount();
    DebugTrace("DllCanUnloadNow() count= %d\n", static_cast<int>(n));
    return n == 0 ? S_OK : S_FALSE;
}

extern "C" TROV_EXPORT HRESULT DllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv) {
    DebugTrace("DllGetClassObject()\n");
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (rclsid != CLSID_TrovHwProvider) return CLASS_E_CLASSNOTAVAILABLE;
    return g_factory.QueryInterface(riid, ppv);
}

extern "C" TROV_EXPORT void TrovSetHostSink(const TrovHostSink* sink) {
    SetHostSink(sink);
}

// Process attach and detach of the module.
__attribute__((constructor)) static void ModuleAttach() { DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr); }
__attribute__((destructor)) static void ModuleDetach() { DllMain(nullptr, DLL_PROCESS_DETACH, nullptr); }
