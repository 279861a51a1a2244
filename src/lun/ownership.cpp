// Which controller serves a LUN: AssociateControllerPorts and AssociateTargets move its vdisk to
// the other controller (set_owner; every partition of the vdisk moves with it), and the queries
// say where the LUN is active. On an array in ULP mode both controllers serve every LUN, so a
// mapped LUN may move and every port and target serves it.
#include <cstring>
#include <memory>
#include <string>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "core/provider.h"
#include "lun/lun.h"
#include "objects/boundary.h"
#include "objects/controller.h"
#include "objects/controller_port.h"
#include "objects/enumerator.h"
#include "objects/iscsi.h"
#include "objects/object_util.h"
#include "objects/subsystem.h"
#include "proxy/kelvane.h"
#include "support/debuglog.h"

namespace {

constexpr uint8_t kOwnerA = 1;

bool IsWell(const CController* c) { return c->Status() == VDS_CS_ONLINE && c->Health() == VDS_H_HEALTHY; }

bool Mapped(const PartitionView& v) {
    return v.viewCount() != 0 || (v.defaultLun >= 1 && v.defaultLun <= 65534) ||
           (v.defaultLun == 0 && v.hasDefaultAccess());
}

bool IdIn(const VDS_OBJECT_ID& id, const VDS_OBJECT_ID* ids, LONG n) {
    for (LONG i = 0; i < n; ++i)
        if (ids[i] == id) return true;
    return false;
}

const char* SideName(int side) { return side == 1 ? "A" : side == 0 ? "B" : "none"; }

}  // namespace

