// The model laid out in the array's records. Each record is filled by name in host order and
// then turned into wire order by the converter the provider reads it with (direction 1).
#include "sim/encode.h"

#include <algorithm>
#include <cstring>

#include "proxy/records.h"

namespace trovsim {

namespace {
// The system name fills its 80 bytes when it is that long: the array keeps no NUL there.
void FillNameField(char (&field)[80], const std::string& text) {
    std::memset(field, 0, sizeof field);
    std::memcpy(field, text.data(), std::min(text.size(), sizeof field));
}


int IndexOfOwner(uint8_t owner) { return owner == 1 ? 0 : 1; }
bool IsMirror(uint8_t raid) { return raid == kRaid1 || raid == kRaid10 || raid == kRaid51; }

// The port as its record carries it, host order.
void FillPort(const Port& p, PortData& pd) {
    pd.busType = p.busType;
    switch (p.busType) {
    case TROV_BUS_ISCSI: {
        IscsiInterface& i = pd.interface.iscsi;
        i.ipVersion = p.ipVersion;
        i.linkUp = p.linkUp ? 1 : 0;
        std::memcpy(i.ipAddress, p.ip, 16);
        std::memcpy(i.netmask, p.netmask, 16);
        std::memcpy(i.gateway, p.gateway, 16);
        i.servicePort = p.tcpPort;
        break;
    }
    case TROV_BUS_SAS:
        pd.interface.sas.linkUp = p.linkUp ? 1 : 0;
        std::memcpy(pd.interface.sas.sasAddress, p.wwn, 8);
        pd.interface.sas.phyCount = p.linkUp ? 4 : 0;
        break;
    case TROV_BUS_FC4:
    case TROV_BUS_FC5:
    case TROV_BUS_FC6:
        pd.interface.fc.linkUp = p.linkUp ? 1 : 0;
        std::memcpy(pd.interface.fc.portWwn, p.wwn, 8);
        break;
    default: break;
    }
}

// The controller section and opening (the first 22,648 bytes of a ControllerData, which are also
// a controller view of the unified record), host order.
void FillSection(const Subsystem& s, const Controller& c, uint32_t listedDrives, ControllerSection& cs) {
    cs.numPorts = static_cast<uint32_t>(std::min<size_t>(c.ports.size(), rec::kMaxPorts));
    cs.numDiskChannels = static_cast<uint32_t>(std::min<size_t>(c.diskPorts.size(), rec::kMaxPorts));
    cs.capabilities = s.raid6 ? TROV_CAPABILITY_RAID6 : 0;
    for (ParamBlock* pb : {&cs.controllerParams, &cs.activeParams}) {
        pb->controllerMode = s.ulp ? TROV_CONTROLLER_MODE_AA_DUAL_PORT_ULP : 0;
        pb->overheadPerMille = s.overheadPerMille;
        std::memcpy(pb->macAddress, c.mac, 6);
        std::memcpy(pb->ipAddress, c.ip, 4);
    }
    cs.controllerId = c.id;
    for (uint32_t i = 0; i < cs.numPorts; ++i) FillPort(c.ports[i], cs.ports[i]);
    for (uint32_t i = 0; i < cs.numDiskChannels; ++i) FillPort(c.diskPorts[i], cs.diskPorts[i]);
    cs.diskPorts[0].maxDevices = static_cast<uint8_t>(std::min<uint32_t>(s.slotsPerEnclosure, 255));
    SetRecordText(cs.firmwareRevision, c.firmware);
    SetRecordText(cs.controllerSerial, c.serial);
    SetRecordText(cs.controllerIdent, c.ident);
    cs.driveSummary.totalDrives = listedDrives;
    cs.driveBusInfo.allowedDriveType = s.allowedDriveType;
    cs.maxLuns = s.maxLuns;  // these two travel unconverted, as the array sends them
    cs.maxArrayPartitions = s.maxArrayPartitions;
}

uint32_t Clamp32(uint64_t v) { return v > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<uint32_t>(v); }

}  // namespace

// ---------------------------------------------------------------------------------------------
// Host-order fillers

namespace {

void FillArray(Model& m, Subsystem& s, const Vdisk& v, ArrayData& a) {
    a.blockCapacity = v.capacity;
    a.numDrives = static_cast<uint32_t>(v.members.size() + v.spares.size());
    a.numSpares = static_cast<uint32_t>(v.spares.size());
    a.stripeKiB = v.stripeKiB;
    a.minDriveBlocks = Clamp32(v.memberBlocks);
    a.arrayOrderWord = v.orderWord;
    std::memcpy(&a.cacheParams, v.cache, sizeof a.cacheParams);
    size_t slot = 0;
    auto member = [&](const std::string& serial) {
        if (slot >= rec::kMaxMembers) return;
        ArrayMember& am = a.members[slot++];
        Drive* d = serial.empty() ? nullptr : m.FindDrive(s, serial);
        if (d && !d->offline) {
            am.channelIndex = d->channel;
            am.driveIndex = d->scsiId;
        } else {
            am.channelIndex = TROV_MEMBER_MISSING;
            am.driveIndex = TROV_MEMBER_MISSING;
        }
    };
    for (const std::string& d : v.members) member(d);
    for (const std::string& d : v.spares) member(d);
    SetRecordText(a.name, v.name);
    std::memcpy(a.serialNumber, v.serial.data(), 32);
    a.health = v.health;
    a.utilityRunning = v.utility;
    a.raidLevel = v.raid;
    a.owner = v.owner;
    a.numArrayPartitions = static_cast<uint8_t>(std::min<size_t>(v.parts.size(), rec::kMaxPartitionsPerArray));
    FreeSpace f = Model::FreeOf(v);
    a.remainingBlocks = f.total;
    a.numDrivesPerLowLevelArray = static_cast<uint8_t>(v.drivesPerLeg);
    a.numFreeArrayPartitionSegments = static_cast<uint8_t>(std::min<uint32_t>(f.segments, 255));
    a.largestFreeSegment = f.largest;
    a.driveType = v.driveType;
    a.noFreeSegment = f.segments == 0 ? 1 : 0;
}

void FillPartition(const Partition& p, PartitionData& pd) {
    pd.startBlock = p.start;
    pd.blockCount = p.blocks;
    pd.lunNumber = p.LunNumber();
    SetRecordText(pd.name, p.name);
    std::memcpy(pd.PartSn, p.serial.data(), 32);
    std::memcpy(&pd.cacheParams, p.cache, sizeof pd.cacheParams);
    pd.cacheFlags = p.cacheFlags;
    pd.partitionType = p.type;
}

void FillDrive(Subsystem& s, const Drive& d, int ctrlIndex, uint8_t tableIndex, Model& m, DriveData& dd) {
    dd.realBlockCount = static_cast<uint32_t>(d.blocks);
    dd.realBlockCountHigh = static_cast<uint32_t>(d.blocks >> 32);  // travels unconverted
    SetRecordText(dd.serialNumber, d.serial);
    SetRecordText(dd.vendor, d.vendor);
    SetRecordText(dd.product, d.product);
    SetRecordText(dd.revision, d.revision);
    dd.howUsed = d.howUsed;
    dd.channel = d.channel;
    dd.type = d.type;
    dd.useState = d.useState;
    dd.blinking = d.blinking ? 1 : 0;
    dd.scsiId = d.scsiId;
    dd.lun = d.lun;
    dd.downReason = d.downReason;
    dd.spindleSpeed = d.spindleSpeed;
    dd.enclosureNumber = d.enclosure;
    dd.slotNumber = d.slot;
    dd.containerIndex = TROV_NO_INDEX;
    dd.driveIndex = TROV_NO_INDEX;
    const Vdisk* v = d.vdiskId ? m.FindVdiskById(s, d.vdiskId) : nullptr;
    if (v) {
        rec::ArrayKeyFromSerial(v->serial.data(), dd.arrayKey);
        // Only the owner knows where the drive sits in the vdisk; the other controller's view
        // shows no position, and the provider takes it from the second view it reads.
        if (IndexOfOwner(v->owner) == ctrlIndex) {
            uint8_t container = 0;
            for (const Vdisk& o : s.vdisks) {
                if (&o == v) break;
                if (IndexOfOwner(o.owner) == ctrlIndex) ++container;
            }
            dd.containerIndex = container;
            auto it = std::find(v->members.begin(), v->members.end(), d.serial);
            if (it != v->members.end()) {
                uint8_t pos = static_cast<uint8_t>(it - v->members.begin());
                dd.driveIndex = pos;
                // Bit 0 set marks the primary half of a mirror: the first drive of each pair.
                dd.arrayPosition = IsMirror(v->raid) ? static_cast<uint8_t>((pos & ~1) | (pos % 2 == 0 ? 1 : 0)) : pos;
            }
        }
    } else if (d.howUsed != kFailedDrive) {
        // A healthy drive outside a vdisk holds its place in the drive table; both indices at
        // 0xFF mark a failed drive.
        dd.driveIndex = tableIndex;
    }
}

}  // namespace

// ---------------------------------------------------------------------------------------------

void Encoder::Clear() {
    ctrlCache_.clear();
    unifiedCache_.clear();
}

Bytes Encoder::ControllerData(CtrlRef c) {
    Subsystem& s = *c.sub;
    const Controller& ctl = s.ctrl[c.index];
    Entry& e = ctrlCache_[ctl.handle];
    if (e.bytes && e.version == s.version) return e.bytes;

    auto buf = std::make_shared<std::vector<uint8_t>>(rec::kControllerDataSize, 0);
    ::ControllerData& cd = *reinterpret_cast<::ControllerData*>(buf->data());
    // A controller whose record holds no usable configuration (state 2 or 3) lists nothing.
    bool usable = ctl.state < TROV_CTRL_STATE_NO_CONFIG2;
    std::vector<const Drive*> listed;
    for (const Drive& d : s.drives)
        if (usable && !d.offline && listed.size() < rec::kMaxDrives) listed.push_back(&d);
    FillSection(s, ctl, static_cast<uint32_t>(listed.size()), cd.controller);
    FillNameField(cd.advNet.systemName, s.systemName);
    cd.enclosureCount = std::min<uint32_t>(s.enclosures, rec::kMaxEnclosures);
    for (uint32_t i = 0; i < cd.enclosureCount; ++i)
        cd.enclosures[i].numDrives = static_cast<uint8_t>(std::min<uint32_t>(s.slotsPerEnclosure, 255));
    cd.numDrives = static_cast<uint32_t>(listed.size());
    for (size_t i = 0; i < listed.size(); ++i)
        FillDrive(s, *listed[i], c.index, static_cast<uint8_t>(i), m_, cd.drives[i]);
    std::vector<Vdisk*> vds;
    if (usable) vds = m_.VdisksOf(s, c.index);
    cd.numArrays = static_cast<uint32_t>(std::min<size_t>(vds.size(), rec::kMaxArrays));
    uint32_t parts = 0;
    for (uint32_t i = 0; i < cd.numArrays; ++i) {
        FillArray(m_, s, *vds[i], cd.arrays[i]);
        for (size_t j = 0; j < vds[i]->parts.size() && j < rec::kMaxPartitionsPerArray; ++j, ++parts)
            FillPartition(vds[i]->parts[j], cd.partitions[i][j]);
    }
    cd.parititionCount = parts;
    SetRecordText(cd.UniqueSN, s.uniqueSn);
    cd.controllerState = ctl.state;
    ConvertControllerData(1, &cd);

    e.bytes = std::move(buf);
    e.version = s.version;
    ++encodings_;
    return e.bytes;
}

Bytes Encoder::UnifiedData(CtrlRef c) {
    Subsystem& s = *c.sub;
    Entry& e = unifiedCache_[s.ctrl[c.index].handle];
    if (e.bytes && e.version == s.version) return e.bytes;

    auto buf = std::make_shared<std::vector<uint8_t>>(rec::kUnifiedControllerDataSize, 0);
    UnifiedControllerData& u = *reinterpret_cast<UnifiedControllerData*>(buf->data());
    SetRecordText(u.brandName, s.brandName);
    SetRecordText(u.productId, s.productId);
    SetRecordText(u.vendorName, s.vendorName);
    std::memcpy(u.vendorId, s.vendorId.data(), std::min<size_t>(s.vendorId.size(), sizeof u.vendorId));
    u.hostBusType = s.hostBusType;
    SetRecordText(u.iscsiBaseName, s.iscsiBaseName);
    for (SystemInfo& si : u.systemInfo) {
        FillNameField(si.systemName, s.systemName);
        si.chapEnabled = s.chapEnabled ? 1 : 0;
    }
    uint32_t listed = 0;
    for (const Drive& d : s.drives) listed += d.offline ? 0 : 1;
    for (int i = 0; i < 2; ++i) FillSection(s, s.ctrl[i], std::min(listed, rec::kMaxDrives), u.controllers[i].controller);
    ConvertUnifiedControllerData(1, &u);

    e.bytes = std::move(buf);
    e.version = s.version;
    ++encodings_;
    return e.bytes;
}

void Encoder::ArrayRecord(Subsystem& s, const Vdisk& v, uint8_t* out) {
    std::memset(out, 0, rec::kArrayDataSize);
    FillArray(m_, s, v, *reinterpret_cast<ArrayData*>(out));
    ConvertArrayData(1, out);
}

void Encoder::PartitionRecord(Subsystem&, const Vdisk&, const Partition& p, uint8_t* out) {
    std::memset(out, 0, rec::kPartitionDataSize);
    FillPartition(p, *reinterpret_cast<PartitionData*>(out));
    ConvertPartitionData(1, out);
}

void Encoder::ViewRecord(const Partition& p, uint8_t* out) {
    std::memset(out, 0, rec::kPartitionViewSize);
    PartitionView& v = *reinterpret_cast<PartitionView*>(out);
    if (p.defaultLun >= 0) {
        v.defaultLun = static_cast<uint16_t>(p.defaultLun);
        std::memset(v.defaultAccess, p.defaultAccess, sizeof v.defaultAccess);
    } else {
        v.defaultLun = 0xFFFF;
    }
    size_t n = std::min<size_t>(p.views.size(), rec::kMaxViews);
    v.numViews = static_cast<uint16_t>(n);
    for (size_t i = 0; i < n; ++i) {
        const View& w = p.views[i];
        std::memcpy(v.viewWwns[i], w.wwn, 8);
        v.viewLuns[i].lun = w.lun;
        SetRecordText(v.viewHosts[i], w.host);
    }
    ConvertPartitionView(1, out);
}

void Encoder::EventRecordAt(const trovsim::EventRecord& e, uint8_t* out) {
    std::memset(out, 0, rec::kEventDataSize);
    EventData& d = *reinterpret_cast<EventData*>(out);
    d.sequenceNumber = e.sequence;
    d.eventCode = e.code;
    d.errorcode = e.errorCode;
    d.controllerHandle = e.controllerHandle;
    d.eventParam = e.param;
    std::memcpy(d.driveSerial, e.driveSerial.data(), 32);
    std::memcpy(d.partitionSerial, e.partitionSerial.data(), 32);
    d.owner = e.owner;
    d.duplicateCount = e.duplicateCount;
    SetRecordText(d.description, e.description);
    ConvertEventData(1, out);
}

void Encoder::KnownHostsRecord(const Subsystem& s, uint8_t* out) {
    std::memset(out, 0, rec::kKnownHostListSize);
    KnownHostList& l = *reinterpret_cast<KnownHostList*>(out);
    size_t n = std::min<size_t>(s.knownHosts.size(), rec::kMaxKnownHosts);
    l.count = static_cast<uint32_t>(n);
    for (size_t i = 0; i < n; ++i) SetRecordText(l.entries[i].hostName, s.knownHosts[i]);
    ConvertKnownHostList(1, out);
}

void Encoder::AdapterRecord(uint8_t* out) {
    std::memset(out, 0, rec::kHbaInfoListSize);
    HbaInfoList& l = *reinterpret_cast<HbaInfoList*>(out);
    size_t n = std::min<size_t>(m_.adapters().size(), rec::kMaxHbaEntries);
    l.count = static_cast<uint32_t>(n);
    for (size_t i = 0; i < n; ++i) {
        const Adapter& a = m_.adapters()[i];
        l.entries[i].typeLetter = a.typeLetter;
        l.entries[i].portNumber = a.port;
        std::memcpy(l.entries[i].wwpn, a.wwpn, 8);
    }
    ConvertHbaInfoList(1, out);
}

std::string Encoder::SystemNameOf(const uint8_t* advNetWire) {
    AdvNet a;
    std::memcpy(&a, advNetWire, sizeof a);
    ConvertAdvNet(0, &a);
    return std::string(RecordText(a.systemName));
}

size_t Encoder::ControllerDataSize() { return rec::kControllerDataSize; }
size_t Encoder::UnifiedSize() { return rec::kUnifiedControllerDataSize; }
size_t Encoder::ArraySize() { return rec::kArrayDataSize; }
size_t Encoder::PartitionSize() { return rec::kPartitionDataSize; }
size_t Encoder::ViewSize() { return rec::kPartitionViewSize; }
size_t Encoder::EventSize() { return rec::kEventDataSize; }
size_t Encoder::KnownHostsSize() { return rec::kKnownHostListSize; }
size_t Encoder::AdapterListSize() { return rec::kHbaInfoListSize; }
size_t Encoder::AdvNetSize() { return rec::kAdvNetSize; }

}  // namespace trovsim
