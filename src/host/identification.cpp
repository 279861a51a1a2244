#include "host/identification.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "core/provider.h"
#include "host/device_scan.h"
#include "objects/boundary.h"
#include "objects/controller.h"
#include "lun/lun.h"
#include "objects/subsystem.h"
#include "platform/wstr.h"
#include "support/debuglog.h"

namespace {

// A host's identifier list is walked no further than this, whatever count it gives.
constexpr ULONG kMaxHostIdentifiers = 1024;

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Up to `n` bytes as "%02X", at most 64 characters of text.
std::string HexText(const BYTE* p, ULONG n) {
    std::string s;
    for (ULONG i = 0; p && i < n && s.size() < 64; ++i) {
        char b[3];
        std::snprintf(b, sizeof b, "%02X", p[i]);
        s += b;
    }
    return s;
}

char* NewBlock(size_t n) {
    auto* p = static_cast<char*>(CoTaskMemAlloc(n));
    if (p) std::memset(p, 0, n);
    return p;
}

void TrimBlanks(char* s) {
    if (!s) return;
    size_t n = std::strlen(s);
    while (n > 0 && s[n - 1] == ' ') s[--n] = 0;
}

// The text of a page 0x80 from byte 4, within the record's block.
std::string Page80Text(const ScsiDeviceRecord& r) {
    const char* p = reinterpret_cast<const char*>(r.page80) + 4;
    return std::string(p, strnlen(p, sizeof r.page80 - 4));
}

void FreeIdentifiers(VDS_STORAGE_DEVICE_ID_DESCRIPTOR* d) {
    if (!d->m_rgIdentifiers) return;
    for (ULONG i = 0; i < d->m_cIdentifiers; ++i) CoTaskMemFree(d->m_rgIdentifiers[i].m_rgbIdentifier);
    CoTaskMemFree(d->m_rgIdentifiers);
    d->m_rgIdentifiers = nullptr;
    d->m_cIdentifiers = 0;
}

void FreeInformation(VDS_LUN_INFORMATION* info) {
    CoTaskMemFree(info->m_szVendorId);
    CoTaskMemFree(info->m_szProductId);
    CoTaskMemFree(info->m_szProductRevision);
    CoTaskMemFree(info->m_szSerialNumber);
    FreeIdentifiers(&info->m_deviceIdDescriptor);
    std::memset(info, 0, sizeof *info);
}

bool SetIdentifier(VDS_STORAGE_IDENTIFIER* id, VDS_STORAGE_IDENTIFIER_TYPE type, const uint8_t* bytes, ULONG n) {
    id->m_CodeSet = VDSStorageIdCodeSetBinary;
    id->m_Type = type;
    id->m_cbIdentifier = n;
    id->m_rgbIdentifier = static_cast<BYTE*>(CoTaskMemAlloc(n));
    if (!id->m_rgbIdentifier) return false;
    std::memcpy(id->m_rgbIdentifier, bytes, n);
    return true;
}

}  // namespace

void NaaIdentifierFromSerial(const uint8_t* s, uint8_t out[16]) {
    std::memset(out, 0, 16);
    out[0] = static_cast<uint8_t>(0x60 | (s[0] >> 4));
    out[1] = static_cast<uint8_t>((s[1] >> 4) ^ (s[0] << 4));
    out[2] = static_cast<uint8_t>((s[2] >> 4) ^ (s[1] << 4));
    out[3] = static_cast<uint8_t>(s[2] << 4);
    out[4] = 0;
    out[5] = s[3], out[6] = s[4], out[7] = s[5];
    std::memcpy(out + 8, s + 8, 5);
}

std::string LunSerialText(const uint8_t* serial) {
    std::string s;
    for (int i = 0; i < 16; ++i) {
        char b[3];
        std::snprintf(b, sizeof b, "%02x", serial[i]);
        s += b;
    }
    return s;
}

void ControllerIdentifier(const char* unique, uint8_t out[6]) {
    bool hex = true;
    for (int i = 0; i < 12 && hex; ++i) hex = HexValue(unique[i]) >= 0;
    for (int i = 0; i < 6; ++i)
        out[i] = hex ? static_cast<uint8_t>(HexValue(unique[2 * i]) << 4 | HexValue(unique[2 * i + 1]))
                     : static_cast<uint8_t>(unique[i]);
}

