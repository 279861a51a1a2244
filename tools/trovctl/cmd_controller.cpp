// Commands on a controller and its ports.
#include "handlers.h"
#include "shell.h"

namespace trovctl {

namespace {

int Cache(Shell& sh, const Call& c, bool flush) {
    Object o;
    int rc = sh.ResolveArgs(c, 0, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsController> ctl = As<IVdsController>(o.unk, IID_IVdsController);
    if (!ctl) return sh.Failed("QueryInterface(IVdsController)", E_NOINTERFACE);
    HRESULT hr = flush ? ctl->FlushCache() : ctl->InvalidateCache();
    if (FAILED(hr)) return sh.Failed(flush ? "FlushCache" : "InvalidateCache", hr);
    sh.Done(flush ? "flushcache" : "invalidatecache");
    return kOk;
}

}  // namespace

int CmdFlushCache(Shell& sh, const Call& c) { return Cache(sh, c, true); }
int CmdInvalidateCache(Shell& sh, const Call& c) { return Cache(sh, c, false); }

int CmdPortProps(Shell& sh, const Call& c) {
    long port;
    if (c.args.empty() || !ParseNumber(c.args[0], -32768, 32767, &port)) return sh.UsageOf(*c.cmd);
    Object o;
    int rc = sh.ResolveArgs(c, 1, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsController> ctl = As<IVdsController>(o.unk, IID_IVdsController);
    if (!ctl) return sh.Failed("QueryInterface(IVdsController)", E_NOINTERFACE);
    VDS_PORT_PROP p{};
    HRESULT hr = ctl->GetPortProperties(static_cast<SHORT>(port), &p);
    if (FAILED(hr)) return sh.Failed("GetPortProperties", hr);
    sh.render().Object(PortJson(p));
    return kOk;
}

}  // namespace trovctl
