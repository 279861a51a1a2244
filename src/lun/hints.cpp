#include "lun/hints.h"

#include "core/globals.h"
#include "lun/lun.h"
#include "proxy/records.h"
#include "support/debuglog.h"

uint8_t SpecialLunTypeFor(const VDS_HINTS& hints, bool specialSupported) {
    if (!specialSupported) return 0;
    if (hints.ullHintMask & TROV_HINT_BACKING_STORE) return TROV_PART_BACKING_STORE;
    if (hints.ullHintMask & TROV_HINT_MASTER_VOLUME) return TROV_PART_MASTER_VOLUME;
    if (hints.ullHintMask & TROV_HINT_SNAPSHOT) return TROV_PART_SNAPSHOT;
    return 0;
}

uint8_t SpecialLunType(const VDS_HINTS& hints) { return SpecialLunTypeFor(hints, IsSupportSpecialLun()); }

bool IsDummyRequest(const VDS_HINTS& hints) {
    return (hints.ullHintMask & TROV_HINT_DUMMY_LUN) != 0 && IsSupportSpecialLun();
}

uint32_t NumSpares(const VDS_HINTS& hints) { return (hints.ullHintMask & VDS_HINT_ALLOCATEHOTSPARE) ? 1 : 0; }

VDS_HINTS HintsFromHints2(const VDS_HINTS2& h2) {
    VDS_HINTS h{};
    h.ullHintMask = h2.ullHintMask;
    h.ullExpectedMaximumSize = h2.ullExpectedMaximumSize;
    h.ulOptimalReadSize = h2.ulOptimalReadSize;
    h.ulOptimalReadAlignment = h2.ulOptimalReadAlignment;
    h.ulOptimalWriteSize = h2.ulOptimalWriteSize;
    h.ulOptimalWriteAlignment = h2.ulOptimalWriteAlignment;
    h.ulMaximumDriveCount = h2.ulMaximumDriveCount;
    h.ulStripeSize = h2.ulStripeSize;
    h.bFastCrashRecoveryRequired = h2.bFastCrashRecoveryRequired;
    h.bMostlyReads = h2.bMostlyReads;
    h.bOptimizeForSequentialReads = h2.bOptimizeForSequentialReads;
    h.bOptimizeForSequentialWrites = h2.bOptimizeForSequentialWrites;
    h.bRemapEnabled = h2.bRemapEnabled;
    h.bReadBackVerifyEnabled = h2.bReadBackVerifyEnabled;
    h.bWriteThroughCachingEnabled = h2.bWriteThroughCachingEnabled;
    h.bHardwareChecksumEnabled = h2.bHardwareChecksumEnabled;
    h.bIsYankable = h2.bIsYankable;
    h.sRebuildPriority = h2.sRebuildPriority;
    // The newer hints have a boolean each: a bit whose boolean is off does not ask for it.
    const struct {
        BOOL value;
        ULONGLONG bit;
    } newer[] = {{h2.bAllocateHotSpare, VDS_HINT_ALLOCATEHOTSPARE},
                 {h2.bUseMirroredCache, VDS_HINT_USEMIRROREDCACHE},
                 {h2.bReadCachingEnabled, VDS_HINT_READCACHINGENABLED},
                 {h2.bWriteCachingEnabled, VDS_HINT_WRITECACHINGENABLED},
                 {h2.bMediaScanEnabled, VDS_HINT_MEDIASCANENABLED},
                 {h2.bConsistencyCheckEnabled, VDS_HINT_CONSISTENCYCHECKENABLED}};
    for (const auto& n : newer)
        if (!n.value) h.ullHintMask &= ~n.bit;
    return h;
}

uint8_t VdsType2TrovRaidLevel(uint8_t parityLevel, int type, bool win7) {
    switch (type) {
        case VDS_LT_DEFAULT:
        case VDS_LT_FAULT_TOLERANT:
        case VDS_LT_PARITY: return parityLevel;
        case VDS_LT_NON_FAULT_TOLERANT:
        case VDS_LT_STRIPE: return TROV_RAID0;
        case VDS_LT_SIMPLE:
        case VDS_LT_SPAN: return TROV_NRAID;
        case VDS_LT_MIRROR: return TROV_RAID1;
        default: break;
    }
    if (win7) {
        switch (type) {
            case VDS_LT_RAID3: return TROV_RAID3;
            case VDS_LT_RAID5: return TROV_RAID5;
            case VDS_LT_RAID6: return TROV_RAID6;
            case VDS_LT_RAID10: return TROV_RAID10;
            case VDS_LT_RAID30: return TROV_RAID30;
            case VDS_LT_RAID50: return TROV_RAID50;
            default: break;
        }
    }
    DebugTrace("VdsType2TrovRaidLevel: mapping VDS_LUN_TYPE %d to TROV_RAID0\n", type);
    return TROV_RAID0;
}

uint8_t VdsType2TrovRaidLevel(uint8_t parityLevel, int type) {
    return VdsType2TrovRaidLevel(parityLevel, type, HostIsWin7());
}

