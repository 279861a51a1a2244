// The provider's registry of objects and their identity, and the maps by which objects own others.
//
// The object map holds every object of the tree by id; the identity map ties a key text (made of
// what the array knows: serials, names, addresses) to the id and object that first carried it,
// so that a rebuilt tree finds the same object under the same id. Both are indexed: by id, and
// by (kind, key text), so that a rebuild of the largest array costs no quadratic walk. Results
// are those of a walk in id order: for a key text that several objects carried, the first in id
// order wins.
//
// Ownership is in the types. The object map holds no reference: an object leaves it when the tree
// lets go of it, and at the latest when it dies (DropObject). The identity map holds a counted
// reference on each object it names: an object that a refresh no longer reaches stays alive and
// findable until the provider dies, so no entry ever dangles. A parent owns its children through an
// OwningMap, whose entries are counted references.
// Key texts are looked up among objects of the same kind: a controller port and an iSCSI portal
// share their address as key text, and must not be taken for one another.
//
// No lock of its own: the callers hold the notification mutex.
#pragma once

#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/com.h"
#include "platform/vds.h"

class CVdsBase;

// An entry of the object map: the object's kind and a pointer to it (no reference).
struct ObjectEntry {
    VDS_OBJECT_TYPE type;
    IUnknown* pObject;
};

using ObjectMap = std::map<VDS_OBJECT_ID, ObjectEntry, GuidLess>;

// An entry of a map that owns its object: the kind and a counted reference.
struct OwnedEntry {
    VDS_OBJECT_TYPE type;
    CComPtr<IUnknown> pObject;

    // The object as class T; null when it is of another class.
    template <class T>
    T* As() const {
        return dynamic_cast<T*>(pObject.get());
    }
};

// A map by id whose entries own their objects: a reference is taken when an object enters and let
// go when it leaves, by Remove, Clear or the map's end.
class OwningMap {
public:
    using Map = std::map<VDS_OBJECT_ID, OwnedEntry, GuidLess>;
    using const_iterator = Map::const_iterator;

    OwningMap() = default;
    ~OwningMap() { Clear(); }
    OwningMap(const OwningMap&) = delete;
    OwningMap& operator=(const OwningMap&) = delete;

    // Enters the object under `id` with a reference of the map's own; an id already there keeps
    // its entry, and the answer is false.
    bool Enter(const VDS_OBJECT_ID& id, VDS_OBJECT_TYPE type, IUnknown* object);
    // Takes the entry of `id` out (an absent id is no error); its reference goes once the map is
    // whole again.
    void Remove(const VDS_OBJECT_ID& id);
    // Empties the map. The entries leave first and are released after: a release may reach code
    // that walks this map.
    void Clear();

    const_iterator begin() const { return map_.begin(); }
    const_iterator end() const { return map_.end(); }
    const_iterator find(const VDS_OBJECT_ID& id) const { return map_.find(id); }
    size_t size() const { return map_.size(); }
    bool empty() const { return map_.empty(); }

private:
    Map map_;
};

class ObjectRegistry {
public:
    ObjectRegistry() = default;
    ~ObjectRegistry() { ReleaseIdentities(); }
    ObjectRegistry(const ObjectRegistry&) = delete;
    ObjectRegistry& operator=(const ObjectRegistry&) = delete;

    // --- object map ---
    // Inserts unless the id is there; false (and the old entry kept) when it was.
    bool AddObject(const VDS_OBJECT_ID& id, const ObjectEntry& entry);
    // Removes the id; an absent id is no error. Inert while `refreshing`: the map is being refilled.
    void RemoveObject(const VDS_OBJECT_ID& id, bool refreshing);
    // Removes the id if it names `object`, refreshing or not: an object that dies leaves no
    // pointer behind.
    void DropObject(const VDS_OBJECT_ID& id, const IUnknown* object);
    // The entry of `id` when its kind is `type` (any kind for VDS_OT_UNKNOWN).
    const ObjectEntry* Find(const VDS_OBJECT_ID& id, VDS_OBJECT_TYPE type = VDS_OT_UNKNOWN) const;
    const ObjectMap& Objects() const { return objects_; }
    void ClearObjects() { objects_.clear(); }

    // --- identity map ---
    struct Identity {
        std::u16string key;
        VDS_OBJECT_TYPE type;
        CComPtr<IUnknown> object;
        CVdsBase* base;
    };
    // Enters the pair; an id already entered keeps its first entry. Holds a reference on success.
    bool RememberObject(const VDS_OBJECT_ID& id, const std::u16string& key, VDS_OBJECT_TYPE type, IUnknown* object,
                        CVdsBase* base);
    // The first identity in id order with this kind and key text; null when none.
    const Identity* FindIdentity(VDS_OBJECT_TYPE type, const std::u16string& key, VDS_OBJECT_ID* id) const;
    size_t IdentityCount() const { return identities_.size(); }
    // Empties the identity map and lets go of its references (the provider's end).
    void ReleaseIdentities();
    const std::map<VDS_OBJECT_ID, Identity, GuidLess>& Identities() const { return identities_; }

private:
    struct KindKey {
        VDS_OBJECT_TYPE type;
        std::u16string key;
        bool operator==(const KindKey& o) const { return type == o.type && key == o.key; }
    };
    struct KindKeyHash {
        size_t operator()(const KindKey& k) const {
            return std::hash<std::u16string>()(k.key) * 31u + static_cast<size_t>(k.type);
        }
    };

    ObjectMap objects_;
    std::map<VDS_OBJECT_ID, Identity, GuidLess> identities_;
    std::unordered_map<KindKey, std::set<VDS_OBJECT_ID, GuidLess>, KindKeyHash> byKey_;
};

// "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", the GUID form of the log.
// The id as text for a log line; empty while no log takes text.
std::string LogGuid(const GUID& g);
