// Finding drives for a LUN: turning the drive ids of a request into the serial and location lists
// that create_array and expand_array take, searching free drives by size tier for a new vdisk,
// and the membership tests of a vdisk. Shared by creation, the capacity answers and extension.
//
// All take the subsystem whose drive map they walk (in its id order, never the request's order);
// the caller holds the notification mutex. The two membership tests read the controller's record
// afresh and answer false when it cannot be read.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/vds.h"
#include "platform/wintypes.h"
#include "proxy/kelvane.h"

class CSubSystem;
class CDrive;

// The two parallel lists every step of a creation passes on: 32-byte drive serials and the
// drives' (channel, SCSI id) locations.
struct DriveLists {
    std::vector<DriveSerial> vSerial;
    std::vector<DriveLocation> vLoca;

    size_t size() const { return vSerial.size(); }
    bool empty() const { return vSerial.empty(); }
    void Append(const CDrive& drive);
    // Keeps the first n entries of both lists.
    void KeepFirst(size_t n);
    void Clear();
    bool Contains(const char* serial) const;  // by the first 32 bytes
};

// Whether the named drives found in the subsystem are all of one drive type.
bool HasSameDriveType(const CSubSystem& subsystem, const VDS_OBJECT_ID* drives, LONG n);
// Whether the named drives found in the subsystem are all of `driveType` (logs the first that is
// not).
bool HasSameDriveType(const CSubSystem& subsystem, uint8_t driveType, const VDS_OBJECT_ID* drives, LONG n);

// The named drives into `out`, in the drive map's order. `minSize` 0: each drive counts at the
// smallest size met so far; otherwise drives below `minSize` are left out and each counts at
// `minSize`. *sizeAll is the sum. Returns whether every named drive is free (a drive that is not
// is still taken).
bool DriveGuids2TrovSn(const CSubSystem& subsystem, const VDS_OBJECT_ID* drives, LONG n, DriveLists* out,
                       uint64_t minSize, uint64_t* sizeAll);

// Free, online drives of `driveType` not marked hot spare, each at least `size` (0: any, counted
// at the smallest met so far). At most 16 drives count (32 for a RAID50 parity or RAID50 LUN),
// and `numSpares` more are taken as spares that add nothing to *sizeAll. A simple LUN takes one.
// Returns the number taken.
uint32_t SeekNewDrives(const CSubSystem& subsystem, int type, uint8_t driveType, uint64_t size, uint8_t raid,
                       uint32_t numSpares, DriveLists* out, uint64_t* sizeAll);

// The automatic choice of drives for a new vdisk: every (drive type, size) tier of the free
// drives is tried with SeekNewDrives; the tier of the largest total that has enough drives for
// the type and RAID level (plus spares) wins. Returns its drive count (0: none will do) and
// fills `out` and *total.
uint32_t SeekNewDrivesForCreate(const CSubSystem& subsystem, uint8_t raid, int type, uint32_t numSpares,
                                DriveLists* out, uint64_t* total);
// The smallest drive count SeekNewDrivesForCreate accepts for a type and RAID level, spares not
// counted.
uint32_t MinDrivesForCreate(int type, uint8_t raid);

// Whether the drives of `vSerial` are exactly the vdisk's members and dedicated spares.
bool HasSameMemberDrives(uint32_t handle, const uint8_t* arraySn, const DriveLists& drives);
// Whether every drive of `vSerial` is a member of the vdisk (an empty list: true).
bool IsVdiskContainDrives(uint32_t handle, const uint8_t* arraySn, const DriveLists& drives);
