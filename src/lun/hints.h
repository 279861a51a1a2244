// What a LUN request's type and hints mean for the array: the provider's private hint bits (the
// upper byte of ullHintMask), the special LUN kinds they ask for, the hot spare, the conversion of
// VDS_HINTS2, and the RAID level a request is made with. Pure decisions, apart from
// IsSupportSpecialLun() (read afresh from the settings at every call) and the host generation.
//
// The request ladders are here too, as pure functions of the request, so that their order is one
// piece of code: CheckCreateArguments (the type, size and stripe rungs) and SettleNamedDrives (the
// drive-count rungs and the settling of type and RAID level by the number of named drives).
#pragma once

#include <cstdint>
#include <functional>

#include "platform/trov_hints.h"  // the private hint bits
#include "platform/vds.h"
#include "platform/wintypes.h"

// The special kind a request asks for: 1 backing store, 2 master volume, 3 snapshot, 0 none.
uint8_t SpecialLunTypeFor(const VDS_HINTS& hints, bool specialSupported);
// The same with IsSupportSpecialLun() read now.
uint8_t SpecialLunType(const VDS_HINTS& hints);
inline bool IsSpecialLun(const VDS_HINTS& hints) { return SpecialLunType(hints) != 0; }
// A request for a vdisk without a partition (bit 60, honoured only while special LUNs are on).
bool IsDummyRequest(const VDS_HINTS& hints);
// 1 when the hot-spare hint is set, else 0.
uint32_t NumSpares(const VDS_HINTS& hints);

// VDS_HINTS2 as VDS_HINTS: the shared fields copied; the mask bits of the six newer booleans
// cleared where their boolean is 0.
VDS_HINTS HintsFromHints2(const VDS_HINTS2& hints2);

// The array's RAID level of a LUN type; parity types take `parityLevel`, the newer RAID types only
// on a host of the win7 kind. Anything else is RAID0 (with a log line).
uint8_t VdsType2TrovRaidLevel(uint8_t parityLevel, int type, bool win7);
uint8_t VdsType2TrovRaidLevel(uint8_t parityLevel, int type);  // the host's own generation
// The RAID level a request is made with, from its type and hints.
uint8_t GetRaidLevelForCreate(const VDS_HINTS& hints, int type, bool win7);
uint8_t GetRaidLevelForCreate(const VDS_HINTS& hints, int type);

// The first rungs of a create request, in their order: a null drive array with a count, a span,
// a size below 1 MiB, an unknown type, a stripe with a simple LUN, an unknown stripe size.
HRESULT CheckCreateArguments(int type, ULONGLONG size, bool driveArrayNull, LONG nDrives, ULONG stripe);

// The rungs of a create request with n named drives (n > 0), in their order, then the settling:
// types 1 and 2 become simple, mirror or parity by the count, type 3 a stripe, and a parity
// LUN's RAID level is checked against the count (three drives turn RAID6 into RAID5).
// `sameDriveType` answers whether the named drives are all of one kind; it is asked only after
// the count rungs, so that no more ids are read than a request may carry.
HRESULT SettleNamedDrives(int* type, uint8_t* raid, LONG n, const std::function<bool()>& sameDriveType,
                          bool supportRaid6);

// --- Hints of an existing LUN (lun/lun_hints.cpp) ---
// The mask a LUN's hints start from by its vdisk's RAID level (RAID5, RAID50 and RAID3 carry their
// bit and mostly reads); 0x10C otherwise.
ULONGLONG RaidHintMask(uint8_t raidLevel, BOOL* mostlyReads);
// The role bits of a LUN's snapshot kind; `related`: a backing store that master volumes use, a
// master volume that has snapshots.
ULONGLONG RoleHintBits(uint8_t specialType, bool related);
// The bus type of a drive type: fibre, SATA or SAS; 0 otherwise.
VDS_STORAGE_BUS_TYPE BusTypeOfDriveType(uint8_t driveType);
// What ApplyHints refuses before it asks the array: sequential reads and writes set apart, fast
// crash recovery, remapping, checksums, yankable, and every size or count that isn't 0.
HRESULT CheckAppliedHints(const VDS_HINTS& hints);
// The partition's cache parameters with the hints applied: byte 9 write-back, byte 10 sequential.
void CacheParamsWithHints(const VDS_HINTS& hints, uint8_t cache[32]);

inline ULONGLONG RoundUpToMb(ULONGLONG x) { return (x + 0xFFFFF) & ~0xFFFFFull; }
inline ULONGLONG RoundDownToMb(ULONGLONG x) { return x & ~0xFFFFFull; }
constexpr ULONGLONG kMinLunBytes = 1048576;
