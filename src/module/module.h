// Entry points of the provider module.
//
// A host opens the module (dlopen), asks DllGetClassObject for the class factory of
// CLSID_TrovHwProvider and creates the provider through it. The module's load and unload make and
// close the three named mutexes (DllMain with the attach and detach reasons, run by the shared
// object's constructor and destructor).
//
// Registration: DllRegisterServer announces the provider to the management service (IVdsAdmin,
// created through the services a host lends with TrovSetHostServices) and, only when that
// succeeded, writes the class keys with the module's own file path; DllUnregisterServer withdraws
// the announcement and then removes exactly those keys. A failure returns at once and leaves what
// was done.
#pragma once

#include <string>

#include "platform/com.h"
#include "platform/host_services.h"

constexpr DWORD DLL_PROCESS_DETACH = 0;
constexpr DWORD DLL_PROCESS_ATTACH = 1;

extern "C" {
BOOL DllMain(void* instance, DWORD reason, void* reserved);
HRESULT DllCanUnloadNow();
HRESULT DllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv);
HRESULT DllRegisterServer();
HRESULT DllUnregisterServer();
}

void InitLock();
void InitRefreshLock();
void FreeLock();
void FreeRefreshLock();

// The class keys the module writes for a module file at `modulePath`, and the script that removes
// them, in the registry export format (keys under HKEY_CLASSES_ROOT).
std::string RegistrationScript(const std::string& modulePath);
std::string UnregistrationScript();
// The absolute path of the file this code was loaded from (empty when it can't be told).
std::string ModuleFilePath();
