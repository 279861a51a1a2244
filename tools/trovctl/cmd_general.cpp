// Commands about the provider, its whole tree and the shell itself.
#include <algorithm>
#include <map>
#include <sstream>

#include "handlers.h"
#include "shell.h"
#include "targets.h"

namespace trovctl {

namespace {

HRESULT ProviderProps(IVdsProvider* provider, Json* j) {
    VDS_PROVIDER_PROP p{};
    HRESULT hr = provider->GetProperties(&p);
    if (SUCCEEDED(hr)) *j = ProviderJson(p);
    return hr;
}

IUnknown* Identity(IUnknown* unk) {
    IUnknown* id = nullptr;
    if (unk && SUCCEEDED(unk->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&id))) && id) id->Release();
    return id;
}

// "host01.demo.local, host02.demo.local": the hosts of an unmasking list, an iSCSI name by the
// part after its last colon (the host's own name), "all" for "*", "-" for none.
std::string Hosts(const std::string& list) {
    if (list.empty()) return "-";
    if (list == "*") return "all";
    std::string out, name;
    std::istringstream in(list);
    while (std::getline(in, name, ';')) {
        if (name.empty()) continue;
        size_t colon = name.rfind(':');
        out += (out.empty() ? "" : ", ") + (colon == std::string::npos ? name : name.substr(colon + 1));
    }
    return out.empty() ? "-" : out;
}

// What a LUN listing adds: each LUN's pool (the vdisk's concrete pool), LUN number, hosts.
void AddLunCells(Shell& sh, std::vector<Row>* rows, const std::vector<Object>& luns) {
    std::map<IUnknown*, std::string> poolOf;
    std::vector<Object> pools;
    if (SUCCEEDED(sh.Enumerate(Kind::Pool, &pools))) {
        for (Object& p : pools) {
            if (p.props.value("type", 0) != VDS_SPT_CONCRETE) continue;
            CComPtr<IVdsStoragePool> pool = As<IVdsStoragePool>(p.unk, IID_IVdsStoragePool);
            IEnumVdsObject* e = nullptr;
            std::vector<Object> held;
            if (!pool || FAILED(pool->QueryAllocatedLuns(&e)) || FAILED(Drain(e, Kind::Lun, &held))) continue;
            for (Object& l : held) poolOf[Identity(l.unk)] = p.props.value("pwszName", std::string());
        }
    }
    for (size_t i = 0; i < rows->size() && i < luns.size(); ++i) {
        Row& r = (*rows)[i];
        auto it = poolOf.find(Identity(luns[i].unk));
        if (it != poolOf.end()) r.more["POOL"] = it->second;
        CComPtr<IVdsLunNumber> number = As<IVdsLunNumber>(luns[i].unk, IID_IVdsLunNumber);
        ULONG n = 0;
        if (number && SUCCEEDED(number->GetLunNumber(&n))) r.more["LUN"] = std::to_string(n);
        r.more["HOSTS"] = Hosts(r.props.value("pwszUnmaskingList", std::string()));
    }
}

// What a plex listing adds: the name of each plex's LUN.
void AddPlexCells(std::vector<Row>* rows, const std::vector<Object>& plexes) {
    for (size_t i = 0; i < rows->size() && i < plexes.size(); ++i) {
        CComPtr<IVdsLunPlex> x = As<IVdsLunPlex>(plexes[i].unk, IID_IVdsLunPlex);
        IVdsLun* lun = nullptr;
        if (!x || FAILED(x->GetLun(&lun)) || !lun) continue;
        Object l{Kind::Lun, {}, {}};
        l.unk.Attach(lun);
        Json j;
        if (SUCCEEDED(Describe(l, &j))) (*rows)[i].more["LUN"] = j.value("pwszFriendlyName", std::string());
    }
}

}  // namespace

std::vector<Row> RowsOf(Shell& sh, Kind kind, std::vector<Object>& objects) {
    std::vector<Row> rows;
    for (Object& o : objects) rows.push_back(Row{o.number, o.props, {}});
    if (kind == Kind::Lun) AddLunCells(sh, &rows, objects);
    if (kind == Kind::Plex) AddPlexCells(&rows, objects);
    return rows;
}

