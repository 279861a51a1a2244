#include "lun/drive_search.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "lun/lun.h"
#include "objects/drive.h"
#include "objects/object_util.h"
#include "objects/subsystem.h"
#include "support/debuglog.h"

namespace {

bool IsNamed(const CDrive& d, const VDS_OBJECT_ID* drives, LONG n) {
    for (LONG i = 0; i < n; ++i)
        if (drives[i] == d.Id()) return true;
    return false;
}

// Free for a new vdisk: not in use and not marked hot spare.
bool IsFreeDrive(const CDrive& d) { return d.IsFree() && (d.Flags() & VDS_DRF_HOTSPARE) == 0; }

bool SameSerial(const char* a, const uint8_t* b) { return std::memcmp(a, b, 32) == 0; }

// The controller's record, or null when it cannot be read.
std::unique_ptr<uint8_t[]> ReadRecord(uint32_t handle) {
    std::unique_ptr<uint8_t[]> buf = NewRecordBuffer();
    if (Kelvane::get_controller_data(handle, buf.get()) != 0) return nullptr;
    return buf;
}

}  // namespace

void DriveLists::Append(const CDrive& d) {
    DriveSerial s{};
    std::memcpy(s.data(), d.Serial(), s.size());
    vSerial.push_back(s);
    vLoca.push_back(DriveLocation{d.Channel(), d.ScsiId()});
}

void DriveLists::KeepFirst(size_t n) {
    if (vSerial.size() > n) vSerial.resize(n);
    if (vLoca.size() > n) vLoca.resize(n);
}

void DriveLists::Clear() {
    vSerial.clear();
    vLoca.clear();
}

bool DriveLists::Contains(const char* serial) const {
    for (const DriveSerial& s : vSerial)
        if (std::memcmp(s.data(), serial, s.size()) == 0) return true;
    return false;
}

bool HasSameDriveType(const CSubSystem& subsystem, const VDS_OBJECT_ID* drives, LONG n) {
    bool first = true, same = true;
    uint8_t type = 0;
    subsystem.ForEach<CDrive>([&](CDrive* d) {
        if (!IsNamed(*d, drives, n)) return;
        if (first) {
            type = d->DriveType();
            first = false;
        } else if (d->DriveType() != type) {
            same = false;
        }
    });
    return same;
}

bool HasSameDriveType(const CSubSystem& subsystem, uint8_t driveType, const VDS_OBJECT_ID* drives, LONG n) {
    bool same = true;
    subsystem.ForEach<CDrive>([&](CDrive* d) {
        if (!same || !IsNamed(*d, drives, n) || d->DriveType() == driveType) return;
        DebugTrace("Input drive's driveType(%d) is not equal sepcail driveType(%d)\n", d->DriveType(), driveType);
        same = false;
    });
    return same;
}

bool DriveGuids2TrovSn(const CSubSystem& subsystem, const VDS_OBJECT_ID* drives, LONG n, DriveLists* out,
                       uint64_t minSize, uint64_t* sizeAll) {
    *sizeAll = 0;
    bool allFree = true;
    uint64_t current = minSize;
    subsystem.ForEach<CDrive>([&](CDrive* d) {
        if (!IsNamed(*d, drives, n)) return;
        if (!IsFreeDrive(*d)) {
            DebugTrace("CSubSystem::DriveGuids2TrovSn Drive is not free, dump it: \n");
            DebugTrace("  %S\n", d->FriendlyName());
            allFree = false;
        }
        if (minSize != 0) {
            if (d->Size() < minSize) return;
        } else if (current == 0 || current > d->Size()) {
            current = d->Size();
        }
        // Each drive adds the smallest size met so far: a later, smaller drive does not lower
        // what the earlier ones added.
        *sizeAll += current;
        out->Append(*d);
    });
    DebugTrace(allFree ? "Specified drives are all free\n" : "Specified drives are not all free\n");
    return allFree;
}

uint32_t SeekNewDrives(const CSubSystem& subsystem, int type, uint8_t driveType, uint64_t size, uint8_t raid,
                       uint32_t numSpares, DriveLists* out, uint64_t* sizeAll) {
    size_t limit = ((type == VDS_LT_PARITY || type == VDS_LT_RAID50) && raid == TROV_RAID50) ? 32 : 16;
    *sizeAll = 0;
    uint64_t current = size;
    bool done = false;
    subsystem.ForEach<CDrive>([&](CDrive* d) {
        if (done) return;
        if (!IsFreeDrive(*d) || d->Status() != VDS_DRS_ONLINE || d->DriveType() != driveType) return;
        if (out->size() >= limit + numSpares) {
            done = true;
            return;
        }
        if (size != 0) {
            if (d->Size() < size) return;
        } else if (current == 0 || current > d->Size()) {
            current = d->Size();
        }
        if (out->size() < limit) *sizeAll += current;
        out->Append(*d);
        if (type == VDS_LT_SIMPLE) done = true;
    });
    return static_cast<uint32_t>(out->size());
}