void PrintLunInformation(const VDS_LUN_INFORMATION* info) {
    if (!info || CurrentDebugConfig().DebugLevel < 5) return;
    DebugTrace("PrintLunInformation: m_version %d m_DeviceType %d m_DeviceTypeModifier %d m_bCommandQueueing %d "
               "m_BusType %d\n",
               static_cast<int>(info->m_version), info->m_DeviceType, info->m_DeviceTypeModifier,
               static_cast<int>(info->m_bCommandQueueing), static_cast<int>(info->m_BusType));
    DebugTrace("    m_szVendorId \"%s\" m_szProductId \"%s\" m_szProductRevision \"%s\" m_szSerialNumber \"%s\"\n",
               info->m_szVendorId ? info->m_szVendorId : "(null)", info->m_szProductId ? info->m_szProductId : "(null)",
               info->m_szProductRevision ? info->m_szProductRevision : "(null)",
               info->m_szSerialNumber ? info->m_szSerialNumber : "(null)");
    DebugTrace("    m_diskSignature %s\n", LogGuid(info->m_diskSignature).c_str());
    const VDS_STORAGE_DEVICE_ID_DESCRIPTOR& d = info->m_deviceIdDescriptor;
    DebugTrace("    m_deviceIdDescriptor m_version %d m_cIdentifiers %d\n", static_cast<int>(d.m_version),
               static_cast<int>(d.m_cIdentifiers));
    for (ULONG i = 0; d.m_rgIdentifiers && i < d.m_cIdentifiers && i < kMaxHostIdentifiers; ++i) {
        const VDS_STORAGE_IDENTIFIER& id = d.m_rgIdentifiers[i];
        DebugTrace("    [%d] m_CodeSet %d m_Type %d m_cbIdentifier %d %s\n", static_cast<int>(i),
                   static_cast<int>(id.m_CodeSet), static_cast<int>(id.m_Type), static_cast<int>(id.m_cbIdentifier),
                   HexText(id.m_rgbIdentifier, id.m_cbIdentifier).c_str());
    }
    DebugTrace("    m_cInterconnects %d\n", static_cast<int>(info->m_cInterconnects));
}

