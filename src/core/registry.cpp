#include "core/registry.h"

#include <cstdio>

#include "support/debuglog.h"

std::string LogGuid(const GUID& g) {
    // Every object of a load is logged with its id; the text is made only when a log takes it.
    if (!DebugSinkActive()) return std::string();
    char buf[40];
    std::snprintf(buf, sizeof buf, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", g.Data1, g.Data2, g.Data3,
                  g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return buf;
}

bool OwningMap::Enter(const VDS_OBJECT_ID& id, VDS_OBJECT_TYPE type, IUnknown* object) {
    if (map_.count(id)) return false;
    map_.emplace(id, OwnedEntry{type, object});
    return true;
}

void OwningMap::Remove(const VDS_OBJECT_ID& id) {
    auto it = map_.find(id);
    if (it == map_.end()) return;
    Map::node_type gone = map_.extract(it);  // released when it goes out of scope
}

void OwningMap::Clear() {
    Map old;
    old.swap(map_);
}

void ObjectRegistry::ReleaseIdentities() {
    // Moved out first: the releases reach destructors that call back into the registry.
    std::map<VDS_OBJECT_ID, Identity, GuidLess> old;
    old.swap(identities_);
    byKey_.clear();
}

bool ObjectRegistry::AddObject(const VDS_OBJECT_ID& id, const ObjectEntry& entry) {
    bool added = objects_.emplace(id, entry).second;
    DebugTrace("CProvider::AddObject VDS_OBJECT_TYPE %d guid %s%s\n", static_cast<int>(entry.type),
               LogGuid(id).c_str(), added ? "" : " (ALREADY EXISTS--NOT ADDED)");
    return added;
}

void ObjectRegistry::RemoveObject(const VDS_OBJECT_ID& id, bool refreshing) {
    if (refreshing) return;
    objects_.erase(id);
}

void ObjectRegistry::DropObject(const VDS_OBJECT_ID& id, const IUnknown* object) {
    auto it = objects_.find(id);
    if (it != objects_.end() && it->second.pObject == object) objects_.erase(it);
}

const ObjectEntry* ObjectRegistry::Find(const VDS_OBJECT_ID& id, VDS_OBJECT_TYPE type) const {
    auto it = objects_.find(id);
    if (it == objects_.end()) return nullptr;
    if (type != VDS_OT_UNKNOWN && it->second.type != type) return nullptr;
    return &it->second;
}

bool ObjectRegistry::RememberObject(const VDS_OBJECT_ID& id, const std::u16string& key, VDS_OBJECT_TYPE type,
                                    IUnknown* object, CVdsBase* base) {
    DebugTrace("Adding VDS object \"%S\" with ", key.c_str());
    DebugTrace("%s\n", LogGuid(id).c_str());
    if (identities_.count(id)) return false;
    // Both indexes or neither: a failed allocation in the second takes the first entry back.
    std::set<VDS_OBJECT_ID, GuidLess>& ids = byKey_[KindKey{type, key}];
    ids.insert(id);
    try {
        identities_.emplace(id, Identity{key, type, object, base});
    } catch (...) {
        ids.erase(id);
        throw;
    }
    return true;
}

const ObjectRegistry::Identity* ObjectRegistry::FindIdentity(VDS_OBJECT_TYPE type, const std::u16string& key,
                                                             VDS_OBJECT_ID* id) const {
    auto it = byKey_.find(KindKey{type, key});
    if (it == byKey_.end() || it->second.empty()) return nullptr;
    const VDS_OBJECT_ID& first = *it->second.begin();
    if (id) *id = first;
    return &identities_.at(first);
}