HRESULT CLun::AssociateControllerPorts(VDS_OBJECT_ID* pActiveControllerPortIdArray,
                                       LONG lNumberOfActiveControllerPorts, VDS_OBJECT_ID*, LONG) try {
    DebugTrace("CLun::AssociateControllerPorts()\n");
    CLockGuard lock("CLun::AssociateControllerPorts", hNotificationMutex);
    if (m_isDummy) {
        DebugTrace("CLun::AssociateControllerPorts(), it is a dummy volume, can't AssociateControllerPorts, line %d\n",
                   __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    const bool ulp = m_pSubSystem && m_pSubSystem->SupportsUlp();
    if (HasUnmaskingList() && !ulp) {
        DebugTrace("OOP!!! CLun::AssociateControllerPorts() m_prop.pwszUnmaskingList != , means it has map return "
                   "VDS_E_NOT_SUPPORTED, line %d\n",
                   __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    if (!CanOperate()) return VDS_E_OBJECT_STATUS_FAILED;
    if (!m_pController || !m_pSubSystem || !m_pProvider) return VDS_E_OBJECT_DELETED;
    if (lNumberOfActiveControllerPorts < 0 || (lNumberOfActiveControllerPorts > 0 && !pActiveControllerPortIdArray))
        return E_POINTER;
    const uint32_t handle = m_pController->Handle();
    std::unique_ptr<uint8_t[]> buf = NewRecordBuffer();
    if (Kelvane::get_controller_data(handle, buf.get()) != 0) return VDS_E_INTERNAL_ERROR;
    const auto* cd = reinterpret_cast<const ControllerData*>(buf.get());

    bool found = false, anyMapped = false;
    uint32_t partitions = 0;
    auto view = std::make_unique<PartitionView>();
    for (uint32_t a = 0; a < cd->arrayCount() && !found; ++a) {
        if (std::memcmp(cd->array(a).serialNumber, m_ArraySn, 32) != 0) continue;
        found = true;
        partitions = cd->partitionCountOf(a);
        for (uint32_t p = 0; p < partitions; ++p) {
            if (Kelvane::get_part_view(handle, cd->partition(a, p).PartSn, view.get()) != 0) {
                DebugTrace("error: CLun::AssociateControllerPorts() get_part_view() returned false--returning %x "
                           "(VDS_E_INTERNAL_ERROR)\n",
                           static_cast<unsigned>(VDS_E_INTERNAL_ERROR));
                return VDS_E_INTERNAL_ERROR;
            }
            if (Mapped(*view)) anyMapped = true;
        }
    }
    if (!found) {
        DebugTrace("error: could not find specified vdisk, returning VDS_E_OBJECT_NOT_FOUND");
        return VDS_E_OBJECT_NOT_FOUND;
    }
    // Ownership moves with the vdisk, so every partition moves with it.
    if (partitions > 1 && anyMapped && !ulp) {
        DebugTrace("error: >1 partitions and a partition is mapped; returning VDS_E_NOT_SUPPORTED");
        return VDS_E_NOT_SUPPORTED;
    }

    bool haveA = false, haveB = false, portsOnA = false, portsOnB = false;
    std::string ports;
    m_pSubSystem->ForEach<CController>([&](CController* c) {
        (c->Owner() == kOwnerA ? haveA : haveB) = true;
        for (const auto& [id, e] : c->Ports()) {
            auto* port = e.As<CControllerPort>();
            if (!port || !IdIn(port->Id(), pActiveControllerPortIdArray, lNumberOfActiveControllerPorts)) continue;
            const bool onA = port->Owner() == kOwnerA;
            (onA ? portsOnA : portsOnB) = true;
            if (!ports.empty()) ports += ",";
            ports += (onA ? 'A' : 'B') + std::to_string(port->PortNumber());
        }
    });
    if (!haveA || !haveB) return VDS_E_NOT_SUPPORTED;
    if (portsOnA && portsOnB) {
        DebugTrace("error: ports on both controllers specified--can't determine what to do");
        return VDS_E_NOT_SUPPORTED;
    }
    const int requested = portsOnA ? 1 : portsOnB ? 0 : -1;
    DebugTrace("current owner=%s, requested controller=%s, specified_ports=%s", SideName(m_Owner), SideName(requested),
               ports.c_str());
    if ((m_Owner == kOwnerA && portsOnA) || (m_Owner == 0 && portsOnB)) return S_OK;
    if (Kelvane::set_owner(handle, m_ArraySn) != 0) {
        DebugTrace("error: CLun::AssociateControllerPorts(): set_owner() return VDS_E_INTERNAL_ERROR, line %d\n",
                   __LINE__);
        return VDS_E_INTERNAL_ERROR;
    }
    CComPtr<IVdsHwProvider> provider(static_cast<IVdsHwProvider*>(m_pProvider));
    if (m_pController) {
        static_cast<IVdsController*>(m_pController)->Release();
        m_pController = nullptr;
    }
    // The rebuild may replace this LUN in the tree: nothing here touches a member after it.
    provider->Refresh();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CLun::AssociateTargets(VDS_OBJECT_ID* pTargetIdArray, LONG lNumberOfTargets) try {
    DebugTrace("CLun::AssociateTargets()\n");
    CLockGuard lock("CLun::AssociateTargets", hNotificationMutex);
    if (HasUnmaskingList()) {
        DebugTrace("OOP!!! CLun::AssociateTargets() pwszUnmaskingList != , means it has map, line %d\n", __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    if (!CanOperate()) {
        DebugTrace("OOP!!! CLun::AssociateTargets() CanOperate() return false, line %d\n", __LINE__);
        return VDS_E_OBJECT_STATUS_FAILED;
    }
    if (!m_pController || !m_pSubSystem) return VDS_E_OBJECT_DELETED;
    const uint32_t handle = m_pController->Handle();
    std::unique_ptr<uint8_t[]> buf = NewRecordBuffer();
    if (Kelvane::get_controller_data(handle, buf.get()) != 0) return VDS_E_INTERNAL_ERROR;
    const auto* cd = reinterpret_cast<const ControllerData*>(buf.get());
    const ArrayData* array = nullptr;
    for (uint32_t a = 0; a < cd->arrayCount(); ++a)
        if (std::memcmp(cd->array(a).serialNumber, m_ArraySn, 32) == 0) array = &cd->array(a);
    if (!array) {
        DebugTrace("OOP!!! CLun::AssociateTargets() pArray is NULL, line %d\n", __LINE__);
        return VDS_E_INTERNAL_ERROR;
    }
    if (lNumberOfTargets != 1 || !pTargetIdArray) {
        DebugTrace("OOP!!! CLun::AssociateTargets() lNumberOfTargets != 1, line %d\n", __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    CController* ctrlA = m_pSubSystem->FindFirst<CController>([](CController* c) { return c->Owner() == kOwnerA; });
    CController* ctrlB = m_pSubSystem->FindFirst<CController>([](CController* c) { return c->Owner() == 0; });
    CIscsiTarget* target =
        m_pSubSystem->FindFirst<CIscsiTarget>([&](CIscsiTarget* t) { return t->Prop().id == pTargetIdArray[0]; });
    if (!ctrlA || !ctrlB) {
        DebugTrace("OOP!!! CLun::AssociateTargets() pCtrlA==NULL || pCtrlB==NULL, line %d\n", __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    // A target that isn't the subsystem's is no target to associate with.
    if (!target) return VDS_E_OBJECT_NOT_FOUND;
    if (array->partitionCount() >= 2 && m_Owner != target->Owner()) {
        DebugTrace("OOP!!! CLun::AssociateTargets() pArray->numArrayPartitions > 1, Lun->Owner != pTarget->Owner() "
                   "line %d\n",
                   __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    if (m_Owner == target->Owner()) return SetMaskLocked("*");
    if (Kelvane::set_owner(handle, m_ArraySn) != 0) {
        DebugTrace("OOP!!! CLun::AssociateTargets() set_owner return false, line %d\n", __LINE__);
        return VDS_E_INTERNAL_ERROR;
    }
    CComPtr<IVdsController> keepA(static_cast<IVdsController*>(ctrlA)), keepB(static_cast<IVdsController*>(ctrlB));
    static_cast<IVdsController*>(m_pController)->Release();
    CController* was = m_pController;
    m_pController = nullptr;
    CController* next = nullptr;
    const bool wellA = IsWell(ctrlA), wellB = IsWell(ctrlB);
    if (wellA && wellB) {
        next = was == ctrlA ? ctrlB : ctrlA;
        m_Owner = next->Owner();
    } else if (wellB) {
        next = ctrlB;
        m_Owner = m_Owner == 0 ? 1 : 0;
    } else if (wellA) {
        next = ctrlA;
        m_Owner = m_Owner == 0 ? 1 : 0;
    } else {
        DebugTrace("CLun::AssociateControllerPorts(), OOP!!!, both controller is shutdown!!\n");
    }
    if (next) {
        static_cast<IVdsController*>(next)->AddRef();
        m_pController = next;
    }
    // An association with a target is a mapping to all hosts.
    HRESULT hr = m_pController ? SetMaskLocked("*") : VDS_E_INTERNAL_ERROR;
    DebugTrace("CLunIscsi::AssociateTargets() out\n");
    return hr;
}
TROV_CATCH_OOM

HRESULT CLun::QueryActiveControllers(IEnumVdsObject** ppEnum) try {
    if (!ppEnum) {
        DebugTrace("ppEnum is NULL, CLun::QueryActiveControllers() out \n");
        return E_POINTER;
    }
    *ppEnum = nullptr;
    CLockGuard lock("CLun::QueryActiveControllers", hNotificationMutex);
    CComPtr<CComObject<CEnumerator>> out;
    out.Attach(CEnumerator::Create());
    if (!out) return E_OUTOFMEMORY;
    if (m_pController) out->Append(static_cast<IVdsController*>(m_pController));
    out->Reset();
    *ppEnum = out.Detach();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CLun::QueryActiveControllerPorts(IEnumVdsObject** ppEnum) try {
    if (!ppEnum) return E_POINTER;
    *ppEnum = nullptr;
    CLockGuard lock("CLun::QueryActiveControllerPorts", hNotificationMutex);
    CComPtr<CComObject<CEnumerator>> out;
    out.Attach(CEnumerator::Create());
    if (!out) return E_OUTOFMEMORY;
    if (m_pSubSystem) {
        const bool ulp = m_pSubSystem->SupportsUlp();
        m_pSubSystem->ForEach<CController>([&](CController* c) {
            if (!ulp && c->Owner() != m_Owner) return;
            for (const auto& [id, e] : c->Ports())
                if (auto* port = e.As<CControllerPort>()) out->Append(static_cast<IVdsControllerPort*>(port));
        });
    }
    out->Reset();
    *ppEnum = out.Detach();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CLun::QueryAssociatedTargets(IEnumVdsObject** ppEnum) try {
    if (!ppEnum) return E_POINTER;
    *ppEnum = nullptr;
    CLockGuard lock("CLun::QueryAssociatedTargets", hNotificationMutex);
    CComPtr<CComObject<CEnumerator>> out;
    out.Attach(CEnumerator::Create());
    if (!out) return E_OUTOFMEMORY;
    // A LUN with no mapping has no targets.
    if (m_pSubSystem && HasUnmaskingList()) {
        const bool ulp = m_pSubSystem->SupportsUlp();
        m_pSubSystem->ForEach<CIscsiTarget>([&](CIscsiTarget* t) {
            if (!ulp && t->Owner() != m_Owner) return;
            out->Append(static_cast<IVdsIscsiTarget*>(t));
        });
    }
    out->Reset();
    *ppEnum = out.Detach();
    return S_OK;
}
TROV_CATCH_OOM