int ListRows(Shell& sh, Kind kind, std::vector<Row>* rows) {
    std::vector<Object> all;
    HRESULT hr = sh.Enumerate(kind, &all);
    if (FAILED(hr)) return sh.Failed("the enumeration of the tree", hr);
    *rows = RowsOf(sh, kind, all);
    return kOk;
}

int CmdHelp(Shell& sh, const Call&) {
    sh.render().out() << HelpText() << "\n";
    return kOk;
}

int CmdVersion(Shell& sh, const Call& c) {
    if (!c.args.empty()) return sh.Usage("version takes no arguments");
    if (sh.json())
        sh.render().out() << sh.render().Dump(Json{{"trovctl", kTrovctlVersion}}) << "\n";
    else
        sh.render().out() << "trovctl " << kTrovctlVersion << "\n";
    return kOk;
}

int CmdQuit(Shell& sh, const Call&) {
    sh.Quit();
    return kOk;
}

int CmdInfo(Shell& sh, const Call& c) {
    if (!c.args.empty()) return sh.Usage("info takes no arguments");
    Json j;
    HRESULT hr = ProviderProps(sh.provider(), &j);
    if (FAILED(hr)) return sh.Failed("GetProperties", hr);
    sh.render().Object(j);
    return kOk;
}

int CmdList(Shell& sh, const Call& c) {
    Kind kind;
    if (c.args.size() != 1 || !ParseKind(c.args[0], &kind))
        return sh.Usage("list what? subsystems, controllers, ports, drives, luns, plexes, pools, targets, portals or "
                        "portalgroups");
    std::vector<Row> rows;
    int rc = ListRows(sh, kind, &rows);
    if (rc != kOk) return rc;
    sh.render().Table(kind, rows, sh.Doubt());
    return kOk;
}

int Shell::Overview() {
    Json provider;
    HRESULT hr = ProviderProps(provider_, &provider);
    if (FAILED(hr)) return Failed("GetProperties", hr);
    // Said first, so that whoever finds this output in a log knows what it is.
    const char* what = "the provider's properties and every object of the array, kind by kind (trovctl ran "
                       "without a command; trovctl --help lists the commands)";
    Json doc = {{"overview", what}, {"provider", provider}};
    std::string doubt = Doubt();
    if (!doubt.empty()) {
        doc["incomplete"] = true;
        doc["reason"] = doubt;
    }
    if (!json()) {
        render_.out() << "Overview: " << what << "\n\nprovider\n";
        render_.Object(provider);
    }
    for (Kind k : kAllKinds) {
        std::vector<Row> rows;
        if (k == Kind::Pool) {
            // A host without pools (or pools switched off) has none to show.
            std::vector<Object> pools;
            if (FAILED(Enumerate(k, &pools))) continue;
        }
        int rc = ListRows(*this, k, &rows);
        if (rc != kOk) return rc;
        if (json()) {
            Json list = Json::array();
            for (Row& r : rows) list.push_back(std::move(r.props));
            doc[KindPlural(k)] = list;
        } else {
            render_.out() << "\n";
            render_.Table(k, rows);
        }
    }
    if (json())
        render_.out() << render_.Dump(doc) << "\n";
    else if (!doubt.empty())
        render_.Note("this listing may be incomplete: " + doubt);
    return kOk;
}

int CmdSelect(Shell& sh, const Call& c) {
    if (c.args.empty()) return sh.Usage("select what? (select drive 3, select controller 0, select ID)");
    Object o;
    int rc = sh.ResolveArgs(c, 0, &o);
    if (rc != kOk) return rc;
    HRESULT hr = PropsOf(o);
    if (FAILED(hr)) return sh.Failed("GetProperties", hr);
    sh.Select(o);
    const Json& j = o.props;
    if (sh.json()) {
        Json sel = {{"selected", KindName(o.kind)}, {"id", j["id"]}};
        if (j.contains("pwszFriendlyName"))
            sel["pwszFriendlyName"] = j["pwszFriendlyName"];
        else
            sel["label"] = RowLabel(o.kind, j);
        sh.render().out() << sh.render().Dump(sel) << "\n";
    } else {
        sh.render().out() << "selected " << ShortLabel(o) << "  " << j["id"].get<std::string>() << "\n";
    }
    return kOk;
}

