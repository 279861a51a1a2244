// The provider's object tree as trovctl walks it: the kinds of object and their words, an object
// with its properties, every object of a kind in the provider's order, and an object's properties
// as a JSON object with the published field names. Only the published interfaces are used.
#pragma once

#include <map>
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
// "drive" or "drives" (in any case): the kind; false for any other word.
bool ParseKind(const std::string& word, Kind* k);

struct Object {
    Kind kind;
    GUID id{};
    CComPtr<IUnknown> unk;
    nlohmann::ordered_json props{};  // as the listing read them; null until read
    long number = -1;                // its number in listings of this run; -1 until numbered
};

// The numbers of the objects of a run: an object keeps the number it was first listed under for
// as long as the run lasts, whatever else changes (a rename reorders the provider's lists), and a
// new object takes the next free number of its kind. Numbers of objects that went away are not
// given again, so that "lun 2" never silently means another LUN.
class Numbering {
public:
    // Numbers `objects` (in their order, new ones after the known ones) and sorts them by number.
    void Assign(Kind kind, std::vector<Object>* objects);
    // How many numbers of a kind were given out so far.
    size_t Issued(Kind kind) const;
    // The number of an object; -1 when it has none yet.
    long NumberOf(Kind kind, const GUID& id) const;

private:
    struct Less {
        bool operator()(const GUID& a, const GUID& b) const;
    };
    std::map<Kind, std::map<GUID, long, Less>> numbers_;
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

// Lower case (ASCII): commands and kinds are taken in any case.
std::string Lower(std::string s);

// The object's properties as published field names, each enum and flags field followed by its
// text form (words.h); S_OK or the failing call's result.
HRESULT Describe(const Object& o, nlohmann::ordered_json* j);
// The object's properties, read once.
HRESULT PropsOf(Object& o);

// A whole decimal number within [lo, hi].
bool ParseNumber(const std::string& w, long lo, long hi, long* v);

}  // namespace trovctl
