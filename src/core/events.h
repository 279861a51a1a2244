// The array's events as the provider judges them: which ask for a rebuild of the tree, which are
// passed on to the host as notifications, and when two records are the same event.
#pragma once

#include <cstdint>

#include "platform/vds.h"
#include "proxy/records.h"

// The refresh table: codes that always ask for one, 71 and 72 with eventParam 2, 19 with 24.
bool IsEventNeedRefresh(const EventData& event);

// The notification table: false for a code that isn't passed on.
bool NotificationKind(uint32_t eventCode, VDS_NOTIFICATION_TARGET_TYPE* objectType, ULONG* ulEvent);

// Two records are the same event when they agree in everything that tells what happened;
// sequenceNumber and description take no part, so a repeat that only raised duplicateCount is new.
bool IsSameEvent(const EventData& a, const EventData& b);

// The first number of the window of at most 100 events that ends at `last` (at least 1).
uint32_t EventWindowFirst(uint32_t last);