uint32_t MinDrivesForCreate(int type, uint8_t raid) {
    switch (type) {
        case VDS_LT_STRIPE:
        case VDS_LT_MIRROR: return 2;
        case VDS_LT_RAID10: return 4;
        default: break;
    }
    if (IsParityType(type)) {
        if (raid == TROV_RAID5 || raid == TROV_RAID3) return 3;
        if (raid == TROV_RAID50 || raid == TROV_RAID30) return 6;
        return 4;
    }
    return 1;
}

uint32_t SeekNewDrivesForCreate(const CSubSystem& subsystem, uint8_t raid, int type, uint32_t numSpares,
                                DriveLists* out, uint64_t* total) {
    struct Tier {
        uint8_t driveType;
        uint64_t size;
    };
    std::vector<Tier> tiers;
    const uint8_t allowed = subsystem.AllowedDriveType();
    // Drive types never mix in a vdisk: each type is its own set of tiers.
    for (uint8_t driveType : {TROV_DRIVE_SATA, TROV_DRIVE_SAS, TROV_DRIVE_FC}) {
        if (allowed != driveType && allowed != 1) continue;
        subsystem.ForEach<CDrive>([&](CDrive* d) {
            if (!IsFreeDrive(*d) || d->Status() != VDS_DRS_ONLINE || d->DriveType() != driveType) return;
            for (const Tier& t : tiers)
                if (t.driveType == driveType && t.size == d->Size()) return;
            tiers.push_back(Tier{driveType, d->Size()});
        });
    }
    struct Candidate {
        uint32_t count;
        uint64_t sizeAll;
        DriveLists lists;
    };
    std::vector<Candidate> candidates;
    for (const Tier& t : tiers) {
        Candidate c{};
        c.count = SeekNewDrives(subsystem, type, t.driveType, t.size, raid, numSpares, &c.lists, &c.sizeAll);
        if (c.count > 0) candidates.push_back(std::move(c));
    }
    if (candidates.empty()) return 0;
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const Candidate& a, const Candidate& b) { return a.sizeAll > b.sizeAll; });
    uint32_t minDriveNum = MinDrivesForCreate(type, raid) + numSpares;
    DebugTrace("CSubSystem::SeekNewDrivesForCreate: SpecialRaidType %d minDriveNum %d numSpares %d\n", raid,
               static_cast<int>(minDriveNum), static_cast<int>(numSpares));
    for (Candidate& c : candidates) {
        if (c.count < minDriveNum) continue;
        *out = std::move(c.lists);
        *total = c.sizeAll;
        return c.count;
    }
    return 0;
}

bool HasSameMemberDrives(uint32_t handle, const uint8_t* arraySn, const DriveLists& drives) {
    std::unique_ptr<uint8_t[]> buf = ReadRecord(handle);
    if (!buf) return false;
    const auto* cd = reinterpret_cast<const ControllerData*>(buf.get());
    uint32_t members = 0, matches = 0;
    for (uint32_t i = 0; i < cd->driveCount(); ++i) {
        const DriveData& d = cd->drive(i);
        if (d.howUsed != TROV_HOWUSED_MEMBER && d.howUsed != TROV_HOWUSED_DEDICATED_SPARE) continue;
        if (!rec::ArrayKeyMatches(d.arrayKey, arraySn)) continue;
        ++members;
        if (!drives.Contains(d.serialNumber)) {
            DebugTrace("HasSameMemberDrives: %d drive(s), %d match(es), returning false.\n", static_cast<int>(members),
                       static_cast<int>(matches));
            return false;
        }
        ++matches;
    }
    if (members != drives.size()) {
        DebugTrace("HasSameMemberDrives: %d drive(s), %d match(es), returning false.\n", static_cast<int>(members),
                   static_cast<int>(matches));
        return false;
    }
    DebugTrace("HasSameMemberDrives() return true %d\n", static_cast<int>(members));
    return true;
}

bool IsVdiskContainDrives(uint32_t handle, const uint8_t* arraySn, const DriveLists& drives) {
    std::unique_ptr<uint8_t[]> buf = ReadRecord(handle);
    if (!buf) return false;
    const auto* cd = reinterpret_cast<const ControllerData*>(buf.get());
    for (const DriveSerial& s : drives.vSerial) {
        bool member = false;
        for (uint32_t i = 0; i < cd->driveCount() && !member; ++i) {
            const DriveData& d = cd->drive(i);
            member = d.howUsed == TROV_HOWUSED_MEMBER && rec::ArrayKeyMatches(d.arrayKey, arraySn) &&
                     SameSerial(d.serialNumber, s.data());
        }
        if (!member) return false;
    }
    DebugTrace("IsVdiskContainDrives() return true, nDrive %d\n", static_cast<int>(drives.size()));
    return true;
}