HRESULT CLun::GetIdentificationData(VDS_LUN_INFORMATION* pLunInfo) try {
    DebugTrace("%s()\n", "CLun::GetIdentificationData");
    if (!pLunInfo) {
        DebugTrace("OOP!!! CLun::GetIdentificationData pLunInfo is NULL, return E_INVALIDARG, line %d\n", __LINE__);
        return E_INVALIDARG;
    }
    CLockGuard lock("CLun::GetIdentificationData", hNotificationMutex);
    VDS_LUN_INFORMATION& info = *pLunInfo;
    std::memset(&info, 0, sizeof info);
    info.m_version = VER_VDS_LUN_INFORMATION;
    info.m_DeviceType = 0;
    info.m_DeviceTypeModifier = 0;
    info.m_bCommandQueueing = TRUE;
    info.m_BusType = VDSBusTypeiScsi;
    info.m_cInterconnects = 0;
    info.m_rgInterconnects = nullptr;

    auto outOfMemory = [&]() {
        FreeInformation(&info);
        DebugTrace("OOP!!! CLun::GetIdentificationData CoTaskMemAlloc failed, return E_OUTOFMEMORY, line %d\n",
                   __LINE__);
        return E_OUTOFMEMORY;
    };
    const std::string serial = LunSerialText(m_partitionSn);
    const CController* ctrl = m_pController;
    info.m_szSerialNumber = NewBlock(64);
    info.m_szVendorId = NewBlock(9);
    info.m_szProductId = NewBlock(17);
    info.m_szProductRevision = NewBlock(20);
    if (!info.m_szSerialNumber || !info.m_szVendorId || !info.m_szProductId || !info.m_szProductRevision)
        return outOfMemory();
    std::memcpy(info.m_szSerialNumber, serial.c_str(), serial.size() + 1);
    if (ctrl) {
        std::memcpy(info.m_szVendorId, ctrl->VendorName(), 8);
        std::memcpy(info.m_szProductId, ctrl->ProductId(), 16);
        std::memcpy(info.m_szProductRevision, ctrl->FirmwareRevision(), 4);
    }

    std::vector<ScsiDeviceRecord> records;
    ScanScsiDevices(records);
    const ScsiDeviceRecord* found = nullptr;
    for (const ScsiDeviceRecord& r : records) {
        if (Page80Text(r) == serial) {
            found = &r;
            break;
        }
    }
    if (found) {
        std::memset(info.m_szProductId, 0, 17);
        std::memcpy(info.m_szProductId, found->inquiry + 16, 16);
        if (found->isMbr)
            std::memcpy(&info.m_diskSignature, &found->signature, 4);
        else
            std::memcpy(&info.m_diskSignature, found->gptDiskId, 16);
    } else {
        DebugTrace("lun not mapped, can not get product id from p80\n");
    }

    const uint8_t* macA = nullptr, *macB = nullptr, *ipA = nullptr, *ipB = nullptr;
    if (m_pSubSystem) {
        m_pSubSystem->ForEach<CController>([&](CController* c) {
            if (c->Owner() == 1) macA = c->MacAddress(), ipA = c->IpAddress();
            else if (c->Owner() == 0) macB = c->MacAddress(), ipB = c->IpAddress();
        });
    }
    bool ownerA = m_Owner == 1;
    const uint8_t* macOwn = ownerA ? macA : macB;
    const uint8_t* ipOwn = ownerA ? ipA : ipB;
    const uint8_t* macOther = ownerA ? macB : macA;
    const uint8_t* ipOther = ownerA ? ipB : ipA;
    uint8_t vendor[64] = {};
    vendor[0] = 0x11;
    if (ctrl) ControllerIdentifier(ctrl->UniqueSerial(), vendor + 1);
    if (macOwn) std::memcpy(vendor + 9, macOwn + 1, 5);
    if (ipOwn) std::memcpy(vendor + 16, ipOwn, 4);
    if (macOther) std::memcpy(vendor + 21, macOther + 1, 5);
    if (ipOther) std::memcpy(vendor + 28, ipOther, 4);
    ULONG vendorLength = 32;
    if (m_pSubSystem && m_pSubSystem->SupportsUlp() && found) {
        DebugTrace("lun is mapped, direct get it's page83.\n");
        std::memcpy(vendor + 32, found->page83 + 68, 32);
        vendorLength = 64;
    }

    uint8_t naa[16];
    NaaIdentifierFromSerial(m_partitionSn, naa);
    const uint8_t port[4] = {0, 0, 0, static_cast<uint8_t>(ownerA ? 1 : 2)};
    const uint8_t group[4] = {0, 0, 0, 0};
    auto* ids = static_cast<VDS_STORAGE_IDENTIFIER*>(CoTaskMemAlloc(4 * sizeof(VDS_STORAGE_IDENTIFIER)));
    if (!ids) return outOfMemory();
    std::memset(ids, 0, 4 * sizeof *ids);
    info.m_deviceIdDescriptor.m_version = 0;
    info.m_deviceIdDescriptor.m_cIdentifiers = 4;
    info.m_deviceIdDescriptor.m_rgIdentifiers = ids;
    if (!SetIdentifier(&ids[0], VDSStorageIdTypeFCPHName, naa, 16) ||
        !SetIdentifier(&ids[1], VDSStorageIdTypePortRelative, port, 4) ||
        !SetIdentifier(&ids[2], VDSStorageIdTypeVendorSpecific, vendor, vendorLength) ||
        !SetIdentifier(&ids[3], VDSStorageIdTypeTargetPortGroup, group, 4))
        return outOfMemory();

    TrimBlanks(info.m_szVendorId);
    TrimBlanks(info.m_szProductId);

    DebugTrace("m_version %d\n", static_cast<int>(info.m_version));
    DebugTrace("m_DeviceType %d\n", info.m_DeviceType);
    DebugTrace("m_DeviceTypeModifier %d\n", info.m_DeviceTypeModifier);
    DebugTrace("m_bCommandQueueing %d\n", static_cast<int>(info.m_bCommandQueueing));
    DebugTrace("m_BusType %d\n", static_cast<int>(info.m_BusType));
    DebugTrace("m_szVendorId \"%s\"\n", info.m_szVendorId);
    DebugTrace("m_szProductId \"%s\"\n", info.m_szProductId);
    DebugTrace("m_szProductRevision \"%s\"\n", info.m_szProductRevision);
    DebugTrace("m_szSerialNumber \"%s\"\n", info.m_szSerialNumber);
    for (ULONG i = 0; i < 4; ++i)
        DebugTrace("m_rgIdentifiers[%d] m_Type %d m_cbIdentifier %d %s\n", static_cast<int>(i),
                   static_cast<int>(ids[i].m_Type), static_cast<int>(ids[i].m_cbIdentifier),
                   HexText(ids[i].m_rgbIdentifier, ids[i].m_cbIdentifier).c_str());
    PrintLunInformation(&info);
    DebugTrace("GetIdentificationData out\n");
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CProvider::QueryIfCreatedLun(LPWSTR pwszDevicePath, VDS_LUN_INFORMATION* pVdsLunInformation,
                                     VDS_OBJECT_ID* pLunId) try {
    DebugTrace("%s()\n", "CProvider::QueryIfCreatedLun");
    if (!pwszDevicePath || !pVdsLunInformation || !pLunId) {
        DebugTrace("OOP!!! CProvider::QueryIfCreatedLun argument is NULL, return E_POINTER, line %d\n", __LINE__);
        return E_POINTER;
    }
    CLockGuard lock("CProvider::QueryIfCreatedLun", hNotificationMutex);
    const VDS_LUN_INFORMATION& info = *pVdsLunInformation;
    DebugTrace("CProvider::QueryIfCreatedLun() path %S\n", pwszDevicePath);
    PrintLunInformation(&info);
    if (info.m_szVendorId) DebugTrace("    VendorId \"%s\"\n", info.m_szVendorId);
    if (info.m_szProductId) DebugTrace("    ProductId \"%s\"\n", info.m_szProductId);
    if (info.m_szProductRevision) DebugTrace("    ProductRevision \"%s\"\n", info.m_szProductRevision);
    if (info.m_szSerialNumber) DebugTrace("    SerialNumber \"%s\"\n", info.m_szSerialNumber);

    // Only the array's own firmware generations answer with these revisions.
    const char* rev = info.m_szProductRevision;
    if (!rev || !std::strchr("JKMNT", rev[0]) || rev[0] == 0) return S_FALSE;
    if (!info.m_szVendorId || !info.m_szProductId || !info.m_szSerialNumber) return S_FALSE;
    static const WCHAR kIde[] = u"\\\\?\\ide";
    bool ide = true;
    for (int i = 0; i < 7 && ide; ++i) {
        WCHAR c = pwszDevicePath[i];
        if (c >= u'A' && c <= u'Z') c = static_cast<WCHAR>(c - u'A' + u'a');
        ide = c == kIde[i];
    }
    if (ide) {
        DebugTrace("CProvider::QueryIfCreatedLun() skipping IDE device\n");
        return S_FALSE;
    }
    const VDS_STORAGE_DEVICE_ID_DESCRIPTOR& d = info.m_deviceIdDescriptor;
    const VDS_STORAGE_IDENTIFIER* naa = nullptr;
    for (ULONG i = 0; d.m_rgIdentifiers && i < d.m_cIdentifiers && i < kMaxHostIdentifiers; ++i) {
        const VDS_STORAGE_IDENTIFIER& id = d.m_rgIdentifiers[i];
        if (id.m_CodeSet == VDSStorageIdCodeSetBinary && id.m_Type == VDSStorageIdTypeFCPHName &&
            id.m_cbIdentifier == 16) {
            naa = &id;
            break;
        }
    }
    if (!naa || !naa->m_rgbIdentifier) {
        DebugTrace("LunSN is NULL, must exit!\n");
        return S_FALSE;
    }
    DebugDump("Lun Sn", naa->m_rgbIdentifier, 16);
    // The vendor and product, blank-padded, as the host gave them; they decide nothing.
    char vendorProduct[25];
    std::snprintf(vendorProduct, sizeof vendorProduct, "%-8.8s%-16.16s", info.m_szVendorId, info.m_szProductId);
    DebugTrace("CProvider::QueryIfCreatedLun() %s\n", vendorProduct);

    uint64_t wanted;
    std::memcpy(&wanted, naa->m_rgbIdentifier + 8, 8);
    for (const auto& [ssId, entry] : SubSystemMap()) {
        auto* ss = entry.As<CSubSystem>();
        if (!ss) continue;
        CLun* hit = ss->FindFirst<CLun>([&](CLun* lun) {
            uint64_t have;
            std::memcpy(&have, lun->PartitionSerial() + 8, 8);
            return have == wanted;
        });
        if (hit) {
            *pLunId = hit->Id();
            DebugTrace("QueryIfCreatedLun return ok\n");
            return S_OK;
        }
    }
    DebugTrace("QueryIfCreatedLun return false\n");
    return S_FALSE;
}
TROV_CATCH_OOM
