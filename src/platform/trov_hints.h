// The provider's private bits in the upper byte of a hints mask (ullHintMask of VDS_HINTS and
// VDS_HINTS2). A client sets them to ask for a special LUN or to choose the RAID level of a parity
// LUN, and reads them back from QueryHints as the LUN's snapshot role and RAID level. They are
// part of the provider's interface toward its clients, so they live here, where the provider and
// a host program (trovctl) both reach them; this is their one definition.
//
// 56 to 60 count only while special LUNs are allowed (the Debug key's switch); the RAID bits
// always, and only together with bMostlyReads.
#pragma once

#include "platform/wintypes.h"

constexpr ULONGLONG TROV_HINT_BACKING_STORE = 1ull << 56;   // a backing store volume
constexpr ULONGLONG TROV_HINT_MASTER_VOLUME = 1ull << 57;   // a master volume
constexpr ULONGLONG TROV_HINT_SNAPSHOT = 1ull << 58;        // a snapshot of a master volume
constexpr ULONGLONG TROV_HINT_CONVERT_MASTER = 1ull << 59;  // ApplyHints: convert the snapshot role
constexpr ULONGLONG TROV_HINT_DUMMY_LUN = 1ull << 60;       // a vdisk without a partition
constexpr ULONGLONG TROV_HINT_RAID3 = 1ull << 61;
constexpr ULONGLONG TROV_HINT_RAID50 = 1ull << 62;
constexpr ULONGLONG TROV_HINT_RAID5 = 1ull << 63;
