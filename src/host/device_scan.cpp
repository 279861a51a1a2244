#include "host/device_scan.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "host/layout.h"
#include "host/scsi_cmd.h"
#include "platform/platform.h"
#include "platform/scsi_sysfs.h"
#include "support/debuglog.h"

namespace {

// The reply buffer of the layout request; its size is the largest layout taken.
constexpr size_t kLayoutBufferSize = 131072;

bool Inquire(ScsiCmd& cmd, const uint8_t (&cdb)[6], uint8_t* buf, uint32_t len) {
    std::memset(buf, 0, len);
    cmd.setCdb(cdb);
    cmd.setData(buf, len);
    if (cmd.executeTraced()) return true;
    std::memset(buf, 0, len);  // a failed command leaves nothing of what it may have moved
    return false;
}

// The device kinds that the scan takes by node, as the names of their nodes say on the original
// platform: whole disks, CDs, tapes, scanners and printers.
const char* KindOf(int type) {
    switch (type) {
        case 0x00:
        case 0x07:
        case 0x0E: return "Harddisk";
        case 0x05: return "CdRom";
        case 0x01: return "Tape";
        case 0x06: return "Scanner";
        case 0x02: return "Printer";
        default: return nullptr;
    }
}

}  // namespace

void DumpScanBuffer(const char* title, const uint8_t* data, int length) {
    DebugTrace("====== %s ====== %03d\n", title, length);
    char chars[17] = {};
    int col = 0;
    for (int i = 0; i < length; ++i) {
        DebugTrace("%02X ", data[i]);
        chars[col++] = data[i] > 32 && data[i] < 127 ? static_cast<char>(data[i]) : '.';
        if (col == 16) {
            DebugTrace("%s\n", chars);
            col = 0;
        }
    }
    if (col) {
        chars[col] = 0;
        std::string pad(static_cast<size_t>(16 - col) * 3, ' ');
        DebugTrace("%s%s\n", pad.c_str(), chars);
    }
}

void QueryScsiDevice(const char* deviceName, std::vector<ScsiDeviceRecord>& list) {
    ScsiDeviceRecord rec;
    std::memset(&rec, 0, sizeof rec);
    ScsiCmd cmd(deviceName);
    std::unique_ptr<uint8_t[]> layoutBuffer(new (std::nothrow) uint8_t[kLayoutBufferSize]);
    if (layoutBuffer) {
        int err = 0;
        std::unique_ptr<PlatformDevice> second = Plat()->OpenDevice(deviceName, &err);
        if (second) {
            HostScsiDevice unit;
            if (FindHostScsiDevice(Plat()->HostRoot(), deviceName, &unit)) {
                rec.portNumber = unit.host;
                rec.pathId = unit.channel;
                rec.targetId = unit.target;
                rec.lun = unit.lun;
            }
            DebugTrace("Inquiry %d.%d.%d.%d\n", rec.portNumber, rec.pathId, rec.targetId, rec.lun);
            DiskLayout layout;
            if (ProbeDiskLayout(second->Descriptor(), &layout)) {
                if (layout.style != PartitionStyle::Gpt) {
                    DebugTrace("Signature=%08x\n", layout.signature);
                    rec.isMbr = 1;
                    rec.signature = layout.signature;
                } else {
                    std::memcpy(rec.gptDiskId, layout.gptDiskId, sizeof rec.gptDiskId);
                    rec.isMbr = 0;
                    ScsiCmd::SetTraceCount(ScsiCmd::TraceCount() + 1);
                    DumpScanBuffer("Gpt.DiskId", rec.gptDiskId, sizeof rec.gptDiskId);
                    ScsiCmd::SetTraceCount(ScsiCmd::TraceCount() - 1);
                }
            }
        }
        layoutBuffer.reset();
    }

    static constexpr uint8_t kInquiry[6] = {0x12, 0x00, 0x00, 0x00, 0x30, 0x00};
    static constexpr uint8_t kPage80[6] = {0x12, 0x01, 0x80, 0x00, 0x30, 0x00};
    static constexpr uint8_t kPageD0[6] = {0x12, 0x01, 0xD0, 0x00, 0x30, 0x00};
    static constexpr uint8_t kPage83[6] = {0x12, 0x01, 0x83, 0x00, 0x80, 0x00};
    uint8_t inq[48], p80[48], pd0[48], p83[128];
    if (!Inquire(cmd, kInquiry, inq, sizeof inq)) {
        DebugTrace("inquiry command failed\n");
    } else {
        DumpScanBuffer("inq", inq, sizeof inq);
    }
    std::memcpy(rec.inquiry, inq, sizeof inq);
    if (!Inquire(cmd, kPage80, p80, sizeof p80))
        DebugTrace("%s inquiry command failed\n", deviceName);
    else
        DumpScanBuffer("inq80", p80, sizeof p80);
    // A vendor page, asked for the log only.
    if (!Inquire(cmd, kPageD0, pd0, sizeof pd0))
        DebugTrace("%s inquiry command failed\n", deviceName);
    else
        DumpScanBuffer("inqd0", pd0, sizeof pd0);
    bool ok83 = Inquire(cmd, kPage83, p83, sizeof p83);
    if (!ok83) DebugTrace("inquiry command failed\n");
    if (ok83 && p83[1] == 0x83) {
        DumpScanBuffer("inq0x83", p83, sizeof p83);
        std::memcpy(rec.page83, p83, sizeof p83);
        std::memcpy(rec.page80, p80, sizeof p80);
        list.push_back(rec);
    }
}

void ScanScsiDevices(std::vector<ScsiDeviceRecord>& list) {
    std::string root = Plat()->HostRoot();
    std::vector<HostScsiDevice> units;
    int err = 0;
    if (!ListHostScsiDevices(root, &units, &err)) return;

    for (const HostScsiDevice& u : units) {
        const char* kind = KindOf(u.type);
        std::string node = HostDeviceNode(root, u);
        if (!kind || node.empty()) continue;
        DebugTrace("%s -> %s \n", node.c_str(), (u.sysPath + " (" + kind + ")").c_str());
        QueryScsiDevice(node.c_str(), list);
    }

    // On the original platform port numbers are dense and the walk ends at the first one that is
    // missing; SCSI host numbers on Linux have gaps after hot-plugging, so every listed host is
    // walked. A port that can't be read is passed over rather than tried again without end.
    std::vector<uint32_t> hosts;
    if (!ListHostScsiHosts(root, &hosts, &err)) return;
    for (uint32_t port : hosts) {
        std::vector<const HostScsiDevice*> ofPort;
        for (const HostScsiDevice& u : units)
            if (u.host == port && ofPort.size() < kMaxUnitsPerPort) ofPort.push_back(&u);
        size_t i = 0;
        while (i < ofPort.size()) {
            uint32_t bus = ofPort[i]->channel;
            size_t end = i;
            while (end < ofPort.size() && ofPort[end]->channel == bus) ++end;
            DebugTrace("Scanning Scsi %d Bus %d Number of Logical Units=%d\n", port, bus, static_cast<int>(end - i));
            for (; i < end; ++i) {
                const HostScsiDevice& u = *ofPort[i];
                std::string text = u.vendor + " " + u.model + " " + u.rev;
                DebugTrace("c%dt%dd%d=%s\n", port, u.target, u.lun, text.c_str());
                char name[96];
                std::snprintf(name, sizeof name, "\\\\.\\Scsi%u:Bus%u:ID%u:LUN%u", port, u.channel, u.target, u.lun);
                QueryScsiDevice(name, list);
            }
        }
    }
}
