// The host side of trovctl: opens the provider module, creates the provider through the module's
// class factory, loads it with an advise sink, and unloads it - the way a management host does.
// Beside the class factory it finds the module's TrovSetHostSink, through which the provider
// tells its host its Event Log reports, console lines and failure reasons (host_messages.h).
#pragma once

#include <functional>
#include <string>

#include "platform/com.h"
#include "platform/host_sink.h"
#include "platform/provider_ids.h"
#include "platform/vds.h"
#include "platform/vds_interfaces.h"

class ProviderHost {
public:
    // Called for every notification the provider sends (from the provider's monitor threads).
    using NotifyFn = std::function<void(const VDS_NOTIFICATION&)>;

    ProviderHost();
    ~ProviderHost();

    // Opens the module at `path` and finds its entry points. False with *err on failure.
    // The provider is created from the module's class `clsid`.
    bool Open(const std::string& path, std::string* err, const CLSID& clsid = CLSID_TrovHwProvider);
    // Creates the provider and calls OnLoad; with `onNotify` the host's advise sink goes along
    // (and the provider starts its event monitor), without it none.
    HRESULT Load(NotifyFn onNotify);
    // Calls OnUnload, drops the provider and removes the host sink.
    HRESULT Unload();
    // Installs the host sink (copied) for what the provider tells beyond the interfaces; call
    // before Load. False when the module has no TrovSetHostSink.
    bool SetHostSink(const TrovHostSink& sink);

    IVdsProvider* provider() const { return provider_; }
    // Asks the provider for another of its interfaces (a new reference, or null).
    template <class T>
    T* Query(REFIID iid) const {
        void* p = nullptr;
        if (!provider_ || FAILED(provider_->QueryInterface(iid, &p))) return nullptr;
        return static_cast<T*>(p);
    }

private:
    class Sink;
    void* module_ = nullptr;
    CLSID clsid_ = CLSID_TrovHwProvider;
    HRESULT (*getClassObject_)(REFCLSID, REFIID, void**) = nullptr;
    TrovSetHostSinkFn setHostSink_ = nullptr;
    bool sinkInstalled_ = false;
    IVdsProvider* provider_ = nullptr;
    Sink* sink_ = nullptr;
};

// The module's path: TROVCTL_MODULE, else the installed module beside an installed trovctl
// (../lib/<multiarch>/trovhwiprv/), else the one beside the trovctl binary's build.
std::string DefaultModulePath();
