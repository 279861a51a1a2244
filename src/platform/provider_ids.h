// Fixed identities of the provider: its class id (what a host asks the module's class factory
// for), its provider id and its version id.
#pragma once

#include "platform/wintypes.h"

// {5B7C1E2A-3D94-4F61-A8E2-7C0D9B4E6F13}
constexpr CLSID CLSID_TrovHwProvider = MakeGuid(0x5b7c1e2a, 0x3d94, 0x4f61, 0xa8, 0xe2, 0x7c, 0x0d, 0x9b, 0x4e, 0x6f, 0x13);
// {8E3F6A51-C2B7-4D08-9F1E-2A6B5C4D7E90}
constexpr GUID TROV_PROVIDER_ID = MakeGuid(0x8e3f6a51, 0xc2b7, 0x4d08, 0x9f, 0x1e, 0x2a, 0x6b, 0x5c, 0x4d, 0x7e, 0x90);
// {1D4A7B2C-9E36-4C85-B0F7-6E2D3A9C8B15}
constexpr GUID TROV_PROVIDER_VERSION_ID = MakeGuid(0x1d4a7b2c, 0x9e36, 0x4c85, 0xb0, 0xf7, 0x6e, 0x2d, 0x3a, 0x9c, 0x8b, 0x15);
