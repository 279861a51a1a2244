// CControllerPort: one host port of a controller, named by its address (world-wide name, SAS
// address, or IP address) with a status from its link.
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

class CControllerPort : public CComObjectRootEx, public CVdsBase, public IVdsControllerPort {
public:
    static constexpr VDS_OBJECT_TYPE kObjectType = VDS_OT_PORT;

    CControllerPort();
    ~CControllerPort() override;
    HRESULT InternalQueryInterface(REFIID riid, void** ppv);

    // IVdsControllerPort
    HRESULT GetProperties(VDS_PORT_PROP* pPortProp) override;
    HRESULT GetController(IVdsController** ppController) override;
    HRESULT QueryAssociatedLuns(IEnumVdsObject** ppEnum) override;
    HRESULT Reset() override;
    HRESULT SetStatus(VDS_PORT_STATUS status) override;

    HRESULT Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem, CController* controller,
                       const ControllerData* record, uint32_t channel);
    void Dispose();
    void TearDown() override { Dispose(); }

    int OwnerId() const override { return m_Owner; }
    uint8_t Owner() const { return m_Owner; }
    // The port's number on its controller (its channel in the controller's record).
    uint32_t PortNumber() const { return m_channel; }
    const VDS_OBJECT_ID& Id() const { return m_prop.id; }
    const WCHAR* FriendlyName() const { return m_prop.pwszFriendlyName; }
    const WCHAR* Identification() const { return m_prop.pwszIdentification; }
    // The port's world-wide name (zero for a port without one).
    const uint8_t* PortWwn() const { return m_portWwn; }

    // The port's address as its name: 16 hexadecimal digits of a world-wide name or SAS address,
    // dotted IPv4, or IPv6 bytes joined by colons. `known` is false for a bus type without an
    // address (and for an iSCSI port of neither IP version).
    static std::u16string AddressName(const PortData& port, bool* known);

private:
    CProvider* m_pProvider = nullptr;      // counted
    CSubSystem* m_pSubSystem = nullptr;    // counted
    CController* m_pController = nullptr;  // counted
    VDS_PORT_PROP m_prop{};
    uint8_t m_Owner = 0;
    uint32_t m_channel = 0;
    uint32_t m_initialised = 0;
    uint8_t m_portWwn[8]{};
};
