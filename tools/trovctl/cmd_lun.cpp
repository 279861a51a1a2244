// Commands on LUNs and their plexes: names, growth, deletion, masking, the controllers, ports and
// targets that serve a LUN, hints and the snapshot role.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <set>
#include <thread>

#include "handlers.h"
#include "interrupt.h"
#include "platform/trov_hints.h"
#include "platform/wstr.h"
#include "provision.h"
#include "shell.h"
#include "targets.h"
#include "words.h"

namespace trovctl {

namespace {

std::u16string Wide(const std::string& s) { return Utf8ToWide(s); }
LPWSTR Ptr(std::u16string& s) { return reinterpret_cast<LPWSTR>(s.data()); }

// The LUN a command's target words name (the selection without them).
int LunOf(Shell& sh, const std::vector<std::string>& target, Object* o, CComPtr<IVdsLun>& lun) {
    int rc = sh.Resolve(target, {Kind::Lun}, o);
    if (rc != kOk) return rc;
    lun = As<IVdsLun>(o->unk, IID_IVdsLun);
    if (!lun) return sh.Failed("QueryInterface(IVdsLun)", E_NOINTERFACE);
    return kOk;
}

std::string Elapsed(std::chrono::steady_clock::duration d) {
    long s = static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(d).count());
    char buf[32];
    if (s >= 3600)
        std::snprintf(buf, sizeof buf, "%ld:%02ld:%02ld", s / 3600, (s / 60) % 60, s % 60);
    else
        std::snprintf(buf, sizeof buf, "%ld:%02ld", s / 60, s % 60);
    return buf;
}

// Waits for a long operation with a bar on the terminal: the percentage the provider reports,
// the time so far and the phase (the vdisk restripes until 100, then the partition grows). A
// Ctrl-C asks the provider to cancel and waits for its wait to end.
int WaitWithProgress(Shell& sh, IVdsAsync* async, const std::string& call, const std::string& label,
                     VDS_ASYNC_OUTPUT* out) {
    if (!sh.showsProgress()) return WaitFor(sh, async, call, out);
    std::atomic<bool> done{false};
    HRESULT waitHr = E_FAIL, result = E_FAIL;
    *out = VDS_ASYNC_OUTPUT{};
    std::thread waiter([&] {
        waitHr = async->Wait(&result, out);
        done = true;
    });
    bool interrupted = false;
    {
        ProgressBar bar(std::cerr, label, true);
        auto start = std::chrono::steady_clock::now();
        while (!done) {
            HRESULT status = S_OK;
            ULONG percent = 0;
            if (SUCCEEDED(async->QueryStatus(&status, &percent))) {
                int p = percent > 100 ? 100 : static_cast<int>(percent);
                bar.Update(p, Elapsed(std::chrono::steady_clock::now() - start) + "  " +
                                  (p < 100 ? "restriping the vdisk" : "growing the partition"));
            }
            if (!interrupted && !interrupt::Sleep(250)) {
                interrupted = true;
                async->Cancel();
            }
        }
        // The last poll may have seen the restripe half done: the bar ends on what came of it.
        if (!interrupted && SUCCEEDED(waitHr) && SUCCEEDED(result))
            bar.Update(100, Elapsed(std::chrono::steady_clock::now() - start) + "  done");
    }
    waiter.join();
    if (interrupted) return kInterrupted;
    if (FAILED(waitHr)) return sh.Failed(call + " (Wait)", waitHr);
    if (FAILED(result)) return sh.Failed(call, result);
    return kOk;
}

// Shows a LUN as detail does, read afresh.
int ShowLun(Shell& sh, Object& o) {
    o.props = nullptr;
    HRESULT hr = PropsOf(o);
    if (FAILED(hr)) return sh.Failed("GetProperties", hr);
    sh.render().Object(o.props);
    return kOk;
}

// Objects of a kind that an enumeration hands out, numbered as "list KIND" numbers them.
int ListOf(Shell& sh, Kind kind, IEnumVdsObject* e, const char* call) {
    std::vector<Object> got, all, rows;
    HRESULT hr = Drain(e, kind, &got);
    if (FAILED(hr)) return sh.Failed(call, hr);
    if (FAILED(hr = sh.Enumerate(kind, &all))) return sh.Failed("the enumeration of the tree", hr);
    std::set<std::string> ids;
    for (Object& o : got) {
        Json j;
        if (FAILED(hr = Describe(o, &j))) return sh.Failed("GetProperties", hr);
        ids.insert(j.value("id", std::string()));
    }
    for (Object& o : all)
        if (ids.count(o.props.value("id", std::string()))) rows.push_back(o);
    sh.render().Table(kind, RowsOf(sh, kind, rows), sh.Doubt());
    return kOk;
}

// Splits "a,b" and the words before a final "lun WHAT" (or an id) into object words and the
// LUN's target words.
void SplitObjectsAndLun(const std::vector<std::string>& args, std::vector<std::string>* objects,
                        std::vector<std::string>* lun) {
    size_t end = args.size();
    Kind k;
    if (end >= 2 && ParseKind(args[end - 2], &k) && k == Kind::Lun) end -= 2;
    for (size_t i = 0; i < end; ++i) {
        size_t from = 0;
        const std::string& w = args[i];
        while (from <= w.size()) {
            size_t comma = w.find(',', from);
            std::string part = w.substr(from, comma == std::string::npos ? std::string::npos : comma - from);
            if (!part.empty()) objects->push_back(part);
            if (comma == std::string::npos) break;
            from = comma + 1;
        }
    }
    lun->assign(args.begin() + long(end), args.end());
}

// Resolves object words of one kind into ids, refusing one named twice.
int IdsOf(Shell& sh, const std::vector<std::string>& words, Kind kind, std::vector<GUID>* ids,
          std::vector<std::string>* labels) {
    std::set<std::string> seen;
    for (const std::string& w : words) {
        Object o;
        int rc = sh.Resolve({w}, {kind}, &o);
        if (rc != kOk) return rc;
        if (!seen.insert(GuidToString(o.id)).second)
            return sh.Usage(std::string(KindName(kind)) + " " + w + " is named twice (" + ShortLabel(o) + ")");
        ids->push_back(o.id);
        labels->push_back(ShortLabel(o));
    }
    return kOk;
}

// The provider answers a LUN's delete once its tree no longer holds the LUN, and waits up to 90
// seconds for a rebuild to take it out. A management service rebuilds on the array's
// notification through its other callers; this host has none, and a one-shot run no monitor, so
// it rebuilds the tree itself, once a second, until the delete returns.
HRESULT DeleteWhileRefreshing(Shell& sh, IVdsLun* lun) {
    CComPtr<IVdsHwProvider> hw = As<IVdsHwProvider>(sh.provider(), IID_IVdsHwProvider);
    if (!hw) return lun->Delete();
    std::mutex mu;
    std::condition_variable cv;
    bool over = false;
    std::thread rebuilder([&] {
        std::unique_lock<std::mutex> g(mu);
        while (!cv.wait_for(g, sh.deleteRebuildPeriod(), [&] { return over; })) {
            g.unlock();
            hw->Refresh();  // waits for the provider's lock while the delete holds it
            g.lock();
        }
    });
    HRESULT hr = lun->Delete();
    {
        std::lock_guard<std::mutex> g(mu);
        over = true;
    }
    cv.notify_all();
    rebuilder.join();
    return hr;
}

}  // namespace

