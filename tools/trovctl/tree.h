// The provider's object tree as trovctl walks it: the kinds of object and their words, an object
// with its properties, every object of a kind in the provider's order, and an object's properties
// as a JSON object with the published field names. Only the published interfaces are used.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/com.h"
#include "platform/vds.h"
#include "platform/vds_interfaces.h"

namespace trovctl {

enum class Kind { Subsystem, Controller, Port, Drive, Lun, Plex, Pool, Target, Portal, PortalGroup };

// Every kind, in the order of the overview.
extern const std::vector<Kind> kAllKinds;

const char* KindName(Kind k);    // "drive"
std::string KindPlural(Kind k);  // "drives", "plexes"
VDS_OBJECT_TYPE ObjectType(Kind k);
// "drive" or "drives": the kind; false for any other word.
bool ParseKind(const std::string& word, Kind* k);

struct Object {
    Kind kind;
    GUID id{};
    CComPtr<IUnknown> unk;
    nlohmann::ordered_json props{};  // as the listing read them; null until read
};

template <class T>
CComPtr<T> As(IUnknown* unk, REFIID iid) {
    CComPtr<T> p;
    if (unk) unk->QueryInterface(iid, reinterpret_cast<void**>(&p));
    return p;
}

// Drains an enumerator (and releases it) into objects of one kind.
HRESULT Drain(IEnumVdsObject* e, Kind kind, std::vector<Object>* out);

// Every object of one kind, in the provider's order (subsystems, then per subsystem its
// controllers, their ports, its drives), each with its id and properties. `stop`, when given, is
// asked between objects: a true answer ends the walk with E_ABORT.
HRESULT Enumerate(IVdsProvider* provider, Kind kind, std::vector<Object>* out, bool (*stop)() = nullptr);
// The number of subsystems the provider knows: 0 when it reached no array.
size_t SubsystemCount(IVdsProvider* provider);

// The object's properties as published field names; S_OK or the failing call's result.
HRESULT Describe(const Object& o, nlohmann::ordered_json* j);
// The object's properties, read once.
HRESULT PropsOf(Object& o);

// A whole decimal number within [lo, hi].
bool ParseNumber(const std::string& w, long lo, long hi, long* v);

}  // namespace trovctl
