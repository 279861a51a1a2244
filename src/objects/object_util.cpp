#include "objects/object_util.h"

#include <cstdio>
#include <cstring>

#include "objects/controller.h"
#include "objects/subsystem.h"
#include "platform/wstr.h"

namespace {
constexpr size_t kObjectStringChars = 257;  // 514 bytes
constexpr size_t kPropStringChars = 256;    // 512 bytes
constexpr size_t kPropStringMaxText = 254;
}  // namespace

LPWSTR NewObjectBlock(size_t chars) { return new WCHAR[chars](); }

LPWSTR NewObjectString(const std::u16string& text) {
    WCHAR* s = NewObjectBlock(kObjectStringChars);
    size_t n = std::min(text.size(), kObjectStringChars - 1);
    std::memcpy(s, text.data(), n * sizeof(WCHAR));
    return s;
}

void FreeObjectString(LPWSTR& s) {
    delete[] s;
    s = nullptr;
}

LPWSTR CopyPropString(const WCHAR* s) {
    auto* out = static_cast<WCHAR*>(CoTaskMemAlloc(kPropStringChars * sizeof(WCHAR)));
    if (!out) return nullptr;
    std::memset(out, 0, kPropStringChars * sizeof(WCHAR));
    size_t n = s ? std::min(WStrLen(s), kPropStringMaxText) : 0;
    if (n) std::memcpy(out, s, n * sizeof(WCHAR));
    out[kPropStringChars - 1] = 0;
    return out;
}

HRESULT CopyPropStrings(const WCHAR* a, const WCHAR* b, LPWSTR* outA, LPWSTR* outB) {
    *outA = CopyPropString(a);
    if (!*outA) {
        *outB = nullptr;
        return E_OUTOFMEMORY;
    }
    *outB = CopyPropString(b);
    if (!*outB) {
        CoTaskMemFree(*outA);
        *outA = nullptr;
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

std::string FieldText(const char* field, size_t width) {
    size_t n = 0;
    while (n < width && field[n]) ++n;
    return std::string(field, n);
}

std::u16string WidenField(const char* field, size_t width) {
    std::u16string out;
    for (size_t i = 0; i < width && field[i]; ++i) out.push_back(static_cast<unsigned char>(field[i]));
    return out;
}

std::string TrimRight(std::string s) {
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

std::unique_ptr<uint8_t[]> NewRecordBuffer() { return std::unique_ptr<uint8_t[]>(new uint8_t[rec::kControllerDataSize]); }

std::string HexBytes(const uint8_t* p, size_t n, const char* sep) {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(n * (2 + std::strlen(sep)));
    for (size_t i = 0; i < n; ++i) {
        if (i && *sep) out += sep;
        out += kDigits[p[i] >> 4];
        out += kDigits[p[i] & 0x0F];
    }
    return out;
}

void HoldParents(CProvider* provider, CSubSystem* subsystem, CController* controller, CProvider** outProvider,
                 CSubSystem** outSubSystem, CController** outController) {
    if (provider) static_cast<IVdsProvider*>(provider)->AddRef();
    if (subsystem) static_cast<IVdsSubSystem*>(subsystem)->AddRef();
    if (controller) static_cast<IVdsController*>(controller)->AddRef();
    *outProvider = provider;
    *outSubSystem = subsystem;
    if (outController) *outController = controller;
}

void ReleaseParents(CProvider** provider, CSubSystem** subsystem, CController** controller) {
    if (controller && *controller) static_cast<IVdsController*>(*controller)->Release();
    if (*subsystem) static_cast<IVdsSubSystem*>(*subsystem)->Release();
    if (*provider) static_cast<IVdsProvider*>(*provider)->Release();
    if (controller) *controller = nullptr;
    *subsystem = nullptr;
    *provider = nullptr;
}

HRESULT HandOutSubSystem(CSubSystem* subsystem, IVdsSubSystem** out) {
    if (!out) return E_POINTER;
    if (!subsystem) return E_UNEXPECTED;
    *out = static_cast<IVdsSubSystem*>(subsystem);
    (*out)->AddRef();
    return S_OK;
}
