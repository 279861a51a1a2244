#include "platform/host_disk.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/platform.h"

namespace {

constexpr uint8_t kCheckCondition = 0x02;

bool Inquire(PlatformDevice* dev, bool evpd, uint8_t page, uint8_t* buf, uint16_t len, size_t* got) {
    ScsiRequest r;
    r.cdb[0] = 0x12;
    r.cdb[1] = evpd ? 1 : 0;
    r.cdb[2] = page;
    r.cdb[3] = static_cast<uint8_t>(len >> 8);
    r.cdb[4] = static_cast<uint8_t>(len);
    r.cdbLength = 6;
    r.direction = ScsiDirection::FromDevice;
    r.data = buf;
    r.dataLength = len;
    uint8_t sense[32];
    r.sense = sense;
    r.senseCapacity = sizeof sense;
    int err = 0;
    if (!dev->ScsiPassThrough(&r, &err) || r.status == kCheckCondition || r.status != 0) return false;
    *got = len - std::min<uint32_t>(r.residual, len);
    return true;
}

char* CopyText(const std::string& s) {
    auto* p = static_cast<char*>(CoTaskMemAlloc(s.size() + 1));
    if (p) std::memcpy(p, s.c_str(), s.size() + 1);
    return p;
}

}  // namespace

bool ReadHostDiskIdentity(const std::string& device, HostDiskIdentity* out, std::string* why) {
    *out = HostDiskIdentity{};
    std::string root = Plat()->HostRoot();
    if (!FindHostScsiDevice(root, device, &out->unit)) {
        *why = "no SCSI disk " + device + " on this host";
        return false;
    }
    out->devicePath = HostDeviceNode(root, out->unit);
    int err = 0;
    std::unique_ptr<PlatformDevice> dev = out->devicePath.empty() ? nullptr : Plat()->OpenDevice(out->devicePath, &err);
    if (!dev) {
        *why = "cannot open " + out->devicePath + ": " + std::strerror(err ? err : ENOENT);
        return false;
    }
    std::vector<std::string> names;
    std::string hostName = "host" + std::to_string(out->unit.host);
    if (Plat()->ListDirectory(root + "/sys/class/iscsi_host/" + hostName, &names, &err))
        out->busType = VDSBusTypeiScsi;
    else if (Plat()->ListDirectory(root + "/sys/class/fc_host/" + hostName, &names, &err))
        out->busType = VDSBusTypeFibre;
    else
        out->busType = VDSBusTypeScsi;

    uint8_t buf[255];
    size_t got = 0;
    out->haveInquiry = Inquire(dev.get(), false, 0, buf, 96, &got) && ParseStandardInquiry(buf, got, &out->inquiry);
    out->haveSerial = Inquire(dev.get(), true, 0x80, buf, 255, &got) && ParseUnitSerialPage(buf, got, &out->serial);
    if (Inquire(dev.get(), true, 0x83, buf, 255, &got)) {
        DeviceIdStatus st = ParseDeviceIdPage(buf, got, &out->designators);
        out->haveDesignators = st == DeviceIdStatus::Ok || st == DeviceIdStatus::Truncated;
    }
    return true;
}

HRESULT MakeHostLunInformation(const HostDiskIdentity& disk, VDS_LUN_INFORMATION* info) {
    std::memset(info, 0, sizeof *info);
    info->m_version = VER_VDS_LUN_INFORMATION;
    info->m_DeviceType = disk.inquiry.peripheralType;
    info->m_bCommandQueueing = disk.inquiry.commandQueueing ? TRUE : FALSE;
    info->m_BusType = disk.busType;
    bool ok = true;
    if (disk.haveInquiry) {
        ok = (info->m_szVendorId = CopyText(disk.inquiry.vendor)) && (info->m_szProductId = CopyText(disk.inquiry.product)) &&
             (info->m_szProductRevision = CopyText(disk.inquiry.revision));
    }
    if (ok && disk.haveSerial) ok = (info->m_szSerialNumber = CopyText(disk.serial)) != nullptr;
    if (ok && !disk.designators.empty()) {
        size_t n = disk.designators.size();
        auto* ids = static_cast<VDS_STORAGE_IDENTIFIER*>(CoTaskMemAlloc(n * sizeof(VDS_STORAGE_IDENTIFIER)));
        ok = ids != nullptr;
        if (ok) {
            std::memset(ids, 0, n * sizeof *ids);
            info->m_deviceIdDescriptor.m_rgIdentifiers = ids;
            info->m_deviceIdDescriptor.m_cIdentifiers = static_cast<ULONG>(n);
            for (size_t i = 0; i < n && ok; ++i) {
                const Designator& d = disk.designators[i];
                ids[i].m_CodeSet = static_cast<VDS_STORAGE_IDENTIFIER_CODE_SET>(d.codeSet);
                ids[i].m_Type = static_cast<VDS_STORAGE_IDENTIFIER_TYPE>(d.type);
                ids[i].m_cbIdentifier = static_cast<ULONG>(d.bytes.size());
                ids[i].m_rgbIdentifier = static_cast<BYTE*>(CoTaskMemAlloc(d.bytes.size()));
                ok = ids[i].m_rgbIdentifier != nullptr;
                if (ok) std::memcpy(ids[i].m_rgbIdentifier, d.bytes.data(), d.bytes.size());
            }
        }
    }
    if (!ok) {
        FreeHostLunInformation(info);
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

void FreeHostLunInformation(VDS_LUN_INFORMATION* info) {
    if (!info) return;
    CoTaskMemFree(info->m_szVendorId);
    CoTaskMemFree(info->m_szProductId);
    CoTaskMemFree(info->m_szProductRevision);
    CoTaskMemFree(info->m_szSerialNumber);
    VDS_STORAGE_DEVICE_ID_DESCRIPTOR& d = info->m_deviceIdDescriptor;
    if (d.m_rgIdentifiers) {
        for (ULONG i = 0; i < d.m_cIdentifiers; ++i) CoTaskMemFree(d.m_rgIdentifiers[i].m_rgbIdentifier);
        CoTaskMemFree(d.m_rgIdentifiers);
    }
    for (ULONG i = 0; info->m_rgInterconnects && i < info->m_cInterconnects; ++i) {
        CoTaskMemFree(info->m_rgInterconnects[i].m_pbPort);
        CoTaskMemFree(info->m_rgInterconnects[i].m_pbAddress);
    }
    CoTaskMemFree(info->m_rgInterconnects);
    std::memset(info, 0, sizeof *info);
}
