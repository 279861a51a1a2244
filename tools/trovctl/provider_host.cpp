#include "provider_host.h"
#include "host_object.h"

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

#include "platform/provider_ids.h"

class ProviderHost::Sink final : public trovctl::HostObject<IVdsAdviseSink> {
public:
    explicit Sink(NotifyFn fn) : HostObject(IID_IVdsAdviseSink), fn_(std::move(fn)) {}
    HRESULT OnNotify(LONG lNumberOfNotifications, VDS_NOTIFICATION* pNotificationArray) override {
        if (!pNotificationArray) return E_POINTER;
        for (LONG i = 0; i < lNumberOfNotifications; ++i)
            if (fn_) fn_(pNotificationArray[i]);
        return S_OK;
    }

private:
    ~Sink() override = default;
    NotifyFn fn_;
};

ProviderHost::ProviderHost() = default;

ProviderHost::~ProviderHost() {
    Unload();
    // The module stays mapped: a provider's threads may outlive their last reference by a moment.
}

std::string DefaultModulePath() {
    const char* env = std::getenv("TROVCTL_MODULE");
    if (env && *env) return env;
    // An installed trovctl finds the installed module by its own place, so that a staged tree
    // (DESTDIR) works as well as the real one.
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
        self[n] = '\0';
        std::string dir(self);
        dir.erase(dir.rfind('/'));
        std::string installed = dir + "/../" TROV_INSTALL_LIBDIR "/trovhwiprv/libtrovhwiprv.so";
        if (access(installed.c_str(), F_OK) == 0) {
            char resolved[PATH_MAX];
            return realpath(installed.c_str(), resolved) ? resolved : installed;
        }
    }
    return std::string(TROV_MODULE_DIR) + "/libtrovhwiprv.so";
}

bool ProviderHost::Open(const std::string& path, std::string* err, const CLSID& clsid) {
    clsid_ = clsid;
    module_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (!module_) {
        *err = dlerror();
        return false;
    }
    getClassObject_ = reinterpret_cast<HRESULT (*)(REFCLSID, REFIID, void**)>(dlsym(module_, "DllGetClassObject"));
    if (!getClassObject_) {
        *err = "the module has no DllGetClassObject";
        return false;
    }
    // Optional: a module without it still loads, and its host learns only what the interfaces say.
    setHostSink_ = reinterpret_cast<TrovSetHostSinkFn>(dlsym(module_, "TrovSetHostSink"));
    return true;
}

HRESULT ProviderHost::Load(NotifyFn onNotify) {
    if (!getClassObject_) return E_UNEXPECTED;
    IClassFactory* factory = nullptr;
    HRESULT hr = getClassObject_(clsid_, IID_IClassFactory, reinterpret_cast<void**>(&factory));
    if (FAILED(hr)) return hr;
    hr = factory->CreateInstance(nullptr, IID_IVdsProvider, reinterpret_cast<void**>(&provider_));
    factory->Release();
    if (FAILED(hr)) return hr;
    IVdsProviderPrivate* priv = Query<IVdsProviderPrivate>(IID_IVdsProviderPrivate);
    if (!priv) return E_NOINTERFACE;
    // Without a listener the host gives no sink, and the provider runs no event monitor.
    if (onNotify) sink_ = new Sink(std::move(onNotify));
    hr = priv->OnLoad(nullptr, sink_);
    priv->Release();
    return hr;
}

HRESULT ProviderHost::Unload() {
    HRESULT hr = S_OK;
    if (provider_) {
        IVdsProviderPrivate* priv = Query<IVdsProviderPrivate>(IID_IVdsProviderPrivate);
        if (priv) {
            hr = priv->OnUnload(TRUE);
            priv->Release();
        }
        provider_->Release();
        provider_ = nullptr;
    }
    if (sink_) {
        sink_->Release();
        sink_ = nullptr;
    }
    if (sinkInstalled_) {
        setHostSink_(nullptr);
        sinkInstalled_ = false;
    }
    return hr;
}

bool ProviderHost::SetHostSink(const TrovHostSink& sink) {
    if (!setHostSink_) return false;
    setHostSink_(&sink);
    sinkInstalled_ = true;
    return true;
}
