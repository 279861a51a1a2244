// Commands about the provider, its whole tree and the shell itself.
#include "handlers.h"
#include "shell.h"

namespace trovctl {

namespace {

HRESULT ProviderProps(IVdsProvider* provider, Json* j) {
    VDS_PROVIDER_PROP p{};
    HRESULT hr = provider->GetProperties(&p);
    if (SUCCEEDED(hr)) *j = ProviderJson(p);
    return hr;
}

// The rows of a listing; an exit status (the failure is reported).
int ListRows(Shell& sh, Kind kind, Json* rows) {
    std::vector<Object> all;
    HRESULT hr = sh.Enumerate(kind, &all);
    if (FAILED(hr)) return sh.Failed("the enumeration of the tree", hr);
    *rows = Json::array();
    for (Object& o : all) rows->push_back(std::move(o.props));
    return kOk;
}

}  // namespace

int CmdHelp(Shell& sh, const Call&) {
    sh.render().out() << HelpText() << "\n";
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
    Json rows;
    int rc = ListRows(sh, kind, &rows);
    if (rc != kOk) return rc;
    sh.render().Table(kind, rows, sh.Doubt());
    return kOk;
}

int Shell::Overview() {
    Json provider;
    HRESULT hr = ProviderProps(provider_, &provider);
    if (FAILED(hr)) return Failed("GetProperties", hr);
    Json doc = {{"provider", provider}};
    std::string doubt = Doubt();
    if (!doubt.empty()) {
        doc["incomplete"] = true;
        doc["reason"] = doubt;
    }
    if (!json()) render_.Object(provider);
    for (Kind k : kAllKinds) {
        if (k == Kind::Plex) continue;  // one per LUN: listed on request
        Json rows;
        if (k == Kind::Pool) {
            // A host without pools (or pools switched off) has none to show.
            std::vector<Object> pools;
            if (FAILED(Enumerate(k, &pools))) continue;
        }
        int rc = ListRows(*this, k, &rows);
        if (rc != kOk) return rc;
        if (json())
            doc[KindPlural(k)] = rows;
        else
            render_.Table(k, rows);
    }
    if (json())
        render_.out() << doc.dump(2) << "\n";
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
        sh.render().out() << sel.dump(2) << "\n";
    } else {
        sh.render().out() << "selected " << KindName(o.kind) << " " << j["id"].get<std::string>() << "  "
                          << RowLabel(o.kind, j) << "\n";
    }
    return kOk;
}

int CmdDetail(Shell& sh, const Call& c) {
    Object o;
    int rc = sh.ResolveArgs(c, 0, &o);
    if (rc != kOk) return rc;
    HRESULT hr = PropsOf(o);
    if (FAILED(hr)) return sh.Failed("GetProperties", hr);
    sh.render().Object(o.props);
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
    if (c.args.size() == 1 && (c.args[0] == "on" || c.args[0] == "off")) {
        if (c.args[0] == "on")
            sh.StartWatching();
        else
            sh.StopWatching();
        return kOk;
    }
    if (c.args.size() != 1 || !ParseNumber(c.args[0], 0, 86400, &seconds))
        return sh.Usage("usage: watch SECONDS | watch on|off");
    return sh.WatchFor(static_cast<int>(seconds * 1000)) ? kOk : kInterrupted;
}

}  // namespace trovctl
