// The iSCSI side of a subsystem: one target per controller (one shared by both when the array
// presents every volume on both, b_SupportULP), and per iSCSI host port one portal and one portal
// group of its own, tied by a tag (the port's index, plus 100 on controller A). All of it is
// fixed in the array: the host reads it, sets names and secrets, and creates nothing.
#pragma once

#include <cstdint>
#include <string>

#include "core/vds_base.h"
#include "platform/com.h"
#include "platform/vds.h"
#include "platform/vds_interfaces.h"
#include "proxy/records.h"

class CProvider;
class CSubSystem;
class CController;

class CIscsiTarget : public CComObjectRootEx, public CVdsBase, public IVdsIscsiTarget {
public:
    static constexpr VDS_OBJECT_TYPE kObjectType = VDS_OT_TARGET;

    CIscsiTarget();
    ~CIscsiTarget() override;
    HRESULT InternalQueryInterface(REFIID riid, void** ppv);

    // IVdsIscsiTarget
    HRESULT GetProperties(VDS_ISCSI_TARGET_PROP* pTargetProp) override;
    HRESULT GetSubSystem(IVdsSubSystem** ppSubSystem) override;
    HRESULT QueryPortalGroups(IEnumVdsObject** ppEnum) override;
    HRESULT QueryAssociatedLuns(IEnumVdsObject** ppEnum) override;
    HRESULT CreatePortalGroup(IVdsAsync** ppAsync) override;
    HRESULT Delete(IVdsAsync** ppAsync) override;
    HRESULT SetFriendlyName(LPWSTR pwszFriendlyName) override;
    HRESULT SetSharedSecret(VDS_ISCSI_SHARED_SECRET* pTargetSharedSecret, LPWSTR pwszInitiatorName) override;
    HRESULT RememberInitiatorSharedSecret(LPWSTR pwszInitiatorName,
                                          VDS_ISCSI_SHARED_SECRET* pInitiatorSharedSecret) override;
    HRESULT GetConnectedInitiators(LPWSTR** pppwszInitiatorList, LONG* plNumberOfInitiators) override;

    void Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem, CController* controller,
                    const ControllerData* record);
    void Dispose();
    void TearDown() override { Dispose(); }

    // The target's iSCSI name, also its key text: the base name, with ".a" or ".b" by controller
    // unless one target serves both.
    static std::u16string TargetName(const UnifiedControllerData& unified, uint8_t controllerId, bool ulp);

    SortKey GetSortKey() const override { return {-static_cast<int64_t>(m_Owner), 0, {}}; }
    int OwnerId() const override { return m_Owner; }
    uint8_t Owner() const { return m_Owner; }
    const VDS_ISCSI_TARGET_PROP& Prop() const { return m_prop; }

private:
    uint32_t Handle() const;
    bool Shared() const;

    CProvider* m_pProvider = nullptr;      // counted
    CSubSystem* m_pSubSystem = nullptr;    // counted
    CController* m_pController = nullptr;  // counted
    VDS_ISCSI_TARGET_PROP m_prop{};
    uint8_t m_Owner = 3;
};

class CIscsiPortal : public CComObjectRootEx, public CVdsBase, public IVdsIscsiPortal {
public:
    static constexpr VDS_OBJECT_TYPE kObjectType = VDS_OT_PORTAL;

    CIscsiPortal();
    ~CIscsiPortal() override;
    HRESULT InternalQueryInterface(REFIID riid, void** ppv);

    // IVdsIscsiPortal
    HRESULT GetProperties(VDS_ISCSI_PORTAL_PROP* pPortalProp) override;
    HRESULT GetSubSystem(IVdsSubSystem** ppSubSystem) override;
    HRESULT QueryAssociatedPortalGroups(IEnumVdsObject** ppEnum) override;
    HRESULT SetStatus(VDS_ISCSI_PORTAL_STATUS status) override;
    HRESULT SetIpsecTunnelAddress(VDS_IPADDRESS* pTunnelAddress, VDS_IPADDRESS* pDestinationAddress) override;
    HRESULT GetIpsecSecurity(VDS_IPADDRESS* pInitiatorPortalAddress, ULONGLONG* pullSecurityFlags) override;
    HRESULT SetIpsecSecurity(VDS_IPADDRESS* pInitiatorPortalAddress, ULONGLONG ullSecurityFlags,
                             VDS_ISCSI_IPSEC_KEY* pIpsecKey) override;

    HRESULT Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem, CController* controller,
                       const ControllerData* record, uint32_t index);
    void Dispose();
    void TearDown() override { Dispose(); }

    // "<address> Portal": the key text (dotted IPv4, or sixteen hex pairs joined by ':').
    static std::u16string KeyText(const PortData& port);
    static uint16_t TagFor(uint8_t controllerId, uint32_t index) {
        return static_cast<uint16_t>(controllerId == 1 ? index + 100 : index);
    }

    SortKey GetSortKey() const override {
        return {-static_cast<int64_t>(m_Owner), static_cast<int64_t>(static_cast<uint16_t>(m_prop.address.ulPort)), {}};
    }
    int OwnerId() const override { return m_Owner; }
    uint16_t Tag() const { return m_tag; }
    const VDS_ISCSI_PORTAL_PROP& Prop() const { return m_prop; }

private:
    CProvider* m_pProvider = nullptr;      // counted
    CSubSystem* m_pSubSystem = nullptr;    // counted
    CController* m_pController = nullptr;  // counted
    uint32_t m_initialised = 0;
    VDS_ISCSI_PORTAL_PROP m_prop{};
    uint8_t m_Owner = 3;
    uint16_t m_tag = 0;
};

class CIscsiPortalGroup : public CComObjectRootEx, public CVdsBase, public IVdsIscsiPortalGroup {
public:
    static constexpr VDS_OBJECT_TYPE kObjectType = VDS_OT_PORTAL_GROUP;

    CIscsiPortalGroup();
    ~CIscsiPortalGroup() override;
    HRESULT InternalQueryInterface(REFIID riid, void** ppv);

    // IVdsIscsiPortalGroup
    HRESULT GetProperties(VDS_ISCSI_PORTALGROUP_PROP* pPortalGroupProp) override;
    HRESULT GetTarget(IVdsIscsiTarget** ppTarget) override;
    HRESULT QueryAssociatedPortals(IEnumVdsObject** ppEnum) override;
    HRESULT AddPortal(VDS_OBJECT_ID portalId, IVdsAsync** ppAsync) override;
    HRESULT RemovePortal(VDS_OBJECT_ID portalId, IVdsAsync** ppAsync) override;
    HRESULT Delete(IVdsAsync** ppAsync) override;

    void Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem, CController* controller,
                    const ControllerData* record, uint32_t index);
    void Dispose();
    void TearDown() override { Dispose(); }

    // The group's tag in decimal: its key text.
    static std::u16string KeyText(uint16_t tag);

    SortKey GetSortKey() const override { return {-static_cast<int64_t>(m_Owner), static_cast<int64_t>(m_tag), {}}; }
    int OwnerId() const override { return m_Owner; }
    uint16_t Tag() const { return m_tag; }
    uint8_t Owner() const { return m_Owner; }

private:
    CProvider* m_pProvider = nullptr;      // counted
    CSubSystem* m_pSubSystem = nullptr;    // counted
    CController* m_pController = nullptr;  // counted
    VDS_ISCSI_PORTALGROUP_PROP m_prop{};
    uint8_t m_Owner = 3;
    uint16_t m_tag = 0;
};
