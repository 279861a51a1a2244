// Commands on storage pools.
#include <set>

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
    std::vector<Object> held;
    HRESULT hr = pool->QueryAllocatedLuns(&e);
    if (FAILED(hr) || FAILED(hr = Drain(e, Kind::Lun, &held))) return sh.Failed("QueryAllocatedLuns", hr);
    // Numbered as "list luns" numbers them: the pool's LUNs among all of them, by their ids.
    std::vector<Object> all, mine;
    if (FAILED(hr = sh.Enumerate(Kind::Lun, &all))) return sh.Failed("the enumeration of the tree", hr);
    std::set<std::string> ids;
    for (Object& l : held) {
        Json j;
        if (FAILED(hr = Describe(l, &j))) return sh.Failed("GetProperties", hr);
        ids.insert(j.value("id", std::string()));
    }
    for (Object& l : all)
        if (ids.count(l.props.value("id", std::string()))) mine.push_back(l);
    sh.render().Table(Kind::Lun, RowsOf(sh, Kind::Lun, mine), sh.Doubt());
    return kOk;
}

}  // namespace trovctl
