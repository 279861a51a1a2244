// The event monitor: one thread per subsystem of the first load polls both controllers' event
// logs every ten seconds (ten one-second pauses on the Platform clock, each of which the unload
// ends at once), passes new events on to the host as notifications, decides from their codes
// whether the tree is stale, and repairs a lost connection to the proxy service. The threads
// are started through the Platform and handed to the session, which joins them at the unload.
#pragma once

#include <cstdint>

#include "platform/vds.h"
#include "proxy/records.h"
#include "proxy/wire.h"

class CProvider;

// Starts the monitor threads for the subsystems the provider serves now.
void DealEventProvider(CProvider* provider);
// One pass for the subsystem of `param`: 0 done, 1 nothing could be done now, 2 stop the thread.
int CheckEventsFromRAIDController(CProvider* provider, const SubsystemEntry& param);
// Passes an event on to the host's sink when its code is one of the notified ones.
void NotifyEvent(CProvider* provider, const EventData& event);

// Monitor threads alive now (each thread counts itself until it has left every shared object).
int MonitorThreadsAlive();
// Waits (on the Platform clock, at most `ms`) until no monitor thread is alive; false on
// time-out. After the unload the session has joined them all, and this returns at once.
bool WaitForMonitorThreads(int ms);
// Forgets the monitor's state (tests only; its threads must have been joined).
void ResetMonitorForTest();

// The newest event of each controller (A, then B) as the event check last took it: the monitor's
// state, one record per subsystem. Kept by the subsystem's id, which a refresh keeps, so that it
// survives a refresh as the subsystem object does; a record starts zeroed on first use, is seeded
// by CSubSystem::Initialize and goes when the subsystem object dies. The callers of LastEventsOf
// hold the notification mutex; the reference stays valid until ForgetLastEvents for that id.
struct LastEvents {
    EventData controller[2];
};
LastEvents& LastEventsOf(const VDS_OBJECT_ID& subsystem);
void ForgetLastEvents(const VDS_OBJECT_ID& subsystem);
