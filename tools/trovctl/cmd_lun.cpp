// Commands on LUNs and their plexes.
#include "handlers.h"
#include "platform/wstr.h"
#include "shell.h"

namespace trovctl {

int CmdNameLun(Shell& sh, const Call& c) {
    if (c.args.empty()) return sh.UsageOf(*c.cmd);
    Object o;
    int rc = sh.ResolveArgs(c, 1, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsLunNaming> n = As<IVdsLunNaming>(o.unk, IID_IVdsLunNaming);
    if (!n) return sh.Failed("QueryInterface(IVdsLunNaming)", E_NOINTERFACE);
    std::u16string name = Utf8ToWide(c.args[0]);
    HRESULT hr = n->SetFriendlyName(const_cast<LPWSTR>(reinterpret_cast<const WCHAR*>(name.c_str())));
    if (FAILED(hr)) return sh.Failed("SetFriendlyName", hr);
    // A name the provider had to cut succeeds with a word of its own.
    sh.Done(hr == S_OK ? "name lun" : "name lun (" + HrText(hr) + ")");
    return kOk;
}

}  // namespace trovctl
