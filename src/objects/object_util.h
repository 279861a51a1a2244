// Small pieces every object class of the tree shares: the strings an object keeps and the ones it
// hands to the host, record texts widened, and the creator's pattern of a child object.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "core/globals.h"
#include "core/provider.h"
#include "platform/com.h"
#include "platform/platform.h"
#include "platform/wintypes.h"

// An object's own copy of a property string: a 514-byte block (256 characters and the NUL).
LPWSTR NewObjectString(const std::u16string& text);
void FreeObjectString(LPWSTR& s);

// The host's copy: a fresh 512-byte task-memory block with at most 254 characters and a NUL
// forced into the last wide position. Null when out of memory.
LPWSTR CopyPropString(const WCHAR* s);
// Both strings of a property record, or neither: when the second fails the first is freed and
// the answer is E_OUTOFMEMORY.
HRESULT CopyPropStrings(const WCHAR* a, const WCHAR* b, LPWSTR* outA, LPWSTR* outB);

// A record's fixed-width text up to its first NUL (or its whole width), widened byte by byte.
std::u16string WidenField(const char* field, size_t width);
std::string FieldText(const char* field, size_t width);
// Uppercase hexadecimal of `n` bytes, two digits each, `sep` between them.
std::string HexBytes(const uint8_t* p, size_t n, const char* sep = "");
// The text without its trailing blanks.
std::string TrimRight(std::string s);

// The creator's pattern: a fresh GUID into *id; during a refresh the object that carried `key`
// before (its old id replaces *id), otherwise a new object. Null when none could be made. The
// object comes back without a reference of the caller's.
template <class T>
CComObject<T>* MakeTreeObject(CProvider* provider, VDS_OBJECT_ID* id, const std::u16string& key) {
    CoCreateGuid(id);
    if (isRefreshing.load()) return FindObjAndGuid<T>(provider, id, key);
    CComObject<T>* obj = nullptr;
    if (FAILED(CComObject<T>::CreateInstance(&obj))) return nullptr;
    return obj;
}

class CSubSystem;
class CController;

// The counted references most objects of the tree hold on their parents (the controller may be
// null): taken together when an object is set up, let go together.
void HoldParents(CProvider* provider, CSubSystem* subsystem, CController* controller, CProvider** outProvider,
                 CSubSystem** outSubSystem, CController** outController);
void ReleaseParents(CProvider** provider, CSubSystem** subsystem, CController** controller);
// The subsystem as a GetSubSystem hands it out: E_POINTER without an out pointer, E_UNEXPECTED
// without a subsystem, else a counted reference.
HRESULT HandOutSubSystem(CSubSystem* subsystem, IVdsSubSystem** out);

// Enters an object in a map under its id with a reference the caller gives up; an id already
// there keeps its entry, and the reference goes back.
template <class I>
void EnterInMap(ObjectMap& map, const VDS_OBJECT_ID& id, VDS_OBJECT_TYPE kind, I* obj) {
    if (!map.emplace(id, ObjectEntry{kind, obj}).second) obj->Release();
}

// Releases every object of a map and empties it.
void ReleaseMap(ObjectMap& map);
