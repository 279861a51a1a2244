// The host's adapter ports.
//
// GetHbaPortProp reads the Fibre Channel ports of the host as an HBA library knows them: one
// port per sys/class/fc_host/hostN, with its names, type, state and speeds, and N as its port
// number. GetHbaPortPropsByProxy then adds the initiators that the proxy service knows to be
// connected to the array and that the host's list doesn't show (the usual case of an iSCSI
// host). GetFcpTargetMappings lists the targets a port reaches, from the remote ports of its
// SCSI host (sys/class/fc_remote_ports/rport-H:B-N). The iSCSI side of the host (its initiator
// name and sessions, from sys/class/iscsi_host and the open-iscsi initiator-name file) is read by
// ReadIscsiSessions. Every list from the host is bounded.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class CProvider;

struct HbaPort {  // 52 bytes
    uint8_t reserved[16];
    uint8_t NodeWWN[8];
    uint8_t PortWWN[8];
    uint32_t PortType;
    uint32_t PortState;
    uint32_t PortSpeed;
    uint32_t PortSupportedSpeed;
    uint32_t portNumber;
};
static_assert(sizeof(HbaPort) == 52);

// HBA_PORTTYPE, HBA_PORTSTATE and HBA_PORTSPEED values.
constexpr uint32_t HBA_PORTTYPE_UNKNOWN = 1, HBA_PORTTYPE_OTHER = 2, HBA_PORTTYPE_NOTPRESENT = 3,
                   HBA_PORTTYPE_NPORT = 5, HBA_PORTTYPE_NLPORT = 6, HBA_PORTTYPE_LPORT = 20, HBA_PORTTYPE_PTP = 21;
constexpr uint32_t HBA_PORTSTATE_UNKNOWN = 1, HBA_PORTSTATE_ONLINE = 2, HBA_PORTSTATE_OFFLINE = 3,
                   HBA_PORTSTATE_BYPASSED = 4, HBA_PORTSTATE_DIAGNOSTICS = 5, HBA_PORTSTATE_LINKDOWN = 6,
                   HBA_PORTSTATE_ERROR = 7, HBA_PORTSTATE_LOOPBACK = 8;

// HBA_FCPSCSIENTRYV2, as published.
struct HbaScsiId {
    char OSDeviceName[256];
    uint32_t ScsiBusNumber;
    uint32_t ScsiTargetNumber;
    uint32_t ScsiOSLun;
};
struct HbaFcpId {
    uint32_t FcId;
    uint8_t NodeWWN[8];
    uint8_t PortWWN[8];
    uint64_t FcpLun;
};
struct HbaFcpScsiEntryV2 {
    HbaScsiId ScsiId;
    HbaFcpId FcpId;
    uint8_t LUID[256];
};
static_assert(sizeof(HbaFcpScsiEntryV2) == 560);
constexpr size_t kMaxFcpMappings = 256;
constexpr size_t kMaxFcHosts = 256;

// 0, or 1 when the host has no adapter facilities to read (no sysfs classes).
int GetHbaPortProp(std::vector<HbaPort>& list);
void GetHbaPortPropsByProxy(CProvider* provider, std::vector<HbaPort>& list);
void GetFcpTargetMappings(const uint8_t portWWN[8], std::vector<HbaFcpScsiEntryV2>& mappings);

// Texts of sysfs's fc_host attributes as HBA API values.
uint32_t HbaPortTypeOf(const std::string& text);
uint32_t HbaPortStateOf(const std::string& text);
uint32_t HbaSpeedOf(const std::string& text);  // one speed or a comma list of them
// "0x21000024ff3a5b6c" into 8 bytes; false for anything else.
bool ParseWwn(const std::string& text, uint8_t out[8]);

struct IscsiSession {
    uint32_t host = 0;           // the SCSI host of the session
    std::string session;         // "session3"
    std::string targetName, state, address;
    uint32_t port = 0, tpgt = 0;
};
// The host's iSCSI sessions by SCSI host, and its initiator name ("" when none is set).
void ReadIscsiSessions(std::vector<IscsiSession>* sessions, std::string* initiatorName);
constexpr size_t kMaxIscsiSessions = 1024;