// The portals an initiator connects to for a target: ADDRESS:PORT of the portals of its groups.
HRESULT TargetPortals(const Object& target, Json* portals) {
    CComPtr<IVdsIscsiTarget> t = As<IVdsIscsiTarget>(target.unk, IID_IVdsIscsiTarget);
    if (!t) return E_NOINTERFACE;
    IEnumVdsObject* e = nullptr;
    std::vector<Object> groups;
    HRESULT hr;
    if (FAILED(hr = t->QueryPortalGroups(&e)) || FAILED(hr = Drain(e, Kind::PortalGroup, &groups))) return hr;
    *portals = Json::array();
    for (Object& g : groups) {
        CComPtr<IVdsIscsiPortalGroup> group = As<IVdsIscsiPortalGroup>(g.unk, IID_IVdsIscsiPortalGroup);
        std::vector<Object> list;
        e = nullptr;
        if (!group || FAILED(hr = group->QueryAssociatedPortals(&e)) || FAILED(hr = Drain(e, Kind::Portal, &list)))
            return hr;
        for (Object& p : list) {
            Json j;
            if (FAILED(hr = Describe(p, &j))) return hr;
            std::string at = RowLabel(Kind::Portal, j);
            if (std::find(portals->begin(), portals->end(), at) == portals->end()) portals->push_back(at);
        }
    }
    return S_OK;
}

int CmdDetail(Shell& sh, const Call& c) {
    Object o;
    int rc = sh.ResolveArgs(c, 0, &o);
    if (rc != kOk) return rc;
    HRESULT hr = PropsOf(o);
    if (FAILED(hr)) return sh.Failed("GetProperties", hr);
    Json j = o.props;
    if (o.kind == Kind::Target) {
        // Where to point an initiator: the target's portals, by address and port.
        Json portals;
        if (FAILED(hr = TargetPortals(o, &portals))) return sh.Failed("QueryPortalGroups", hr);
        j["portals"] = portals;
    }
    sh.render().Object(j);
    return kOk;
}

int CmdReenumerate(Shell& sh, const Call& c) {
    if (!c.args.empty()) return sh.Usage("usage: reenumerate [subsystem [TARGET]]");
    CComPtr<IVdsHwProvider> hw = As<IVdsHwProvider>(sh.provider(), IID_IVdsHwProvider);
    if (!hw) return sh.Failed("QueryInterface(IVdsHwProvider)", E_NOINTERFACE);
    HRESULT hr = hw->Reenumerate();
    if (FAILED(hr)) return sh.Failed("Reenumerate", hr);
    sh.Done("reenumerate");
    return kOk;
}

int CmdRefresh(Shell& sh, const Call& c) {
    if (!c.args.empty()) return sh.Usage("refresh takes no arguments");
    CComPtr<IVdsHwProvider> hw = As<IVdsHwProvider>(sh.provider(), IID_IVdsHwProvider);
    if (!hw) return sh.Failed("QueryInterface(IVdsHwProvider)", E_NOINTERFACE);
    HRESULT hr = hw->Refresh();
    if (FAILED(hr)) return sh.Failed("Refresh", hr);
    sh.Done("refresh");
    return kOk;
}

int CmdWatch(Shell& sh, const Call& c) {
    long seconds = 0;
    if (c.args.size() == 1 && (Lower(c.args[0]) == "on" || Lower(c.args[0]) == "off")) {
        bool on = Lower(c.args[0]) == "on";
        if (on)
            sh.StartWatching();
        else
            sh.StopWatching();
        if (sh.json())
            sh.render().out() << sh.render().Dump(Json{{"command", "watch"}, {"watching", on}}) << "\n";
        else
            sh.render().out() << (on ? "watching: the provider's notifications are printed as they arrive (watch off "
                                       "keeps them again)\n"
                                     : "not watching: notifications are kept for the next watch\n");
        return kOk;
    }
    if (c.args.size() != 1 || !ParseNumber(c.args[0], 0, 86400, &seconds))
        return sh.Usage("usage: watch SECONDS | watch on|off");
    return sh.WatchFor(static_cast<int>(seconds * 1000)) ? kOk : kInterrupted;
}

}  // namespace trovctl
