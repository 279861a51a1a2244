// Commands on drives: spares, the locate light and alarm (of a drive or a controller), and the
// drive extents of a drive, LUN, plex or pool.
#include <map>

#include "handlers.h"
#include "platform/platform.h"
#include "platform/wstr.h"
#include "shell.h"
#include "targets.h"
#include "words.h"

namespace trovctl {

namespace {

constexpr long kMaxPulses = 100;
constexpr unsigned long kPulseSeconds = 2;  // the light on for a second and off for one

int Maintain(Shell& sh, const Call& c, const std::string& op, size_t from, ULONG count) {
    Object o;
    int rc = sh.ResolveArgs(c, from, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsMaintenance> m = As<IVdsMaintenance>(o.unk, IID_IVdsMaintenance);
    if (!m) return sh.Failed("QueryInterface(IVdsMaintenance)", E_NOINTERFACE);
    // The array takes its time over the lights: say so, rather than seem to hang.
    if (op == "pulse" && o.kind == Kind::Drive)
        sh.render().Waiting("flashing the light of " + ShortLabel(o) + " " + std::to_string(count) +
                            " times: this takes about " + std::to_string(count * kPulseSeconds) + " s");
    else if (op == "blink" || op == "stop")
        sh.render().Waiting("waiting for the array to " + std::string(op == "blink" ? "start" : "stop") +
                            " the locate light of " + ShortLabel(o));
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
    // Said in the operator's words before the array is asked: it would only answer with a code.
    HRESULT hr = PropsOf(o);
    if (FAILED(hr)) return sh.Failed("GetProperties", hr);
    uint32_t flags = o.props.value("ulFlags", 0u);
    bool spare = (flags & VDS_DRF_HOTSPARE) != 0;
    if (set && spare) return sh.Usage(ShortLabel(o) + " is already a spare");
    if (!set && !spare) return sh.Usage(ShortLabel(o) + " is not a spare");
    if (set && (flags & VDS_DRF_ASSIGNED))
        return sh.Usage(ShortLabel(o) + " belongs to a vdisk; only a free drive can become a spare");
    hr = set ? d->SetFlags(VDS_DRF_HOTSPARE) : d->ClearFlags(VDS_DRF_HOTSPARE);
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
    out << r.value("driveText", "drive " + r["id"].get<std::string>()) << "  " << SizeText(r["ullSize"].get<uint64_t>())
        << "  " << (used ? "used" : "free");
    if (used && r.contains("LunId")) out << " by " << r.value("lunText", "LUN " + r["LunId"].get<std::string>());
}

// Names the drives and LUNs of extents as the listings do ("drive 3 (0:3 3SJ01204K)").
void NameExtents(Shell& sh, Json* rows) {
    std::map<std::string, std::string> names;
    for (Kind k : {Kind::Drive, Kind::Lun}) {
        std::vector<Object> all;
        if (FAILED(sh.Enumerate(k, &all))) continue;
        for (const Object& o : all) names[o.props.value("id", std::string())] = ShortLabel(o);
    }
    for (Json& r : *rows) {
        auto drive = names.find(r.value("id", std::string()));
        if (drive != names.end()) r["driveText"] = drive->second;
        if (!r.contains("LunId")) continue;
        auto lun = names.find(r["LunId"].get<std::string>());
        if (lun != names.end()) r["lunText"] = lun->second;
    }
}

}  // namespace

int CmdMaintenance(Shell& sh, const Call& c) { return Maintain(sh, c, c.fixed[1], 0, 0); }

int CmdPulse(Shell& sh, const Call& c) {
    long count = 0;
    // Each flash holds the provider for two seconds: the bound keeps a slip of the finger from
    // holding it for days.
    if (c.args.empty() || !ParseNumber(c.args[0], 1, kMaxPulses, &count))
        return sh.Usage("maintenance pulse takes a COUNT from 1 to " + std::to_string(kMaxPulses) +
                        (c.args.empty() ? std::string() : ", not \"" + c.args[0] + "\""));
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
    NameExtents(sh, &rows);
    sh.render().List("extents", rows, ExtentLine);
    return kOk;
}

}  // namespace trovctl
