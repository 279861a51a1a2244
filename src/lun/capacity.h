// How large a LUN can be made or grown: the RAID size formulas of the answers, the drive count a
// new vdisk needs for a size, and (as members of CSubSystem, CProvider and CLun, defined in
// capacity.cpp) the size queries of the host.
//
// The answers are separate from the creation on purpose, with their own small differences: they
// count a vdisk's total free blocks where the creation needs its largest free segment, and they
// reckon RAID50 legs by their own rule. Sizes are bytes; answers are rounded down to a whole MiB.
// No query changes anything on the array.
#pragma once

#include <cstdint>

#include "platform/vds.h"
#include "platform/wintypes.h"

class CSubSystem;

// The usable size of n drives holding `total` bytes in all, by LUN type and RAID level (integer
// arithmetic, in the order written). `noParityLoss` keeps the parity rows from taking anything.
uint64_t GetRaidSizeUsedDrivesUseLunType(uint8_t raid, int type, uint32_t n, uint64_t total, bool noParityLoss);
// The same by RAID level alone, with the vdisk's drives per leg for RAID50 and RAID30.
uint64_t GetRaidSizeUsedDrivesUseRaidLevel(uint8_t raid, uint32_t n, uint64_t total, uint32_t drivesPerLeg,
                                           bool noParityLoss);

// The usable size a new vdisk of c drives of `single` bytes each gives, as the creation reckons
// it; *drivesPerLeg is the leg size for RAID50 and RAID30 (0 otherwise). 0 for a count the level
// cannot take (RAID50 and RAID30: neither even nor a multiple of 3).
uint64_t CreateCapacityFor(int type, uint8_t raid, uint32_t c, uint64_t single, uint32_t* drivesPerLeg);
// The drive count a new vdisk starts from, for its type and RAID level.
uint32_t StartingDriveCount(int type, uint8_t raid);
// The smallest count from `start` whose capacity reaches `size` (size 0: `start`), stepping as
// the level needs (mirrors by two, RAID50 and RAID30 over counts they can take); a count above
// `found` means that too few drives were found. *drivesPerLeg as CreateCapacityFor.
uint32_t DriveCountForSize(int type, uint8_t raid, uint32_t start, uint64_t single, uint64_t size, uint32_t found,
                           uint32_t* drivesPerLeg);

// The best room among old vdisks: for each LUN of `type` (of the first named drive's vdisk, when
// drives are named), the free space of its vdisk; the largest, rounded down to a whole MiB.
void GetMaxLunSizeExitArray(CSubSystem* subsystem, int type, const VDS_OBJECT_ID* drives, LONG n, ULONGLONG* result);
