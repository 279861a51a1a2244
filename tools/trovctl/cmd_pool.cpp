// Commands on storage pools.
#include "handlers.h"
#include "shell.h"

namespace trovctl {

int CmdPoolLuns(Shell& sh, const Call& c) {
    Object o;
    int rc = sh.ResolveArgs(c, 0, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsStoragePool> pool = As<IVdsStoragePool>(o.unk, IID_IVdsStoragePool);
    if (!pool) return sh.Failed("QueryInterface(IVdsStoragePool)", E_NOINTERFACE);
    IEnumVdsObject* e = nullptr;
    std::vector<Object> luns;
    HRESULT hr = pool->QueryAllocatedLuns(&e);
    if (FAILED(hr) || FAILED(hr = Drain(e, Kind::Lun, &luns))) return sh.Failed("QueryAllocatedLuns", hr);
    Json rows = Json::array();
    for (Object& l : luns) {
        Json j;
        if (FAILED(hr = Describe(l, &j))) return sh.Failed("GetProperties", hr);
        rows.push_back(std::move(j));
    }
    sh.render().Table(Kind::Lun, rows, sh.Doubt());
    return kOk;
}

}  // namespace trovctl
