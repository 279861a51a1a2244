// Commands on a subsystem.
#include "handlers.h"
#include "platform/wstr.h"
#include "shell.h"

namespace trovctl {

namespace {
constexpr size_t kArrayNameChars = 80;
}  // namespace

int CmdNameSubsystem(Shell& sh, const Call& c) {
    if (c.args.empty()) return sh.UsageOf(*c.cmd);
    if (c.args[0].empty()) return sh.Usage("a subsystem name cannot be empty");
    Object o;
    int rc = sh.ResolveArgs(c, 1, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsSubSystemNaming> n = As<IVdsSubSystemNaming>(o.unk, IID_IVdsSubSystemNaming);
    if (!n) return sh.Failed("QueryInterface(IVdsSubSystemNaming)", E_NOINTERFACE);
    std::u16string name = Utf8ToWide(c.args[0]);
    HRESULT hr = n->SetFriendlyName(const_cast<LPWSTR>(reinterpret_cast<const WCHAR*>(name.c_str())));
    if (FAILED(hr)) return sh.Failed("SetFriendlyName", hr);
    // A name the provider had to cut succeeds with a word of its own.
    sh.Done("name subsystem", hr);
    // The array keeps 80 characters; the provider cuts a longer name without a word, and shows
    // the old one until the tree is read again.
    if (hr == S_OK && name.size() > kArrayNameChars)
        sh.render().Note("the name has " + std::to_string(name.size()) + " characters: the array keeps the first " +
                         std::to_string(kArrayNameChars) + ", and the old name is shown until the next refresh");
    return kOk;
}

int CmdReenumerateSubsystem(Shell& sh, const Call& c) {
    Object o;
    int rc = sh.ResolveArgs(c, 0, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsSubSystem> s = As<IVdsSubSystem>(o.unk, IID_IVdsSubSystem);
    if (!s) return sh.Failed("QueryInterface(IVdsSubSystem)", E_NOINTERFACE);
    HRESULT hr = s->Reenumerate();
    if (FAILED(hr)) return sh.Failed("Reenumerate", hr);
    sh.Done("reenumerate subsystem");
    return kOk;
}

int CmdGetDrive(Shell& sh, const Call& c) {
    long bus, slot;
    if (c.args.size() < 2 || !ParseNumber(c.args[0], -32768, 32767, &bus) ||
        !ParseNumber(c.args[1], -32768, 32767, &slot))
        return sh.Usage("usage: getdrive BUS SLOT [TARGET] (numbers)");
    Object o;
    int rc = sh.ResolveArgs(c, 2, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsSubSystem> s = As<IVdsSubSystem>(o.unk, IID_IVdsSubSystem);
    if (!s) return sh.Failed("QueryInterface(IVdsSubSystem)", E_NOINTERFACE);
    IVdsDrive* drive = nullptr;
    HRESULT hr = s->GetDrive(static_cast<SHORT>(bus), static_cast<SHORT>(slot), &drive);
    if (FAILED(hr)) return sh.Failed("GetDrive", hr);
    Object d{Kind::Drive, {}, {}};
    d.unk.Attach(drive);
    Json j;
    if (FAILED(hr = Describe(d, &j))) return sh.Failed("GetProperties2", hr);
    sh.render().Object(j);
    return kOk;
}

}  // namespace trovctl
