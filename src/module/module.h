// Entry points of the provider module.
//
// A host opens the module (dlopen), asks DllGetClassObject for the class factory of
// CLSID_TrovHwProvider and creates the provider through it. The module's load and unload make and
// close the three named mutexes (DllMain with the attach and detach reasons, run by the shared
// object's constructor and destructor).
#pragma once

#include "platform/com.h"

constexpr DWORD DLL_PROCESS_DETACH = 0;
constexpr DWORD DLL_PROCESS_ATTACH = 1;

extern "C" {
BOOL DllMain(void* instance, DWORD reason, void* reserved);
HRESULT DllCanUnloadNow();
HRESULT DllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv);
}

void InitLock();
void InitRefreshLock();
void FreeLock();
void FreeRefreshLock();
