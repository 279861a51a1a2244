// Commands on drives: spares, the locate light and alarm (of a drive or a controller), and the
// drive extents of a drive, LUN, plex or pool.
#include "handlers.h"
#include "platform/platform.h"
#include "platform/wstr.h"
#include "shell.h"

namespace trovctl {

namespace {

int Maintain(Shell& sh, const Call& c, const std::string& op, size_t from, ULONG count) {
    Object o;
    int rc = sh.ResolveArgs(c, from, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsMaintenance> m = As<IVdsMaintenance>(o.unk, IID_IVdsMaintenance);
    if (!m) return sh.Failed("QueryInterface(IVdsMaintenance)", E_NOINTERFACE);
    HRESULT hr;
    const char* call;
    if (op == "beep") {
        call = "StartMaintenance(BeepAlarm)";
        hr = m->StartMaintenance(BeepAlarm);
    } else if (op == "blink") {
        call = "StartMaintenance(BlinkLight)";
        hr = m->StartMaintenance(BlinkLight);
    } else if (op == "stop") {
        call = "StopMaintenance(BlinkLight)";
        hr = m->StopMaintenance(BlinkLight);
    } else {
        call = "PulseMaintenance(BlinkLight)";
        hr = m->PulseMaintenance(BlinkLight, count);
    }
    if (FAILED(hr)) return sh.Failed(call, hr);
    sh.Done("maintenance " + op);
    return kOk;
}

int Flag(Shell& sh, const Call& c, bool set) {
    Object o;
    int rc = sh.ResolveArgs(c, 0, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsDrive> d = As<IVdsDrive>(o.unk, IID_IVdsDrive);
    if (!d) return sh.Failed("QueryInterface(IVdsDrive)", E_NOINTERFACE);
    HRESULT hr = set ? d->SetFlags(VDS_DRF_HOTSPARE) : d->ClearFlags(VDS_DRF_HOTSPARE);
    if (FAILED(hr)) return sh.Failed(set ? "SetFlags(VDS_DRF_HOTSPARE)" : "ClearFlags(VDS_DRF_HOTSPARE)", hr);
    sh.Done(set ? "setflag drive hotspare" : "clearflag drive hotspare");
    return kOk;
}

// Takes the array a query just filled (and frees it).
HRESULT TakeDriveExtents(HRESULT hr, VDS_DRIVE_EXTENT* ext, LONG n, Json* rows) {
    if (FAILED(hr)) return hr;
    for (LONG i = 0; i < n && ext; ++i)
        rows->push_back({{"id", GuidToString(ext[i].id)},
                         {"LunId", GuidToString(ext[i].LunId)},
                         {"ullSize", ext[i].ullSize},
                         {"bUsed", ext[i].bUsed != 0}});
    CoTaskMemFree(ext);
    return S_OK;
}

void ExtentLine(std::ostream& out, const Json& r) {
    bool used = r["bUsed"].get<bool>();
    out << "drive " << r["id"].get<std::string>() << "  " << Gib(r["ullSize"].get<uint64_t>()) << "  "
        << (used ? "used" : "free");
    if (used && r.contains("LunId")) out << " by LUN " << r["LunId"].get<std::string>();
}

}  // namespace

int CmdMaintenance(Shell& sh, const Call& c) { return Maintain(sh, c, c.fixed[1], 0, 0); }

int CmdPulse(Shell& sh, const Call& c) {
    long count = 0;
    if (c.args.empty() || !ParseNumber(c.args[0], 1, 0xFFFFFFFFL, &count))
        return sh.Usage("maintenance pulse needs a COUNT of at least 1");
    return Maintain(sh, c, "pulse", 1, static_cast<ULONG>(count));
}

int CmdSetFlag(Shell& sh, const Call& c) { return Flag(sh, c, true); }
int CmdClearFlag(Shell& sh, const Call& c) { return Flag(sh, c, false); }

int CmdExtents(Shell& sh, const Call& c) {
    Object o;
    int rc = sh.ResolveArgs(c, 0, &o);
    if (rc != kOk) return rc;
    Json rows = Json::array();
    HRESULT hr = S_OK;
    VDS_DRIVE_EXTENT* ext = nullptr;
    LONG n = 0;
    if (o.kind == Kind::Drive) {
        CComPtr<IVdsDrive> d = As<IVdsDrive>(o.unk, IID_IVdsDrive);
        if (!d) return sh.Failed("QueryInterface(IVdsDrive)", E_NOINTERFACE);
        hr = d->QueryExtents(&ext, &n);
        hr = TakeDriveExtents(hr, ext, n, &rows);
    } else if (o.kind == Kind::Plex) {
        CComPtr<IVdsLunPlex> x = As<IVdsLunPlex>(o.unk, IID_IVdsLunPlex);
        if (!x) return sh.Failed("QueryInterface(IVdsLunPlex)", E_NOINTERFACE);
        hr = x->QueryExtents(&ext, &n);
        hr = TakeDriveExtents(hr, ext, n, &rows);
    } else if (o.kind == Kind::Lun) {
        // A LUN's pieces are those of its plexes.
        CComPtr<IVdsLun> l = As<IVdsLun>(o.unk, IID_IVdsLun);
        IEnumVdsObject* e = nullptr;
        std::vector<Object> plexes;
        if (!l) return sh.Failed("QueryInterface(IVdsLun)", E_NOINTERFACE);
        if (FAILED(hr = l->QueryPlexes(&e)) || FAILED(hr = Drain(e, Kind::Plex, &plexes)))
            return sh.Failed("QueryPlexes", hr);
        for (Object& p : plexes) {
            CComPtr<IVdsLunPlex> x = As<IVdsLunPlex>(p.unk, IID_IVdsLunPlex);
            ext = nullptr;
            n = 0;
            if (!x) continue;
            hr = x->QueryExtents(&ext, &n);
            if (FAILED(hr = TakeDriveExtents(hr, ext, n, &rows))) break;
        }
    } else {
        CComPtr<IVdsStoragePool> x = As<IVdsStoragePool>(o.unk, IID_IVdsStoragePool);
        if (!x) return sh.Failed("QueryInterface(IVdsStoragePool)", E_NOINTERFACE);
        VDS_STORAGE_POOL_DRIVE_EXTENT* pe = nullptr;
        hr = x->QueryDriveExtents(&pe, &n);
        if (SUCCEEDED(hr)) {
            for (LONG i = 0; i < n && pe; ++i)
                rows.push_back({{"id", GuidToString(pe[i].id)}, {"ullSize", pe[i].ullSize}, {"bUsed", pe[i].bUsed != 0}});
            CoTaskMemFree(pe);
        }
    }
    if (FAILED(hr)) return sh.Failed(o.kind == Kind::Pool ? "QueryDriveExtents" : "QueryExtents", hr);
    sh.render().List("extents", rows, ExtentLine);
    return kOk;
}

}  // namespace trovctl
