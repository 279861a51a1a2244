// What a host lends the provider module for its registration, where the module's original
// platform has system services: creating the management service's object (which takes the
// provider's registration through IVdsAdmin) and the class registry (where the module writes its
// class keys with the path of its file).
//
// A host that registers a module installs its services with the module's TrovSetHostServices
// before it calls DllRegisterServer or DllUnregisterServer, and removes them (null) afterwards.
// Without services, both entry points fail as when the management service can't be reached.
// Calls come on the thread that called the entry point.
#pragma once

#include <stdint.h>

#include "platform/com.h"

// The class id of the management service's object; the module asks it for IVdsAdmin.
// {7D1933CB-86F6-4A98-8628-01BE94C9A575}
constexpr CLSID CLSID_VdsService = MakeGuid(0x7d1933cb, 0x86f6, 0x4a98, 0x86, 0x28, 0x01, 0xbe, 0x94, 0xc9, 0xa5, 0x75);

// The result of creating an object whose class is not registered with the host.
#define REGDB_E_CLASSNOTREG ((HRESULT)0x80040154L)

extern "C" {

struct TrovHostServices {
    void* context;
    // Creates an object of class `clsid` and gives its interface `iid` (a new reference).
    HRESULT (*createInstance)(void* context, REFCLSID clsid, REFIID iid, void** ppv);
    // Applies a script in the registry export format to the host's class registry as one change:
    // "[KEY]" creates a key, "[-KEY]" removes the key with everything beneath it, "@" names a
    // key's default value. Nothing changes when the call fails.
    HRESULT (*applyRegistry)(void* context, const char* script);
};

// Installs the services (copied), or removes them with null. Exported by the module.
typedef void (*TrovSetHostServicesFn)(const TrovHostServices* services);
void TrovSetHostServices(const TrovHostServices* services);
}
