// The host library's entry points (platform/host_library.h) over the loaded provider's host facts
// and the multipath reader and writer of src/host.
#include "platform/host_library.h"

#include <errno.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "core/provider.h"
#include "host/host_facts.h"
#include "host/identification.h"
#include "host/paths.h"
#include "host/policy.h"
#include "lun/lun.h"
#include "objects/boundary.h"
#include "objects/subsystem.h"
#include "platform/vds_errors.h"
#include "platform/wstr.h"
#include "support/debuglog.h"

namespace {

// The LUN of an id in the loaded provider (a counted reference the caller releases), or why not.
HRESULT FindLun(const VDS_OBJECT_ID* id, CLun** out) {
    *out = nullptr;
    CProvider* p = g_pProvider.load();
    if (!p) return VDS_E_PROVIDER_FAILURE;
    if (!id) return E_POINTER;
    IUnknown* unk = nullptr;
    if (FAILED(p->GetObject(*id, VDS_OT_LUN, &unk)) || !unk) return VDS_E_OBJECT_NOT_FOUND;
    IVdsLun* lun = nullptr;
    HRESULT hr = unk->QueryInterface(IID_IVdsLun, reinterpret_cast<void**>(&lun));
    unk->Release();
    // GetObject hands out one reference more than it counts; it goes back here.
    unk->Release();
    if (FAILED(hr) || !lun) return VDS_E_OBJECT_NOT_FOUND;
    *out = static_cast<CLun*>(lun);
    return S_OK;
}

void CopyText(const std::string& text, char* plan, uint32_t capacity) {
    if (!plan || capacity == 0) return;
    size_t n = std::min<size_t>(text.size(), capacity - 1);
    std::memcpy(plan, text.data(), n);
    plan[n] = 0;
}

// The write's text on success (or in a dry run), else the reason it failed, into the caller's
// buffer; the result for the host.
HRESULT WriteResult(const char* what, int rc, const MultipathWrite& w, char* plan, uint32_t capacity) {
    if (rc == 0) {
        CopyText(w.Describe(), plan, capacity);
        return S_OK;
    }
    std::string why = std::string(what) + ": ";
    if (rc == 1) why += "the multipath daemon can't be reached or has no such disk or path";
    else if (rc == EINVAL) why += "multipath can't express it";
    else why += std::string(w.file.empty() ? "multipathd" : "writing " + w.file) + ": " + std::strerror(rc);
    DebugTrace("%s\n", why.c_str());
    CopyText(why, plan, capacity);
    return rc == 1 ? VDS_E_OBJECT_NOT_FOUND : rc == EINVAL ? E_INVALIDARG : E_FAIL;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) HRESULT TrovHostHbaPorts(TrovHostHbaPort* ports, uint32_t capacity,
                                                                 uint32_t* count) try {
    if (!count || (capacity && !ports)) return E_POINTER;
    *count = 0;
    CProvider* p = g_pProvider.load();
    if (!p) return VDS_E_PROVIDER_FAILURE;
    CLockGuard lock("TrovHostHbaPorts", hNotificationMutex);
    const std::vector<HbaPort>& list = p->Host().HBA_vec;
    *count = static_cast<uint32_t>(std::min<size_t>(list.size(), UINT32_MAX));
    for (uint32_t i = 0; i < capacity && i < list.size(); ++i) {
        TrovHostHbaPort& o = ports[i];
        std::memset(&o, 0, sizeof o);
        std::memcpy(o.nodeWwn, list[i].NodeWWN, 8);
        std::memcpy(o.portWwn, list[i].PortWWN, 8);
        o.portType = list[i].PortType, o.portState = list[i].PortState;
        o.portSpeed = list[i].PortSpeed, o.portSupportedSpeed = list[i].PortSupportedSpeed;
        o.portNumber = list[i].portNumber;
    }
    return S_OK;
}
TROV_CATCH_OOM

__attribute__((visibility("default"))) HRESULT TrovHostLunPaths(const VDS_OBJECT_ID* id,
                                                                 TrovHostLunPathList* out) try {
    if (!out) return E_POINTER;
    std::memset(out, 0, sizeof *out);
    CLun* lun = nullptr;
    if (HRESULT hr = FindLun(id, &lun); FAILED(hr)) return hr;
    CComPtr<IVdsLun> hold;
    hold.Attach(lun);
    CLockGuard lock("TrovHostLunPaths", hNotificationMutex);
    lun->refreshWmiIfRequested();
    std::u16string disk;
    std::vector<LunHostPath> paths;
    CProvider* p = g_pProvider.load();
    if (!p || !FindLunHostPaths(lun, p->Host(), &disk, &out->policy, &paths))
        return S_FALSE;
    std::string name = WideToUtf8(disk.c_str());
    std::snprintf(out->disk, sizeof out->disk, "%s", name.c_str());
    for (const LunHostPath& s : paths) {
        if (out->count >= kTrovHostMaxPaths) break;
        TrovHostPath& o = out->paths[out->count++];
        o.pathId = s.pathId;
        o.portNumber = s.portNumber, o.busNumber = s.busNumber, o.targetId = s.targetId, o.lun = s.lun;
        o.primary = s.primary, o.optimized = s.optimized, o.preferred = s.preferred, o.failed = s.failed;
        o.weight = s.weight, o.tpgState = s.tpgState, o.tpgId = s.tpgId, o.targetPortId = s.targetPortId;
        o.status = s.status;
        o.controllerPortId = s.controllerPortId;
    }
    return S_OK;
}
TROV_CATCH_OOM

__attribute__((visibility("default"))) HRESULT TrovHostSetLunPolicy(const VDS_OBJECT_ID* id, uint32_t policy,
                                                                     const VDS_PATH_POLICY* paths, uint32_t count,
                                                                     BOOL dryRun, char* plan,
                                                                     uint32_t planCapacity) try {
    if (count && !paths) return E_POINTER;
    if (plan && planCapacity) plan[0] = 0;
    CLun* lun = nullptr;
    if (HRESULT hr = FindLun(id, &lun); FAILED(hr)) return hr;
    CComPtr<IVdsLun> hold;
    hold.Attach(lun);
    CLockGuard lock("TrovHostSetLunPolicy", hNotificationMutex);
    CProvider* p = g_pProvider.load();
    if (!p) return VDS_E_PROVIDER_FAILURE;
    const HostFacts& h = p->Host();
    const std::string serial = LunSerialText(lun->PartitionSerial());
    const bool both = lun->SubSystem() && lun->SubSystem()->SupportsUlp();
    MultipathWrite w;
    int rc = HostIsWin2008() ? WmiSetLoadBalancePolicy_V2(h.mpioDiskInfoVec, serial, h.mpioDsmPathV2Vec, policy,
                                                          paths, count, both, dryRun != FALSE, &w)
                             : WmiSetLoadBalancePolicy(h.mpioDiskInfoVec, serial, policy, paths, count,
                                                       dryRun != FALSE, &w);
    if (rc == 0 && !dryRun) lun->requestWmiUpdate();
    return WriteResult("the load-balance policy", rc, w, plan, planCapacity);
}
TROV_CATCH_OOM

__attribute__((visibility("default"))) HRESULT TrovHostSetPathStatus(const VDS_OBJECT_ID* id,
                                                                      const uint64_t* pathIds, uint32_t count,
                                                                      VDS_PATH_STATUS status, BOOL dryRun,
                                                                      char* plan, uint32_t planCapacity) try {
    if (count && !pathIds) return E_POINTER;
    if (plan && planCapacity) plan[0] = 0;
    CLun* lun = nullptr;
    if (HRESULT hr = FindLun(id, &lun); FAILED(hr)) return hr;
    CComPtr<IVdsLun> hold;
    hold.Attach(lun);
    CLockGuard lock("TrovHostSetPathStatus", hNotificationMutex);
    MultipathWrite w;
    int rc = WmiSetPathStatus(std::vector<uint64_t>(pathIds, pathIds + std::min<uint32_t>(count, kTrovHostMaxPaths * 16)),
                              status, dryRun != FALSE, &w);
    if (rc == 0 && !dryRun) lun->requestWmiUpdate();
    return WriteResult("the path status", rc, w, plan, planCapacity);
}
TROV_CATCH_OOM

}  // extern "C"
