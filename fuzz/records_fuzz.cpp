// Fuzzes the record converters and bounded accessors on arbitrary bytes.
//
// The first input byte picks the record type; the rest is laid over an exactly sized heap buffer
// of that record, repeated to its end, so that every count the record carries comes from the
// input. Each record is converted as received, every bounded accessor is called and the tables
// are walked by the bounded counts; then sending and receiving again must give the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "testlib/fake_platform.h"
#include "proxy/records.h"

namespace {

// Keeps the clamp log lines off the terminal.
struct Quiet {
    Quiet() {
        tp.SetRecordDebugger(false);
        tp.Install();
    }
    TestPlatform tp;
};

std::unique_ptr<uint8_t[]> Fill(size_t size, const uint8_t* data, size_t n) {
    std::unique_ptr<uint8_t[]> buf(new uint8_t[size]);
    if (n == 0) {
        std::memset(buf.get(), 0, size);
        return buf;
    }
    // The input once, then the filled part doubled until the end.
    size_t have = n < size ? n : size;
    std::memcpy(buf.get(), data, have);
    while (have < size) {
        size_t step = have <= size - have ? have : size - have;
        std::memcpy(buf.get() + have, buf.get(), step);
        have += step;
    }
    return buf;
}

volatile uint64_t g_sink;

void CheckRoundTrip(void (*convert)(int, void*), uint8_t* rec, size_t size) {
    std::unique_ptr<uint8_t[]> copy(new uint8_t[size]);
    std::memcpy(copy.get(), rec, size);
    convert(1, rec);
    convert(0, rec);
    if (std::memcmp(copy.get(), rec, size) != 0) __builtin_trap();
}

void WalkPort(const PortData& p, uint64_t& s) {
    s += p.busType + p.maxDevices;
    if (p.isFibre()) s += p.interface.fc.linkUp + p.interface.fc.portWwn[7];
    if (p.isSas()) s += p.interface.sas.phyCount + p.interface.sas.sasAddress[7];
    if (p.isIscsi()) s += p.interface.iscsi.ipv4()[3] + p.interface.iscsi.servicePort + p.interface.iscsi.gateway[15];
}

void WalkControllerData(const ControllerData& cd) {
    uint64_t s = cd.error_code;
    // Counts read once, as callers do: each clamped read logs a line.
    const uint32_t drives = cd.driveCount(), arrays = cd.arrayCount();
    for (uint32_t i = 0; i < drives; ++i) {
        const DriveData& d = cd.drive(i);
        s += d.blockCount() + d.howUsed + RecordText(d.serialNumber).size() + d.driveBlock()[11];
        const char* w = rec::HowUsedWord(d.howUsed);
        s += w ? w[0] : 0;
        s += rec::DriveTypeText(d.type).size();
        for (uint32_t a = 0; a < arrays; ++a) s += rec::DriveBelongsTo(d, cd.arrays[a]);
    }
    for (uint32_t a = 0; a < arrays; ++a) {
        const ArrayData& arr = cd.array(a);
        s += arr.blockCapacity + arr.remainingBlocks + arr.largestFreeSegment + RecordText(arr.name).size();
        const uint32_t members = arr.memberCount(), parts = cd.partitionCountOf(a);
        for (uint32_t m = 0; m < members; ++m) s += arr.member(m).missing() + arr.member(m).driveIndex;
        const char* rn = rec::RaidLevelName(arr.raidLevel);
        s += rn ? rn[0] : 0;
        for (uint32_t p = 0; p < parts; ++p) {
            const PartitionData& part = cd.partition(a, p);
            s += part.blockCount + part.partitionType + RecordText(part.name).size() + part.PartSn[31];
        }
    }
    const uint32_t ports = cd.portCount(), channels = cd.diskChannelCount(), enclosures = cd.enclosureCountBounded();
    for (uint32_t i = 0; i < ports; ++i) WalkPort(cd.port(i), s);
    for (uint32_t i = 0; i < channels; ++i) WalkPort(cd.diskPort(i), s);
    for (uint32_t i = 0; i < enclosures; ++i) s += cd.enclosure(i).numDrives;
    s += cd.totalDrivesBounded() + cd.dualPortUlp() + cd.overheadPerMille() + cd.allowedDriveType();
    s += cd.controller.maxPartitionPerController() + RecordText(cd.UniqueSN).size();
    s += RecordText(cd.controller.controllerIdent).size() + RecordText(cd.advNet.systemName).size();
    g_sink = s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Quiet quiet;
    if (size == 0) return 0;
    const uint8_t kind = data[0] % 9;
    ++data;
    --size;

    switch (kind) {
    case 0: {
        auto buf = Fill(rec::kControllerDataSize, data, size);
        ConvertControllerData(0, buf.get());
        WalkControllerData(*reinterpret_cast<const ControllerData*>(buf.get()));
        CheckRoundTrip(ConvertControllerData, buf.get(), rec::kControllerDataSize);
        break;
    }
    case 1: {
        auto buf = Fill(rec::kUnifiedControllerDataSize, data, size);
        ConvertUnifiedControllerData(0, buf.get());
        const auto& u = *reinterpret_cast<const UnifiedControllerData*>(buf.get());
        uint64_t s = u.systemName().size() + u.chapEnabled() + RecordText(u.iscsiBaseName).size() +
                     RecordText(u.vendorId).size() + u.effectiveHostBusType();
        for (const ControllerView& v : u.controllers) s += v.error_code + v.controller.numPorts;
        g_sink = s;
        CheckRoundTrip(ConvertUnifiedControllerData, buf.get(), rec::kUnifiedControllerDataSize);
        break;
    }
    case 2: {
        auto buf = Fill(rec::kPartitionViewSize, data, size);
        ConvertPartitionView(0, buf.get());
        const auto& pv = *reinterpret_cast<const PartitionView*>(buf.get());
        uint64_t s = pv.defaultLun + pv.hasDefaultAccess();
        const uint32_t views = pv.viewCount();
        for (uint32_t i = 0; i < views; ++i) s += pv.viewLuns[i].lun + pv.viewWwns[i][7] + pv.viewHost(i).size();
        s += pv.viewHost(pv.numViews).size();
        g_sink = s;
        CheckRoundTrip(ConvertPartitionView, buf.get(), rec::kPartitionViewSize);
        break;
    }
    case 3: {
        auto buf = Fill(rec::kEventDataSize, data, size);
        ConvertEventData(0, buf.get());
        const auto& e = *reinterpret_cast<const EventData*>(buf.get());
        g_sink = e.sequenceNumber + e.eventCode + RecordText(e.description).size() + rec::BoundedEventCount(e.eventParam);
        CheckRoundTrip(ConvertEventData, buf.get(), rec::kEventDataSize);
        break;
    }
    case 4: {
        auto buf = Fill(rec::kKnownHostListSize, data, size);
        ConvertKnownHostList(0, buf.get());
        const auto& k = *reinterpret_cast<const KnownHostList*>(buf.get());
        uint64_t s = 0;
        const uint32_t hosts = k.hostCount();
        for (uint32_t i = 0; i < hosts; ++i) s += RecordText(k.entries[i].hostName).size();
        g_sink = s;
        CheckRoundTrip(ConvertKnownHostList, buf.get(), rec::kKnownHostListSize);
        break;
    }
    case 5: {
        auto buf = Fill(rec::kHbaInfoListSize, data, size);
        ConvertHbaInfoList(0, buf.get());
        const auto& h = *reinterpret_cast<const HbaInfoList*>(buf.get());
        uint64_t s = 0;
        const uint32_t entries = h.entryCount();
        for (uint32_t i = 0; i < entries; ++i)
            s += uint8_t(h.entries[i].typeLetter) + h.entries[i].portNumber + h.entries[i].wwpn[7];
        g_sink = s;
        CheckRoundTrip(ConvertHbaInfoList, buf.get(), rec::kHbaInfoListSize);
        break;
    }
    case 6: {
        auto buf = Fill(rec::kArrayDataSize, data, size);
        ConvertArrayData(0, buf.get());
        const auto& a = *reinterpret_cast<const ArrayData*>(buf.get());
        uint64_t s = a.partitionCount();
        const uint32_t members = a.memberCount();
        for (uint32_t m = 0; m < members; ++m) s += a.member(m).channelIndex;
        s += a.member(a.numDrives).driveIndex;
        g_sink = s;
        CheckRoundTrip(ConvertArrayData, buf.get(), rec::kArrayDataSize);
        break;
    }
    case 7: {
        auto buf = Fill(rec::kPortDataSize, data, size);
        ConvertPortData(0, buf.get());
        uint64_t s = 0;
        WalkPort(*reinterpret_cast<const PortData*>(buf.get()), s);
        g_sink = s;
        CheckRoundTrip(ConvertPortData, buf.get(), rec::kPortDataSize);
        break;
    }
    default: {
        auto drive = Fill(rec::kDriveDataSize, data, size);
        ConvertDriveData(0, drive.get());
        CheckRoundTrip(ConvertDriveData, drive.get(), rec::kDriveDataSize);
        auto part = Fill(rec::kPartitionDataSize, data, size);
        ConvertPartitionData(0, part.get());
        CheckRoundTrip(ConvertPartitionData, part.get(), rec::kPartitionDataSize);
        auto enc = Fill(rec::kEnclosureDataSize, data, size);
        ConvertEnclosureData(0, enc.get());
        CheckRoundTrip(ConvertEnclosureData, enc.get(), rec::kEnclosureDataSize);
        auto adv = Fill(rec::kAdvNetSize, data, size);
        ConvertAdvNet(0, adv.get());
        CheckRoundTrip(ConvertAdvNet, adv.get(), rec::kAdvNetSize);
        auto req = Fill(rec::kExpandPartRequestSize, data, size);
        ConvertExpandPartRequest(0, req.get());
        CheckRoundTrip(ConvertExpandPartRequest, req.get(), rec::kExpandPartRequestSize);
        g_sink = rec::BoundedBackingStoreCount(drive[0]) + rec::BoundedMasterVolumeCount(drive[1] << 8) +
                 rec::BoundedSnapshotCount(drive[2] << 4);
        break;
    }
    }
    return 0;
}
