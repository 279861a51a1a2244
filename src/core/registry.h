// The provider's registry of objects and their identity.
//
// The object map holds every object of the tree by id; the identity map ties a key text (made of
// what the array knows: serials, names, addresses) to the id and object that first carried it,
// so that a rebuilt tree finds the same object under the same id. Both are indexed: by id, and
// by (kind, key text), so that a rebuild of the largest array costs no quadratic walk. Results
// are those of a walk in id order: for a key text that several objects carried, the first in id
// order wins.
//
// The identity map holds a counted reference on each object it names: an object that a refresh no
// longer reaches stays alive and findable until the provider dies, so no entry ever dangles.
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

// An entry of the provider's maps: the object's kind and a pointer to it.
struct ObjectEntry {
    VDS_OBJECT_TYPE type;
    IUnknown* pObject;
};

using ObjectMap = std::map<VDS_OBJECT_ID, ObjectEntry, GuidLess>;

class ObjectRegistry {
public:
    ObjectRegistry() = default;
    ~ObjectRegistry();
    ObjectRegistry(const ObjectRegistry&) = delete;
    ObjectRegistry& operator=(const ObjectRegistry&) = delete;

    // --- object map ---
    // Inserts unless the id is there; false (and the old entry kept) when it was.
    bool AddObject(const VDS_OBJECT_ID& id, const ObjectEntry& entry);
    // Removes the id; an absent id is no error. Inert while `refreshing`: the map is being refilled.
    void RemoveObject(const VDS_OBJECT_ID& id, bool refreshing);
    // The entry of `id` when its kind is `type` (any kind for VDS_OT_UNKNOWN).
    const ObjectEntry* Find(const VDS_OBJECT_ID& id, VDS_OBJECT_TYPE type = VDS_OT_UNKNOWN) const;
    const ObjectMap& Objects() const { return objects_; }
    void ClearObjects() { objects_.clear(); }

    // --- identity map ---
    struct Identity {
        std::u16string key;
        VDS_OBJECT_TYPE type;
        IUnknown* object;  // counted
        CVdsBase* base;
    };
    // Enters the pair; an id already entered keeps its first entry. Adds a reference on success.
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
std::string LogGuid(const GUID& g);
