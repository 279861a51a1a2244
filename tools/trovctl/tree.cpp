#include "tree.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/wstr.h"
#include "render.h"
#include "words.h"

namespace trovctl {

const std::vector<Kind> kAllKinds = {Kind::Subsystem, Kind::Controller, Kind::Port,   Kind::Drive,
                                     Kind::Lun,       Kind::Plex,       Kind::Pool,   Kind::Target,
                                     Kind::Portal,    Kind::PortalGroup};

namespace {

struct KindWords {
    const char* one;
    const char* many;
    Kind kind;
    VDS_OBJECT_TYPE type;
};

const KindWords kKindWords[] = {
    {"subsystem", "subsystems", Kind::Subsystem, VDS_OT_SUB_SYSTEM},
    {"controller", "controllers", Kind::Controller, VDS_OT_CONTROLLER},
    {"port", "ports", Kind::Port, VDS_OT_PORT},
    {"drive", "drives", Kind::Drive, VDS_OT_DRIVE},
    {"lun", "luns", Kind::Lun, VDS_OT_LUN},
    {"plex", "plexes", Kind::Plex, VDS_OT_LUN_PLEX},
    {"pool", "pools", Kind::Pool, VDS_OT_STORAGE_POOL},
    {"target", "targets", Kind::Target, VDS_OT_TARGET},
    {"portal", "portals", Kind::Portal, VDS_OT_PORTAL},
    {"portalgroup", "portalgroups", Kind::PortalGroup, VDS_OT_PORTAL_GROUP},
};

const KindWords& WordsOf(Kind k) {
    for (const KindWords& w : kKindWords)
        if (w.kind == k) return w;
    return kKindWords[0];
}

}  // namespace

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool Numbering::Less::operator()(const GUID& a, const GUID& b) const { return std::memcmp(&a, &b, sizeof a) < 0; }

void Numbering::Assign(Kind kind, std::vector<Object>* objects) {
    auto& numbers = numbers_[kind];
    for (Object& o : *objects) {
        auto it = numbers.find(o.id);
        if (it == numbers.end()) it = numbers.emplace(o.id, static_cast<long>(numbers.size())).first;
        o.number = it->second;
    }
    std::stable_sort(objects->begin(), objects->end(),
                     [](const Object& a, const Object& b) { return a.number < b.number; });
}

size_t Numbering::Issued(Kind kind) const {
    auto it = numbers_.find(kind);
    return it == numbers_.end() ? 0 : it->second.size();
}

long Numbering::NumberOf(Kind kind, const GUID& id) const {
    auto it = numbers_.find(kind);
    if (it == numbers_.end()) return -1;
    auto n = it->second.find(id);
    return n == it->second.end() ? -1 : n->second;
}

const char* KindName(Kind k) { return WordsOf(k).one; }
std::string KindPlural(Kind k) { return WordsOf(k).many; }
VDS_OBJECT_TYPE ObjectType(Kind k) { return WordsOf(k).type; }

bool ParseKind(const std::string& word, Kind* k) {
    std::string w = Lower(word);
    for (const KindWords& n : kKindWords)
        if (w == n.one || w == n.many) {
            *k = n.kind;
            return true;
        }
    return false;
}

bool ParseNumber(const std::string& w, long lo, long hi, long* v) {
    if (w.empty()) return false;
    errno = 0;
    char* end = nullptr;
    long n = std::strtol(w.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || n < lo || n > hi) return false;
    *v = n;
    return true;
}

HRESULT Drain(IEnumVdsObject* e, Kind kind, std::vector<Object>* out) {
    if (!e) return E_POINTER;
    IUnknown* unk = nullptr;
    ULONG fetched = 0;
    HRESULT hr;
    while ((hr = e->Next(1, &unk, &fetched)) == S_OK && fetched == 1) {
        Object o{kind, {}, {}};
        o.unk.Attach(unk);
        out->push_back(std::move(o));
    }
    e->Release();
    return FAILED(hr) ? hr : S_OK;
}

namespace {

// The objects of `kind` under one subsystem, appended to *out.
HRESULT EnumerateIn(Object& s, Kind kind, std::vector<Object>* out) {
    HRESULT hr;
    IEnumVdsObject* e = nullptr;
    CComPtr<IVdsSubSystem> ss = As<IVdsSubSystem>(s.unk, IID_IVdsSubSystem);
    CComPtr<IVdsSubSystemIscsi> si = As<IVdsSubSystemIscsi>(s.unk, IID_IVdsSubSystemIscsi);
    if (!ss) return E_NOINTERFACE;
    switch (kind) {
    case Kind::Subsystem: out->push_back(s); break;
    case Kind::Drive:
        if (FAILED(hr = ss->QueryDrives(&e)) || FAILED(hr = Drain(e, Kind::Drive, out))) return hr;
        break;
    case Kind::Lun:
    case Kind::Plex: {
        std::vector<Object> luns;
        if (FAILED(hr = ss->QueryLuns(&e)) || FAILED(hr = Drain(e, Kind::Lun, &luns))) return hr;
        for (Object& l : luns) {
            if (kind == Kind::Lun) {
                out->push_back(l);
                continue;
            }
            CComPtr<IVdsLun> lun = As<IVdsLun>(l.unk, IID_IVdsLun);
            e = nullptr;
            if (lun && (FAILED(hr = lun->QueryPlexes(&e)) || FAILED(hr = Drain(e, Kind::Plex, out)))) return hr;
        }
        break;
    }
    case Kind::Target:
        if (!si) return E_NOINTERFACE;
        if (FAILED(hr = si->QueryTargets(&e)) || FAILED(hr = Drain(e, Kind::Target, out))) return hr;
        break;
    case Kind::Portal:
        if (!si) return E_NOINTERFACE;
        if (FAILED(hr = si->QueryPortals(&e)) || FAILED(hr = Drain(e, Kind::Portal, out))) return hr;
        break;
    case Kind::PortalGroup: {
        if (!si) return E_NOINTERFACE;
        std::vector<Object> targets, groups;
        if (FAILED(hr = si->QueryTargets(&e)) || FAILED(hr = Drain(e, Kind::Target, &targets))) return hr;
        for (Object& t : targets) {
            CComPtr<IVdsIscsiTarget> target = As<IVdsIscsiTarget>(t.unk, IID_IVdsIscsiTarget);
            e = nullptr;
            if (target &&
                (FAILED(hr = target->QueryPortalGroups(&e)) || FAILED(hr = Drain(e, Kind::PortalGroup, &groups))))
                return hr;
        }
        // A target shared by both controllers lists every group once.
        for (Object& g : groups) {
            bool seen = false;
            for (const Object& o : *out) seen = seen || o.unk.get() == g.unk.get();
            if (!seen) out->push_back(g);
        }
        break;
    }
    case Kind::Controller:
    case Kind::Port: {
        std::vector<Object> controllers;
        if (FAILED(hr = ss->QueryControllers(&e)) || FAILED(hr = Drain(e, Kind::Controller, &controllers))) return hr;
        for (Object& c : controllers) {
            if (kind == Kind::Controller) {
                out->push_back(c);
                continue;
            }
            CComPtr<IVdsControllerControllerPort> ccp =
                As<IVdsControllerControllerPort>(c.unk, IID_IVdsControllerControllerPort);
            if (!ccp) continue;
            e = nullptr;
            if (FAILED(hr = ccp->QueryControllerPorts(&e)) || FAILED(hr = Drain(e, Kind::Port, out))) return hr;
        }
        break;
    }
    case Kind::Pool: break;
    }
    return S_OK;
}

}  // namespace

HRESULT Enumerate(IVdsProvider* provider, Kind kind, std::vector<Object>* out, bool (*stop)()) {
    HRESULT hr;
    IEnumVdsObject* e = nullptr;
    if (kind == Kind::Pool) {
        CComPtr<IVdsHwProviderStoragePools> sp = As<IVdsHwProviderStoragePools>(provider, IID_IVdsHwProviderStoragePools);
        if (!sp) return E_NOINTERFACE;
        if (FAILED(hr = sp->QueryStoragePools(0, 0, nullptr, &e)) || FAILED(hr = Drain(e, Kind::Pool, out))) return hr;
    } else {
        CComPtr<IVdsHwProvider> hw = As<IVdsHwProvider>(provider, IID_IVdsHwProvider);
        if (!hw) return E_NOINTERFACE;
        if (FAILED(hr = hw->QuerySubSystems(&e))) return hr;
        std::vector<Object> subsystems;
        if (FAILED(hr = Drain(e, Kind::Subsystem, &subsystems))) return hr;
        for (Object& s : subsystems)
            if (FAILED(hr = EnumerateIn(s, kind, out))) return hr;
    }
    // The ids, from the properties every object has; the properties stay with the object.
    for (Object& o : *out) {
        if (stop && stop()) return E_ABORT;
        if (FAILED(hr = Describe(o, &o.props))) return hr;
        GuidFromString(o.props["id"].get<std::string>(), &o.id);
    }
    return S_OK;
}

size_t SubsystemCount(IVdsProvider* provider) {
    CComPtr<IVdsHwProvider> hw = As<IVdsHwProvider>(provider, IID_IVdsHwProvider);
    IEnumVdsObject* e = nullptr;
    std::vector<Object> subsystems;
    if (!hw || FAILED(hw->QuerySubSystems(&e)) || FAILED(Drain(e, Kind::Subsystem, &subsystems))) return 0;
    return subsystems.size();
}

static HRESULT DescribeRecord(const Object& o, nlohmann::ordered_json* j);

HRESULT PropsOf(Object& o) { return o.props.is_null() ? Describe(o, &o.props) : S_OK; }

HRESULT Describe(const Object& o, nlohmann::ordered_json* j) {
    HRESULT hr = DescribeRecord(o, j);
    if (SUCCEEDED(hr)) *j = WithTextForms(o.kind, *j);
    return hr;
}

static HRESULT DescribeRecord(const Object& o, nlohmann::ordered_json* j) {
    HRESULT hr = E_NOINTERFACE;
    switch (o.kind) {
    case Kind::Subsystem: {
        CComPtr<IVdsSubSystem2> s = As<IVdsSubSystem2>(o.unk, IID_IVdsSubSystem2);
        VDS_SUB_SYSTEM_PROP2 p{};
        if (s && SUCCEEDED(hr = s->GetProperties2(&p))) *j = SubsystemJson(p);
        break;
    }
    case Kind::Controller: {
        CComPtr<IVdsController> c = As<IVdsController>(o.unk, IID_IVdsController);
        VDS_CONTROLLER_PROP p{};
        if (c && SUCCEEDED(hr = c->GetProperties(&p))) *j = ControllerJson(p);
        break;
    }
    case Kind::Port: {
        CComPtr<IVdsControllerPort> c = As<IVdsControllerPort>(o.unk, IID_IVdsControllerPort);
        VDS_PORT_PROP p{};
        if (c && SUCCEEDED(hr = c->GetProperties(&p))) *j = PortJson(p);
        break;
    }
    case Kind::Drive: {
        CComPtr<IVdsDrive2> d = As<IVdsDrive2>(o.unk, IID_IVdsDrive2);
        VDS_DRIVE_PROP2 p{};
        if (d && SUCCEEDED(hr = d->GetProperties2(&p))) *j = DriveJson(p);
        break;
    }
    case Kind::Lun: {
        CComPtr<IVdsLun> l = As<IVdsLun>(o.unk, IID_IVdsLun);
        VDS_LUN_PROP p{};
        if (l && SUCCEEDED(hr = l->GetProperties(&p))) *j = LunJson(p);
        break;
    }
    case Kind::Plex: {
        CComPtr<IVdsLunPlex> x = As<IVdsLunPlex>(o.unk, IID_IVdsLunPlex);
        VDS_LUN_PLEX_PROP p{};
        if (x && SUCCEEDED(hr = x->GetProperties(&p))) *j = PlexJson(p);
        break;
    }
    case Kind::Pool: {
        CComPtr<IVdsStoragePool> x = As<IVdsStoragePool>(o.unk, IID_IVdsStoragePool);
        VDS_STORAGE_POOL_PROP p{};
        VDS_POOL_ATTRIBUTES a{};
        if (x && SUCCEEDED(hr = x->GetProperties(&p))) {
            bool attrs = SUCCEEDED(x->GetAttributes(&a));
            *j = PoolJson(p, attrs ? &a : nullptr);
        }
        break;
    }
    case Kind::Target: {
        CComPtr<IVdsIscsiTarget> x = As<IVdsIscsiTarget>(o.unk, IID_IVdsIscsiTarget);
        VDS_ISCSI_TARGET_PROP p{};
        if (x && SUCCEEDED(hr = x->GetProperties(&p))) *j = TargetJson(p);
        break;
    }
    case Kind::Portal: {
        CComPtr<IVdsIscsiPortal> x = As<IVdsIscsiPortal>(o.unk, IID_IVdsIscsiPortal);
        VDS_ISCSI_PORTAL_PROP p{};
        if (x && SUCCEEDED(hr = x->GetProperties(&p))) *j = PortalJson(p);
        break;
    }
    case Kind::PortalGroup: {
        CComPtr<IVdsIscsiPortalGroup> x = As<IVdsIscsiPortalGroup>(o.unk, IID_IVdsIscsiPortalGroup);
        VDS_ISCSI_PORTALGROUP_PROP p{};
        if (x && SUCCEEDED(hr = x->GetProperties(&p))) *j = GroupJson(p);
        break;
    }
    }
    return hr;
}

}  // namespace trovctl
