// Growing a LUN. CLun::Extend grows the partition into the free space of its vdisk
// (expand_part), or first adds drives to the vdisk (expand_array) and leaves the partition's
// growth to the asynchronous object's Wait, which follows the array's restripe to its end.
//
// The decisions are pure functions here (the ladder of refusals by RAID level and drive count, the
// capacity that drives add, the number of drives to add), and the expand_part retry loop is shared
// by Extend and by the asynchronous object's Wait. The loop's end is inverted on purpose: twenty
// refusals in a row count as a success, and a success at the very last attempt as a failure.
#pragma once

#include <cstdint>

#include "platform/vds.h"
#include "platform/wintypes.h"
#include "proxy/records.h"

// The most drives a vdisk may hold after an extension.
constexpr uint32_t kMaxDrivesPerArray = 68;

// The refusals by RAID level and named-drive count, in their order: VDS_E_NOT_SUPPORTED or S_OK.
// `lunType` is the LUN's VDS type; `raidLevel`, `vdiskDrives` and `drivesPerLeg` the vdisk's.
HRESULT ExtendLadder(int lunType, uint8_t raidLevel, LONG nDrives, uint32_t vdiskDrives, uint8_t drivesPerLeg);

// The bytes that `d` drives adding `sizeAll` bytes in all give a vdisk of RAID level `raid`: all
// of them, but for RAID10 half of the drives' worth, counted over whole pairs.
uint64_t CapacityOfAddedDrives(uint8_t raid, uint64_t sizeAll, uint32_t d);

// How many drives of `single` bytes each an extension adds when none were named, so that their
// capacity with `freeBytes` reaches `bytesWanted`; `available` is the length of the search's list.
// VDS_E_NOT_SUPPORTED or VDS_E_NOT_ENOUGH_DRIVE when no count will do.
HRESULT DriveCountToAdd(uint8_t raidLevel, int lunType, uint64_t single, uint64_t freeBytes, uint64_t bytesWanted,
                        uint8_t drivesPerLeg, size_t available, uint32_t* count);

// How the expand_part retry loop ended.
enum class ExpandPartEnd {
    kGrown,         // the array took the new size
    kTakenAsGrown,  // twenty refusals, counted as success
    kFailed,        // a success at the last attempt, counted as failure
};
// The retry loop: up to twenty expand_part commands three seconds apart, the odd attempts
// carrying the vdisk's serial and the even ones zeros. `retryFormat` is the log line of each try
// ("%d" the counter). A transport failure repairs the connection before the next try.
ExpandPartEnd ExpandPartRetryLoop(uint32_t handle, ExpandPartRequest* request, const uint8_t* arraySn,
                                  const char* retryFormat);
