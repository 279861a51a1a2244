#include "objects/object_util.h"

#include <cstring>

#include "platform/wstr.h"

namespace {
constexpr size_t kObjectStringChars = 257;  // 514 bytes
constexpr size_t kPropStringChars = 256;    // 512 bytes
constexpr size_t kPropStringMaxText = 254;
}  // namespace

LPWSTR NewObjectString(const std::u16string& text) {
    auto* s = new (std::nothrow) WCHAR[kObjectStringChars]();
    if (!s) return nullptr;
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

void ReleaseMap(ObjectMap& map) {
    ObjectMap old;
    old.swap(map);  // a release may reach code that walks the map
    for (auto& [id, e] : old)
        if (e.pObject) e.pObject->Release();
}