int CmdNameLun(Shell& sh, const Call& c) {
    if (c.args.empty()) return sh.UsageOf(*c.cmd);
    if (c.args[0].empty()) return sh.Usage("a LUN name cannot be empty");
    Object o;
    int rc = sh.ResolveArgs(c, 1, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsLunNaming> n = As<IVdsLunNaming>(o.unk, IID_IVdsLunNaming);
    if (!n) return sh.Failed("QueryInterface(IVdsLunNaming)", E_NOINTERFACE);
    std::u16string name = Wide(c.args[0]);
    HRESULT hr = n->SetFriendlyName(Ptr(name));
    if (FAILED(hr)) return sh.Failed("SetFriendlyName", hr);
    // A name the provider had to cut succeeds with a word of its own.
    sh.Done("name lun", hr);
    return kOk;
}

int CmdExtend(Shell& sh, const Call& c) {
    Request r;
    std::string why;
    if (!ParseRequest(c.args, kKeySize | kKeyDrives, &r, &why)) return sh.Usage(why);
    if (!r.sizeGiven && r.drives.empty())
        return sh.Usage("extend by how much? size=SIZE, drives=D,D,... or both (maxsize extend says how much can be "
                        "added)");
    std::vector<GUID> drives;
    int rc = ResolveDrives(sh, r.drives, &drives);
    if (rc != kOk) return rc;
    Object o;
    CComPtr<IVdsLun> lun;
    if ((rc = LunOf(sh, r.target, &o, lun)) != kOk) return rc;
    IVdsAsync* async = nullptr;
    HRESULT hr = lun->Extend(r.size, drives.empty() ? nullptr : drives.data(), LONG(drives.size()), &async);
    if (FAILED(hr)) {
        if (async) async->Release();
        return sh.Failed("Extend", hr);
    }
    if (!async) return sh.Failed("Extend", E_POINTER);
    VDS_ASYNC_OUTPUT out{};
    rc = WaitWithProgress(sh, async, "Extend", "extend " + ShortLabel(o), &out);
    async->Release();
    if (rc != kOk) return rc;
    return ShowLun(sh, o);
}

int CmdShrink(Shell& sh, const Call& c) {
    Request r;
    std::string why;
    if (!ParseRequest(c.args, kKeySize, &r, &why)) return sh.Usage(why);
    if (!r.sizeGiven || r.size == 0) return sh.Usage("shrink by how much? size=SIZE");
    Object o;
    CComPtr<IVdsLun> lun;
    int rc = LunOf(sh, r.target, &o, lun);
    if (rc != kOk) return rc;
    IVdsAsync* async = nullptr;
    HRESULT hr = lun->Shrink(r.size, &async);
    if (FAILED(hr)) {
        if (async) async->Release();
        return sh.Failed("Shrink", hr);
    }
    if (!async) return sh.Failed("Shrink", E_POINTER);
    VDS_ASYNC_OUTPUT out{};
    rc = WaitFor(sh, async, "Shrink", &out);
    async->Release();
    if (rc != kOk) return rc;
    return ShowLun(sh, o);
}

int CmdDeleteLun(Shell& sh, const Call& c) {
    std::vector<std::string> target;
    bool yes = false;
    for (const std::string& w : c.args)
        if (w == "--yes" || w == "-y")
            yes = true;
        else
            target.push_back(w);
    Object o;
    CComPtr<IVdsLun> lun;
    int rc = LunOf(sh, target, &o, lun);
    if (rc != kOk) return rc;
    HRESULT hr = PropsOf(o);
    if (FAILED(hr)) return sh.Failed("GetProperties", hr);
    if (!yes && !sh.Confirm("delete " + ShortLabel(o) + " of " + SizeText(o.props.value("ullSize", uint64_t(0))) +
                            " and its data?")) {
        sh.render().Note("not deleted");
        return kFailed;
    }
    hr = DeleteWhileRefreshing(sh, lun);
    if (FAILED(hr)) return sh.Failed("Delete", hr);
    if (sh.selection() && sh.selection()->id == o.id) sh.Select(Object{Kind::Subsystem, {}, {}});
    sh.Done("delete lun", hr);
    return kOk;
}

int CmdUnmask(Shell& sh, const Call& c) {
    if (c.args.empty()) return sh.UsageOf(*c.cmd);
    // "-" for no host: an empty word is easy to lose on a command line.
    std::string list = c.args[0] == "-" ? std::string() : c.args[0];
    Object o;
    CComPtr<IVdsLun> lun;
    int rc = LunOf(sh, {c.args.begin() + 1, c.args.end()}, &o, lun);
    if (rc != kOk) return rc;
    std::u16string wide = Wide(list);
    HRESULT hr = lun->SetMask(Ptr(wide));
    if (FAILED(hr)) return sh.Failed("SetMask", hr);
    sh.Done("unmask", hr);
    return kOk;
}

int CmdAssociatePorts(Shell& sh, const Call& c) {
    std::vector<std::string> words, target, inactiveWords;
    std::vector<std::string> args;
    for (const std::string& w : c.args) {
        if (Lower(w).rfind("inactive=", 0) == 0) {
            std::vector<std::string> more, none;
            SplitObjectsAndLun({w.substr(9)}, &more, &none);
            inactiveWords.insert(inactiveWords.end(), more.begin(), more.end());
        } else {
            args.push_back(w);
        }
    }
    SplitObjectsAndLun(args, &words, &target);
    if (words.empty()) return sh.UsageOf(*c.cmd);
    std::vector<GUID> active, inactive;
    std::vector<std::string> activeLabels, inactiveLabels;
    int rc = IdsOf(sh, words, Kind::Port, &active, &activeLabels);
    if (rc == kOk) rc = IdsOf(sh, inactiveWords, Kind::Port, &inactive, &inactiveLabels);
    if (rc != kOk) return rc;
    for (size_t a = 0; a < active.size(); ++a)
        for (const GUID& i : inactive)
            if (active[a] == i) return sh.Usage(activeLabels[a] + " cannot be active and inactive");
    Object o;
    if ((rc = sh.Resolve(target, {Kind::Lun}, &o)) != kOk) return rc;
    CComPtr<IVdsLunControllerPorts> lp = As<IVdsLunControllerPorts>(o.unk, IID_IVdsLunControllerPorts);
    if (!lp) return sh.Failed("QueryInterface(IVdsLunControllerPorts)", E_NOINTERFACE);
    HRESULT hr = lp->AssociateControllerPorts(active.data(), LONG(active.size()),
                                              inactive.empty() ? nullptr : inactive.data(), LONG(inactive.size()));
    if (FAILED(hr)) return sh.Failed("AssociateControllerPorts", hr);
    sh.Done("associate controllerports", hr);
    return kOk;
}

int CmdAssociateTargets(Shell& sh, const Call& c) {
    std::vector<std::string> words, target;
    SplitObjectsAndLun(c.args, &words, &target);
    if (words.empty()) return sh.UsageOf(*c.cmd);
    std::vector<GUID> targets;
    std::vector<std::string> labels;
    int rc = IdsOf(sh, words, Kind::Target, &targets, &labels);
    if (rc != kOk) return rc;
    Object o;
    if ((rc = sh.Resolve(target, {Kind::Lun}, &o)) != kOk) return rc;
    CComPtr<IVdsLunIscsi> li = As<IVdsLunIscsi>(o.unk, IID_IVdsLunIscsi);
    if (!li) return sh.Failed("QueryInterface(IVdsLunIscsi)", E_NOINTERFACE);
    HRESULT hr = li->AssociateTargets(targets.data(), LONG(targets.size()));
    if (FAILED(hr)) return sh.Failed("AssociateTargets", hr);
    sh.Done("associate targets", hr);
    return kOk;
}

int CmdActiveControllers(Shell& sh, const Call& c) {
    Object o;
    CComPtr<IVdsLun> lun;
    int rc = LunOf(sh, c.args, &o, lun);
    if (rc != kOk) return rc;
    IEnumVdsObject* e = nullptr;
    HRESULT hr = lun->QueryActiveControllers(&e);
    if (FAILED(hr)) return sh.Failed("QueryActiveControllers", hr);
    return ListOf(sh, Kind::Controller, e, "QueryActiveControllers");
}

int CmdActivePorts(Shell& sh, const Call& c) {
    Object o;
    int rc = sh.ResolveArgs(c, 0, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsLunControllerPorts> lp = As<IVdsLunControllerPorts>(o.unk, IID_IVdsLunControllerPorts);
    if (!lp) return sh.Failed("QueryInterface(IVdsLunControllerPorts)", E_NOINTERFACE);
    IEnumVdsObject* e = nullptr;
    HRESULT hr = lp->QueryActiveControllerPorts(&e);
    if (FAILED(hr)) return sh.Failed("QueryActiveControllerPorts", hr);
    return ListOf(sh, Kind::Port, e, "QueryActiveControllerPorts");
}

int CmdAssociatedTargets(Shell& sh, const Call& c) {
    Object o;
    int rc = sh.ResolveArgs(c, 0, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsLunIscsi> li = As<IVdsLunIscsi>(o.unk, IID_IVdsLunIscsi);
    if (!li) return sh.Failed("QueryInterface(IVdsLunIscsi)", E_NOINTERFACE);
    IEnumVdsObject* e = nullptr;
    HRESULT hr = li->QueryAssociatedTargets(&e);
    if (FAILED(hr)) return sh.Failed("QueryAssociatedTargets", hr);
    return ListOf(sh, Kind::Target, e, "QueryAssociatedTargets");
}

int CmdHints(Shell& sh, const Call& c) {
    Object o;
    int rc = sh.ResolveArgs(c, 0, &o);
    if (rc != kOk) return rc;
    HRESULT hr;
    if (o.kind == Kind::Plex) {
        CComPtr<IVdsLunPlex> x = As<IVdsLunPlex>(o.unk, IID_IVdsLunPlex);
        if (!x) return sh.Failed("QueryInterface(IVdsLunPlex)", E_NOINTERFACE);
        VDS_HINTS h{};
        if (FAILED(hr = x->QueryHints(&h))) return sh.Failed("QueryHints", hr);
        sh.render().Object(HintsJson(h));
        return kOk;
    }
    // The newer record where the LUN has it: it carries the caching and bus fields too.
    CComPtr<IVdsLun2> l2 = As<IVdsLun2>(o.unk, IID_IVdsLun2);
    if (l2) {
        VDS_HINTS2 h{};
        if (FAILED(hr = l2->QueryHints2(&h))) return sh.Failed("QueryHints2", hr);
        sh.render().Object(HintsJson(h));
        return kOk;
    }
    CComPtr<IVdsLun> l = As<IVdsLun>(o.unk, IID_IVdsLun);
    if (!l) return sh.Failed("QueryInterface(IVdsLun)", E_NOINTERFACE);
    VDS_HINTS h{};
    if (FAILED(hr = l->QueryHints(&h))) return sh.Failed("QueryHints", hr);
    sh.render().Object(HintsJson(h));
    return kOk;
}

int CmdHintsSet(Shell& sh, const Call& c) {
    Request r;
    std::string why;
    if (!ParseRequest(c.args, kKeyHints, &r, &why)) return sh.Usage(why);
    if (r.hints.ullHintMask == 0 && r.hints.ulMaximumDriveCount == 0 && r.hints.ullExpectedMaximumSize == 0 &&
        r.hints.ulOptimalReadSize == 0 && r.hints.ulOptimalReadAlignment == 0 && r.hints.ulOptimalWriteSize == 0 &&
        r.hints.ulOptimalWriteAlignment == 0 && r.hints.sRebuildPriority == 0)
        return sh.Usage("hints set what? FIELD=VALUE ... (writethrough=on, sequentialreads=on, ...)");
    Object o;
    CComPtr<IVdsLun> lun;
    int rc = LunOf(sh, r.target, &o, lun);
    if (rc != kOk) return rc;
    HRESULT hr;
    CComPtr<IVdsLun2> l2 = As<IVdsLun2>(o.unk, IID_IVdsLun2);
    const char* call = l2 ? "ApplyHints2" : "ApplyHints";
    if (l2) {
        hr = l2->ApplyHints2(&r.hints);
    } else {
        // The older record: the fields the two share. A newer field has no place in it.
        if (r.hints.ullHintMask & ~(0x1FFull | 0xFF00000000000000ull))
            return sh.Usage("this LUN takes only the older hints (no hotspare, bustype or cache fields)");
        VDS_HINTS h{};
        h.ullHintMask = r.hints.ullHintMask;
        h.ullExpectedMaximumSize = r.hints.ullExpectedMaximumSize;
        h.ulOptimalReadSize = r.hints.ulOptimalReadSize;
        h.ulOptimalReadAlignment = r.hints.ulOptimalReadAlignment;
        h.ulOptimalWriteSize = r.hints.ulOptimalWriteSize;
        h.ulOptimalWriteAlignment = r.hints.ulOptimalWriteAlignment;
        h.ulMaximumDriveCount = r.hints.ulMaximumDriveCount;
        h.ulStripeSize = r.hints.ulStripeSize;
        h.bFastCrashRecoveryRequired = r.hints.bFastCrashRecoveryRequired;
        h.bMostlyReads = r.hints.bMostlyReads;
        h.bOptimizeForSequentialReads = r.hints.bOptimizeForSequentialReads;
        h.bOptimizeForSequentialWrites = r.hints.bOptimizeForSequentialWrites;
        h.bRemapEnabled = r.hints.bRemapEnabled;
        h.bReadBackVerifyEnabled = r.hints.bReadBackVerifyEnabled;
        h.bWriteThroughCachingEnabled = r.hints.bWriteThroughCachingEnabled;
        h.bHardwareChecksumEnabled = r.hints.bHardwareChecksumEnabled;
        h.bIsYankable = r.hints.bIsYankable;
        h.sRebuildPriority = r.hints.sRebuildPriority;
        hr = lun->ApplyHints(&h);
    }
    if (FAILED(hr)) return sh.Failed(call, hr);
    sh.Done("hints set", hr);
    return kOk;
}

int CmdConvert(Shell& sh, const Call& c) {
    Object o;
    CComPtr<IVdsLun> lun;
    int rc = LunOf(sh, c.args, &o, lun);
    if (rc != kOk) return rc;
    // The provider's own conversion bit; bReadBackVerifyEnabled says which way.
    VDS_HINTS h{};
    h.ullHintMask = TROV_HINT_CONVERT_MASTER;
    h.bReadBackVerifyEnabled = c.fixed[1] == "master" ? 1 : 0;
    HRESULT hr = lun->ApplyHints(&h);
    if (FAILED(hr)) return sh.Failed("ApplyHints", hr);
    sh.Done("convert " + c.fixed[1], hr);
    return kOk;
}

}  // namespace trovctl
