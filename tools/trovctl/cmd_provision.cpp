// Commands that make storage and say how much can be made: create lun, maxsize, maxsize extend.
#include <set>

#include "handlers.h"
#include "platform/wstr.h"
#include "provision.h"
#include "shell.h"
#include "targets.h"
#include "words.h"

namespace trovctl {

namespace {

// Owns a wide copy of a text for a call that takes LPWSTR.
struct Wide {
    explicit Wide(const std::string& s) : text(Utf8ToWide(s)) {}
    LPWSTR get() { return const_cast<LPWSTR>(reinterpret_cast<const WCHAR*>(text.c_str())); }
    std::u16string text;
};

HRESULT ReleaseOut(VDS_ASYNC_OUTPUT& out) {
    // Every arm of the output that carries an object carries one reference.
    if (out.type == VDS_ASYNCOUT_CREATELUN && out.cl.pLunUnk) out.cl.pLunUnk->Release();
    out.cl.pLunUnk = nullptr;
    return S_OK;
}

}  // namespace

int ResolveDrives(Shell& sh, const std::vector<std::string>& words, std::vector<GUID>* ids) {
    std::set<std::string> seen;
    for (const std::string& w : words) {
        Object d;
        int rc = sh.Resolve({w}, {Kind::Drive}, &d);
        if (rc != kOk) return rc;
        // Two names of one drive ("3" and "0:3"): the provider would count it once and refuse.
        std::string id = GuidToString(d.id);
        if (!seen.insert(id).second) return sh.Usage("drive " + w + " is named twice (" + ShortLabel(d) + ")");
        ids->push_back(d.id);
    }
    return kOk;
}

int WaitFor(Shell& sh, IVdsAsync* async, const std::string& call, VDS_ASYNC_OUTPUT* out) {
    HRESULT result = E_FAIL;
    *out = VDS_ASYNC_OUTPUT{};
    HRESULT hr = async->Wait(&result, out);
    if (FAILED(hr)) return sh.Failed(call + " (Wait)", hr);
    if (FAILED(result)) return sh.Failed(call, result);
    return kOk;
}

// The words of a request for a new LUN: its type, then the `keys` the command takes. pool= and
// drives= exclude each other, and a pool leaves no room for a subsystem; the drives named are
// resolved into *drives. `otherTypes` closes the list of what the first word may be.
static int NewLunWords(Shell& sh, const Call& c, unsigned keys, const std::string& otherTypes, VDS_LUN_TYPE* type,
                       Request* r, std::vector<GUID>* drives) {
    if (c.args.empty()) return sh.UsageOf(*c.cmd);
    if (!ParseLunType(c.args[0], type))
        return sh.Usage("\"" + c.args[0] + "\" is no LUN type (" + LunTypeNames() + ", or a number" + otherTypes + ")");
    std::string why;
    if (!ParseRequest({c.args.begin() + 1, c.args.end()}, keys, r, &why)) return sh.Usage(why);
    if (!r->pool.empty() && !r->drives.empty())
        return sh.Usage("pool= and drives= do not go together: a pool brings its own drives");
    if (!r->pool.empty() && !r->target.empty())
        return sh.Usage("with pool= the pool says where the LUN goes: no subsystem after it");
    return ResolveDrives(sh, r->drives, drives);
}

int CmdCreateLun(Shell& sh, const Call& c) {
    VDS_LUN_TYPE type;
    Request r;
    std::vector<GUID> drives;
    int rc = NewLunWords(sh, c, kKeySize | kKeyDrives | kKeyStripe | kKeyUnmask | kKeyPool | kKeyHints, "",
                         &type, &r, &drives);
    if (rc != kOk) return rc;
    // The LUNs before: numbered first, so that the new one takes the next number as "list luns"
    // would give it, and known, so that a LUN made by a request that then failed (its masking)
    // is found.
    std::set<std::string> before;
    std::vector<Object> old;
    if (SUCCEEDED(sh.Enumerate(Kind::Lun, &old)))
        for (const Object& l : old) before.insert(GuidToString(l.id));

    Wide unmask(r.unmask);
    IVdsAsync* async = nullptr;
    HRESULT hr;
    std::string call;
    if (!r.pool.empty()) {
        Object pool;
        if ((rc = sh.Resolve({r.pool}, {Kind::Pool}, &pool)) != kOk) return rc;
        CComPtr<IVdsHwProviderStoragePools> sp =
            As<IVdsHwProviderStoragePools>(sh.provider(), IID_IVdsHwProviderStoragePools);
        if (!sp) return sh.Failed("QueryInterface(IVdsHwProviderStoragePools)", E_NOINTERFACE);
        call = "CreateLunInStoragePool";
        hr = sp->CreateLunInStoragePool(type, r.size, pool.id, unmask.get(), &r.hints, &async);
    } else {
        Object sub;
        if ((rc = sh.Resolve(r.target, {Kind::Subsystem}, &sub)) != kOk) return rc;
        CComPtr<IVdsSubSystem2> s2 = As<IVdsSubSystem2>(sub.unk, IID_IVdsSubSystem2);
        if (!s2) return sh.Failed("QueryInterface(IVdsSubSystem2)", E_NOINTERFACE);
        call = "CreateLun2";
        hr = s2->CreateLun2(type, r.size, drives.empty() ? nullptr : drives.data(), LONG(drives.size()), unmask.get(),
                            &r.hints, &async);
    }
    if (FAILED(hr)) {
        if (async) async->Release();
        int failed = sh.Failed(call, hr);
        if (!r.unmask.empty()) {
            // Nothing the array made is undone: a LUN whose masking was refused is there all the
            // same. Say so and select it, so that the next line can map it.
            std::vector<Object> luns;
            if (SUCCEEDED(sh.Enumerate(Kind::Lun, &luns)))
                for (Object& l : luns)
                    if (!before.count(GuidToString(l.id))) {
                        sh.Select(l);
                        sh.render().Note("the LUN was made all the same, without its hosts: " + ShortLabel(l) +
                                         " (selected)");
                    }
        }
        return failed;
    }
    if (!async) return sh.Failed(call, E_POINTER);
    VDS_ASYNC_OUTPUT out{};
    rc = WaitFor(sh, async, call, &out);
    async->Release();
    if (rc != kOk) return rc;
    if (out.type != VDS_ASYNCOUT_CREATELUN || !out.cl.pLunUnk) {
        ReleaseOut(out);
        return sh.Failed(call + " gave no LUN", E_UNEXPECTED);
    }
    Object made{Kind::Lun, {}, {}};
    made.unk.Attach(out.cl.pLunUnk);
    out.cl.pLunUnk = nullptr;
    if (FAILED(hr = PropsOf(made))) return sh.Failed("GetProperties", hr);
    GuidFromString(made.props["id"].get<std::string>(), &made.id);
    // Numbered as "list luns" numbers it, and selected for the lines that follow.
    std::vector<Object> luns;
    if (SUCCEEDED(sh.Enumerate(Kind::Lun, &luns)))
        for (Object& l : luns)
            if (l.id == made.id) made = l;
    sh.Select(made);
    if (!sh.json()) sh.render().out() << "created " << ShortLabel(made) << " (selected)\n";
    sh.render().Object(made.props);
    return kOk;
}

namespace {

void SizeAnswer(Shell& sh, const std::string& command, const char* field, uint64_t bytes) {
    if (sh.json()) {
        sh.render().out() << sh.render().Dump(Json{{"command", command},
                                                   {field, bytes},
                                                   {std::string(field) + "Text", SizeText(bytes)}})
                          << "\n";
    } else {
        sh.render().out() << command << ": " << SizeText(bytes) << " (" << bytes << " bytes)\n";
    }
}

}  // namespace

int CmdMaxSize(Shell& sh, const Call& c) {
    VDS_LUN_TYPE type;
    Request r;
    std::vector<GUID> drives;
    int rc = NewLunWords(sh, c, kKeyDrives | kKeyPool | kKeyHints, "; or extend", &type, &r, &drives);
    if (rc != kOk) return rc;
    ULONGLONG size = 0;
    HRESULT hr;
    const char* call;
    if (!r.pool.empty()) {
        Object pool;
        if ((rc = sh.Resolve({r.pool}, {Kind::Pool}, &pool)) != kOk) return rc;
        CComPtr<IVdsHwProviderStoragePools> sp =
            As<IVdsHwProviderStoragePools>(sh.provider(), IID_IVdsHwProviderStoragePools);
        if (!sp) return sh.Failed("QueryInterface(IVdsHwProviderStoragePools)", E_NOINTERFACE);
        call = "QueryMaxLunCreateSizeInStoragePool";
        hr = sp->QueryMaxLunCreateSizeInStoragePool(type, pool.id, &r.hints, &size);
    } else {
        Object sub;
        if ((rc = sh.Resolve(r.target, {Kind::Subsystem}, &sub)) != kOk) return rc;
        CComPtr<IVdsSubSystem2> s2 = As<IVdsSubSystem2>(sub.unk, IID_IVdsSubSystem2);
        if (!s2) return sh.Failed("QueryInterface(IVdsSubSystem2)", E_NOINTERFACE);
        call = "QueryMaxLunCreateSize2";
        hr = s2->QueryMaxLunCreateSize2(type, drives.empty() ? nullptr : drives.data(), LONG(drives.size()), &r.hints,
                                        &size);
    }
    if (FAILED(hr)) return sh.Failed(call, hr);
    SizeAnswer(sh, "maxsize " + Lower(c.args[0]), "ullMaxLunSize", size);
    return kOk;
}

int CmdMaxSizeExtend(Shell& sh, const Call& c) {
    Request r;
    std::string why;
    if (!ParseRequest(c.args, kKeyDrives, &r, &why)) return sh.Usage(why);
    std::vector<GUID> drives;
    int rc = ResolveDrives(sh, r.drives, &drives);
    if (rc != kOk) return rc;
    Object o;
    if ((rc = sh.Resolve(r.target, c.cmd->kinds, &o)) != kOk) return rc;
    CComPtr<IVdsLun> lun = As<IVdsLun>(o.unk, IID_IVdsLun);
    if (!lun) return sh.Failed("QueryInterface(IVdsLun)", E_NOINTERFACE);
    ULONGLONG size = 0;
    HRESULT hr = lun->QueryMaxLunExtendSize(drives.empty() ? nullptr : drives.data(), LONG(drives.size()), &size);
    if (FAILED(hr)) return sh.Failed("QueryMaxLunExtendSize", hr);
    SizeAnswer(sh, "maxsize extend", "ullMaxBytesToBeAdded", size);
    return kOk;
}

}  // namespace trovctl
