// Small pieces every object class of the tree shares: the strings an object keeps and the ones it
// hands to the host, record texts widened, the buffer of a controller's record, and the creator's
// pattern of a child object. A failed allocation here throws (objects/boundary.h); only the
// host's task-memory copies answer with a null.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "core/globals.h"
#include "core/provider.h"
#include "platform/com.h"
#include "platform/platform.h"
#include "platform/wintypes.h"

// An object's own copy of a property string: a 514-byte block (256 characters and the NUL).
LPWSTR NewObjectString(const std::u16string& text);
// A block of `chars` characters, all NUL, that FreeObjectString lets go of.
LPWSTR NewObjectBlock(size_t chars);
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
// The buffer of one ControllerData record (2.5 MB, read whole), uninitialised.
std::unique_ptr<uint8_t[]> NewRecordBuffer();
// Uppercase hexadecimal of `n` bytes, two digits each, `sep` between them.
std::string HexBytes(const uint8_t* p, size_t n, const char* sep = "");
// The text without its trailing blanks.
std::string TrimRight(std::string s);

// A counted reference to an object of the tree, as its creator holds it while it is set up.
template <class T>
using TreePtr = CComPtr<CComObject<T>>;

// The creator's pattern: a fresh GUID into *id; during a refresh the object that carried `key`
// before (its old id replaces *id), otherwise a new object. An object that cannot be made is a
// failed allocation.
template <class T>
TreePtr<T> MakeTreeObject(CProvider* provider, VDS_OBJECT_ID* id, const std::u16string& key) {
    CoCreateGuid(id);
    CComObject<T>* obj = nullptr;
    if (isRefreshing.load())
        obj = FindObjAndGuid<T>(provider, id, key);
    else if (FAILED(CComObject<T>::CreateInstance(&obj)))
        obj = nullptr;
    if (!obj) throw std::bad_alloc();
    return TreePtr<T>(obj);
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