uint8_t GetRaidLevelForCreate(const VDS_HINTS& hints, int type, bool win7) {
    switch (type) {
        case VDS_LT_RAID10: return TROV_RAID10;
        case VDS_LT_RAID3: return TROV_RAID3;
        case VDS_LT_RAID30: return TROV_RAID30;
        case VDS_LT_RAID5: return TROV_RAID5;
        case VDS_LT_RAID50: return TROV_RAID50;
        case VDS_LT_RAID6: return TROV_RAID6;
        default: break;
    }
    ULONG maxDrives = hints.ulMaximumDriveCount;
    if (maxDrives > 2 && (hints.ullHintMask & VDS_HINT_ALLOCATEHOTSPARE)) --maxDrives;
    uint8_t parityLevel = maxDrives == 3 ? TROV_RAID5 : TROV_RAID6;
    if (type != VDS_LT_FAULT_TOLERANT && type != VDS_LT_PARITY) return VdsType2TrovRaidLevel(parityLevel, type, win7);
    if (!hints.bMostlyReads) {
        if (type == VDS_LT_FAULT_TOLERANT && (hints.ullHintMask & VDS_HINT_MOSTLYREADS))
            return maxDrives == 2 ? TROV_RAID1 : TROV_RAID10;
        return parityLevel;
    }
    if (hints.ullHintMask & TROV_HINT_RAID5) return TROV_RAID5;
    if (hints.ullHintMask & TROV_HINT_RAID50) return TROV_RAID50;
    if (hints.ullHintMask & TROV_HINT_RAID3) return TROV_RAID3;
    return parityLevel;
}

uint8_t GetRaidLevelForCreate(const VDS_HINTS& hints, int type) {
    return GetRaidLevelForCreate(hints, type, HostIsWin7());
}

HRESULT CheckCreateArguments(int type, ULONGLONG size, bool driveArrayNull, LONG nDrives, ULONG stripe) {
    if (driveArrayNull && nDrives != 0) return E_INVALIDARG;
    if (type == VDS_LT_SPAN) return VDS_E_NOT_SUPPORTED;
    if (size != 0 && size < kMinLunBytes) return VDS_E_NOT_SUPPORTED;
    switch (type) {
        case 1: case 2: case 3: case 10: case 12: case 13: case 14: case 16: case 18: case 19: case 23: case 25:
        case 26: case 29: break;
        default: return E_INVALIDARG;
    }
    if (stripe != 0 && type == VDS_LT_SIMPLE) return VDS_E_NOT_SUPPORTED;
    if (stripe != 0 && stripe != 16384 && stripe != 32768 && stripe != 65536) return E_INVALIDARG;
    return S_OK;
}

HRESULT SettleNamedDrives(int* type, uint8_t* raid, LONG n, const std::function<bool()>& sameDriveType,
                          bool supportRaid6) {
    bool wideRaid50 = IsParityType(*type) && (*raid == TROV_RAID50 || *raid == TROV_RAID30);
    if ((wideRaid50 && n > 32) || (!wideRaid50 && n > 16)) {
        DebugTrace("OOP!! CSubSystem::QueryMaxLunCreateSize() line %d : the input drives num to more(%d). return "
                   "E_INVALIDARG\n",
                   __LINE__, static_cast<int>(n));
        return E_INVALIDARG;
    }
    if (!sameDriveType()) return VDS_E_NOT_SUPPORTED;
    if (n == 1 && *type == VDS_LT_STRIPE) return E_INVALIDARG;
    if (n != 1 && *type == VDS_LT_SIMPLE) return E_INVALIDARG;
    if (n < 3 && *type == VDS_LT_PARITY) return E_INVALIDARG;
    if (n % 2 != 0) {
        switch (*type) {
            case VDS_LT_MIRROR: case VDS_LT_RAID10: case VDS_LT_RAID30: case VDS_LT_RAID50: case VDS_LT_RAID60:
                return E_INVALIDARG;
            default: break;
        }
    }
    if (*type == VDS_LT_DEFAULT || *type == VDS_LT_FAULT_TOLERANT)
        *type = n == 1 ? VDS_LT_SIMPLE : n == 2 ? VDS_LT_MIRROR : VDS_LT_PARITY;
    else if (*type == VDS_LT_NON_FAULT_TOLERANT)
        *type = VDS_LT_STRIPE;
    if (*type != VDS_LT_PARITY) return S_OK;
    if (n == 3 && *raid == TROV_RAID6) {
        *raid = TROV_RAID5;
        return S_OK;
    }
    if (n < 3 && *raid == TROV_RAID6 && supportRaid6) {
        DebugTrace("CSubSystem::CreateLun create TROV_RAID6 use lNumberOfDrives < 4, return E_INVALIDARG, line %d\n",
                   __LINE__);
        return E_INVALIDARG;
    }
    if (*raid == TROV_RAID50 || *raid == TROV_RAID30) {
        if (n < 6) {
            DebugTrace("CSubSystem::CreateLun create TROV_RAID50 use lNumberOfDrives < 6, return E_INVALIDARG, line %d\n",
                       __LINE__);
            return E_INVALIDARG;
        }
        if (n % 3 != 0 && n % 2 != 0) {
            DebugTrace("CSubSystem::CreateLun create TROV_RAID50 use lNumberOfDrives lNumberOfDrives%%3 != 0 || "
                       "lNumberOfDrives%%2 != 0, return E_INVALIDARG, line %d\n",
                       __LINE__);
            return E_INVALIDARG;
        }
    }
    return S_OK;
}
