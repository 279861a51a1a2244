#include "core/events.h"

#include <cstddef>
#include <cstring>

#include "support/debuglog.h"

namespace {

bool AlwaysRefreshes(uint32_t code) {
    static const uint16_t kCodes[] = {1,   3,   6,   8,   9,   16,  18,  21,  24,  27,  28,  31,  34,
                                      35,  42,  43,  48,  53,  58,  59,  62,  68,  74,  84,  94,  103,
                                      105, 106, 107, 108, 110, 112, 113, 117, 118, 119, 120, 121, 122,
                                      123, 124, 125, 126, 136, 154, 205, 210, 212, 214, 216};
    for (uint16_t c : kCodes)
        if (c == code) return true;
    return false;
}

// The records are packed and may lie at any address: fields are compared as bytes, never through
// a reference of their own type.
bool SameBytes(const EventData& a, const EventData& b, size_t offset, size_t size) {
    return std::memcmp(reinterpret_cast<const uint8_t*>(&a) + offset, reinterpret_cast<const uint8_t*>(&b) + offset,
                       size) == 0;
}
#define SAME_FIELD(f) SameBytes(a, b, offsetof(EventData, f), sizeof(EventData::f))

}  // namespace

bool IsEventNeedRefresh(const EventData& e) {
    bool need = AlwaysRefreshes(e.eventCode) || ((e.eventCode == 71 || e.eventCode == 72) && e.eventParam == 2) ||
                (e.eventCode == 19 && e.eventParam == 24);
    if (need) {
        char text[257];
        std::memcpy(text, e.description, 256);
        text[256] = 0;
        DebugTrace("This Event need refresh! owner : %d, eventCode : %d, description = %s\n", e.owner, e.eventCode,
                   text);
    }
    return need;
}

bool NotificationKind(uint32_t code, VDS_NOTIFICATION_TARGET_TYPE* objectType, ULONG* ulEvent) {
    switch (code) {
        case 71: *objectType = VDS_NTT_CONTROLLER; *ulEvent = VDS_NF_CONTROLLER_DEPART; return true;
        case 72: *objectType = VDS_NTT_CONTROLLER; *ulEvent = VDS_NF_CONTROLLER_ARRIVE; return true;
        case 106: *objectType = VDS_NTT_LUN; *ulEvent = VDS_NF_LUN_ARRIVE; return true;
        case 108: *objectType = VDS_NTT_LUN; *ulEvent = VDS_NF_LUN_DEPART; return true;
        case 103:
        case 105: *objectType = VDS_NTT_LUN; *ulEvent = VDS_NF_LUN_MODIFY; return true;
        case 8:
        case 62: *objectType = VDS_NTT_DRIVE; *ulEvent = VDS_NF_DRIVE_DEPART; return true;
        default: return false;
    }
}

bool IsSameEvent(const EventData& a, const EventData& b) {
    return a.word4 == b.word4 && a.eventCode == b.eventCode && a.errorcode == b.errorcode &&
           SAME_FIELD(bytes16) && a.controllerHandle == b.controllerHandle && SAME_FIELD(words24) &&
           a.eventParam == b.eventParam && SAME_FIELD(words44) && SAME_FIELD(driveSerial) &&
           SAME_FIELD(partitionSerial) && SAME_FIELD(spans120) &&
           a.word140 == b.word140 && a.owner == b.owner && a.duplicateCount == b.duplicateCount;
}

uint32_t EventWindowFirst(uint32_t last) { return last > 100 ? last - 99 : 1; }
