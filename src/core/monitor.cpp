#include "core/monitor.h"

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/events.h"
#include "core/globals.h"
#include "core/lock_guard.h"
#include "core/provider.h"
#include "objects/subsystem.h"
#include "proxy/iasocket.h"
#include "proxy/kelvane.h"
#include "proxy/session.h"
#include "support/debuglog.h"

namespace {
constexpr int kSleepsPerPass = 10;
constexpr uint32_t kSleepMs = 1000;

// The monitor's process-wide state.
struct MonitorState {
    std::atomic<CProvider*> provider{nullptr};  // noted for the threads by DealEventProvider
    std::mutex mu;
    int alive = 0;  // threads that haven't yet left every shared object
    // Set when the last thread leaves; made by DealEventProvider on the platform of that moment.
    std::shared_ptr<PlatformEvent> allEnded;
};

// Never destroyed: a host may end its process without unloading the provider, monitors running.
MonitorState& g_monitor = *new MonitorState;

void ThreadLeft() {
    std::lock_guard<std::mutex> g(g_monitor.mu);
    if (--g_monitor.alive == 0 && g_monitor.allEnded) g_monitor.allEnded->Set();
}

bool Stopping() { return g_session.terminating.load() != 0 || isProviderOnline.load() == 0; }

std::string Text(const char* field, size_t width) { return std::string(field, strnlen(field, width)); }

// One controller's share of a pass: the newest event, and every new one back to the last seen.
struct ControllerPass {
    const char* letter;  // "A" or "B"
    bool failed = false;
    bool wantsRefresh = false;
    EventData newest{};
};

// Returns 2 when the pass must stop (a read failed while the provider is offline), else 0.
int CheckController(CProvider* provider, uint32_t handle, const EventData& lastSeen, ControllerPass* c) {
    bool isA = c->letter[0] == 'A';
    if (Kelvane::get_event(handle, 0, 1, 0, &c->newest) != 0) {
        if (!isProviderOnline.load()) {
            DebugTrace("CheckEventsFromRAIDController provider is offline, break. Line %d\n", __LINE__);
            return 2;
        }
        DebugTrace(isA ? "OOP!!! CheckEventsFromRAIDController Ctrl A Get Last Event Failed.\n"
                       : "OOP!!! CheckEventsFromRAIDController Ctrl B Get Last Event Failed.\n");
        c->failed = true;
        return 0;
    }
    if (!isA)
        DebugTrace("CProvider::DealEvent() Ctrl B Last Event, sequenceNumber = %d duplicateCount = %d description = "
                   "%s\n",
                   static_cast<int>(c->newest.sequenceNumber), c->newest.duplicateCount,
                   Text(c->newest.description, sizeof c->newest.description).c_str());
    if (IsSameEvent(c->newest, lastSeen) || c->newest.sequenceNumber < 1) return 0;
    uint32_t last = c->newest.sequenceNumber;
    uint32_t first = EventWindowFirst(last);
    // 41,200 bytes: on the heap rather than a monitor thread's stack.
    std::unique_ptr<EventData[]> list(new EventData[rec::kMaxEvents]);
    uint32_t count = 0;
    if (Kelvane::get_events(handle, first, last, list.get(), &count) != 0) {
        if (!isProviderOnline.load()) {
            DebugTrace("CheckEventsFromRAIDController provider is offline, break. Line %d\n", __LINE__);
            return 2;
        }
        DebugTrace(isA ? "OOP!!! CheckEventsFromRAIDController Ctrl A Get Events List Failed.\n"
                       : "OOP!!! CheckEventsFromRAIDController Ctrl B Get Events List Failed.\n");
        count = 0;
    }
    DebugTrace(isA ? "CheckEventsFromRAIDController Ctrl A Get Events Num : %d\n"
                   : "CheckEventsFromRAIDController Ctrl B Get Events Num : %d\n",
               static_cast<int>(count));
    // Newest first, back to the event seen last time.
    for (uint32_t i = count; i-- > 0;) {
        const EventData& e = list[i];
        if (IsSameEvent(e, lastSeen)) break;
        DebugTrace(isA ? "CheckEventsFromRAIDController Ctrl A Event, sequenceNumber = %d errorcode = %d "
                         "duplicateCount = %d description = %s\n"
                       : "CheckEventsFromRAIDController Ctrl B Event, sequenceNumber = %d errorcode = %d "
                         "duplicateCount = %d description = %s\n",
                   static_cast<int>(e.sequenceNumber), static_cast<int>(e.errorcode), e.duplicateCount,
                   Text(e.description, sizeof e.description).c_str());
        if (!c->wantsRefresh && IsEventNeedRefresh(e)) {
            DebugTrace(isA ? "REFRESH REASON (controller A)\n" : "REFRESH REASON (controller B)\n");
            c->wantsRefresh = true;
        }
        NotifyEvent(provider, e);
    }
    return 0;
}

void DealEventSubSystem(CProvider* provider, SubsystemEntry param) {
    DebugTrace("DealEventSubSystem IN\n");
    for (;;) {
        g_session.processEventRunning = 1;
        for (int i = 0; i < kSleepsPerPass; ++i) {
            // Ends at once when the unload begins, so that it needn't wait out the second.
            bool woken = SessionPause(kSleepMs);
            if (woken || Stopping()) {
                DebugTrace("DealEventSubSystem provider is terminating or offline, break. Line %d\n", __LINE__);
                break;
            }
        }
        if (CheckEventsFromRAIDController(provider, param) == 2) break;
    }
    DebugTrace("DealEventSubSystem Out\n");
    // The flag is shared: the first monitor to end clears it for all.
    NotifyThreadEnded(&g_session.processEventRunning);
    ThreadLeft();
}
}  // namespace

int MonitorThreadsAlive() {
    std::lock_guard<std::mutex> g(g_monitor.mu);
    return g_monitor.alive;
}

bool WaitForMonitorThreads(int ms) {
    std::shared_ptr<PlatformEvent> ended;
    {
        std::lock_guard<std::mutex> g(g_monitor.mu);
        if (g_monitor.alive == 0) return true;
        ended = g_monitor.allEnded;
    }
    return ended && ended->Wait(static_cast<uint32_t>(ms));
}

void ResetMonitorForTest() {
    std::lock_guard<std::mutex> g(g_monitor.mu);
    g_monitor.provider = nullptr;
    g_monitor.alive = 0;
    g_monitor.allEnded.reset();
}

void DealEventProvider(CProvider* provider) {
    DebugTrace("DealEventProvider IN\n");
    g_monitor.provider = provider;
    // The handles of every served subsystem, as the subsystem map holds them now.
    std::vector<SubsystemEntry> params;
    {
        CLockGuard lock("DealEventProvider", hNotificationMutex);
        for (auto& [id, e] : provider->SubSystemMap())
            if (auto* ss = e.As<CSubSystem>()) params.push_back(ss->Entry());
    }
    {
        std::lock_guard<std::mutex> g(g_monitor.mu);
        if (g_monitor.alive == 0) g_monitor.allEnded = Plat()->CreateEvent();
    }
    int number = 0;
    for (const SubsystemEntry& p : params) {
        {
            std::lock_guard<std::mutex> g(g_monitor.mu);
            ++g_monitor.alive;
            g_monitor.allEnded->Reset();
        }
        std::unique_ptr<PlatformThread> t = Plat()->StartThread([provider, p] { DealEventSubSystem(provider, p); });
        if (!t) {
            DebugTrace("OOP!!! DealEventProvider could not start a monitor thread\n");
            ThreadLeft();
            continue;
        }
        // A platform thread has no handle number of its own here; the line shows its position.
        DebugTrace("create DealEvent handle = %d\n", ++number);
        // The session joins it at the unload, before the packet buffer goes.
        AdoptSessionThread(std::move(t));
    }
    DebugTrace("DealEventProvider OUT\n");
}

void NotifyEvent(CProvider* provider, const EventData& event) {
    DebugTrace("NotificationEvent IN\n");
    VDS_NOTIFICATION n;
    std::memset(&n, 0, sizeof n);
    VDS_NOTIFICATION_TARGET_TYPE type = VDS_NTT_UNKNOWN;
    ULONG ulEvent = 0;
    if (NotificationKind(event.eventCode, &type, &ulEvent)) {
        n.objectType = type;
        VDS_OBJECT_TYPE objectType = static_cast<VDS_OBJECT_TYPE>(type);
        VDS_OBJECT_ID id = provider->GetUID(objectType, event);
        const char* word = "";
        switch (type) {
            case VDS_NTT_CONTROLLER:
                n.Controller.ulEvent = ulEvent;
                n.Controller.controllerId = id;
                word = "Controller";
                break;
            case VDS_NTT_LUN:
                n.Lun.ulEvent = ulEvent;
                n.Lun.LunId = id;
                word = "Lun";
                break;
            default:
                n.Drive.ulEvent = ulEvent;
                n.Drive.driveId = id;
                word = "Drive";
                break;
        }
        DebugTrace("NotificationEvent : %s objectType = %d, ulEvent = %d\n", word, static_cast<int>(type),
                   static_cast<int>(ulEvent));
    }
    if (n.objectType != VDS_NTT_UNKNOWN) {
        DebugTrace("NotificationEvent: owner : %d, , eventCode : %d, description = %s\n", event.owner,
                   static_cast<int>(event.eventCode), Text(event.description, sizeof event.description).c_str());
        if (IVdsAdviseSink* sink = provider->Sink()) {
            DebugTrace("CProvider::Notify, Send notify to VDS. m_pSink = %d\n", 1);
            sink->OnNotify(1, &n);
        }
    }
    DebugTrace("NotificationEvent OUT\n");
}

int CheckEventsFromRAIDController(CProvider* provider, const SubsystemEntry& param) {
    CLockGuard lock("CheckEventsFromRAIDController", hNotificationMutex);
    if (g_transport.LastSocketError.load() != 0 && (Options.load() & kOptionReconnectAtRefresh) == 0) {
        if (ProxyReconnect() == 0) provider->SetNeedRefresh(true);
    }
    std::string sn = Text(param.UniqueSN, sizeof param.UniqueSN);
    DebugTrace("CheckEventsFromRAIDController handleACtrl = %d, handleBCtrl = %d, UniqueSN = %s \n",
               static_cast<int>(param.controllerA), static_cast<int>(param.controllerB), sn.c_str());
    if (Stopping()) {
        DebugTrace("CheckEventsFromRAIDController provider is terminating or offline, break. Line %d\n", __LINE__);
        return 2;
    }
    if (isRefreshing.load()) {
        DebugTrace("CheckEventsFromRAIDController provider is refresh, continue. Line %d\n", __LINE__);
        return 1;
    }
    if (provider->Registry().Objects().empty() || provider->Registry().IdentityCount() == 0) {
        DebugTrace("CheckEventsFromRAIDController provider's object Map is null, continue. Line %d\n", __LINE__);
        return 1;
    }
    CSubSystem* ss = nullptr;
    for (auto& [id, e] : provider->SubSystemMap()) {
        auto* s = e.As<CSubSystem>();
        if (s && (s->Entry().controllerA == param.controllerA || s->Entry().controllerB == param.controllerB)) {
            ss = s;
            break;
        }
    }
    if (!ss) {
        DebugTrace("CheckEventsFromRAIDController can not found special sub(handleACtrl=0x%x, handleBCtrl=0x%x), "
                   "continue. Line %d\n",
                   param.controllerA, param.controllerB, __LINE__);
        return 1;
    }
    // The subsystem stays alive through the pass even if a refresh were to drop it from the map.
    CComPtr<IVdsSubSystem> hold(static_cast<IVdsSubSystem*>(ss));
    uint8_t askNeed = 0;
    if (Options.load() & kOptionAskNeedRefresh) {
        char unique[33] = {};
        std::memcpy(unique, param.UniqueSN, sizeof param.UniqueSN);
        if (Kelvane::get_need_refresh(unique, &askNeed) != 0) askNeed = 0;
        if (askNeed) DebugTrace("REFRESH REASON: CheckEventsFromRAIDController: isNeedRefresh = %d\n", askNeed);
    }
    ControllerPass a{"A"}, b{"B"};
    LastEvents& last = LastEventsOf(ss->Id());
    if (CheckController(provider, param.controllerA, last.controller[0], &a) == 2) return 2;
    if (CheckController(provider, param.controllerB, last.controller[1], &b) == 2) return 2;
    if (!isProviderOnline.load()) {
        DebugTrace("CheckEventsFromRAIDController isProviderOnline is false, break. Line %d\n", __LINE__);
        return 2;
    }
    if (a.wantsRefresh || b.wantsRefresh)
        DebugTrace("Need refresh SubSystem. isACtrlNeedRefresh: %d isBCtrlNeedRefresh: %d\n", a.wantsRefresh ? 1 : 0,
                   b.wantsRefresh ? 1 : 0);
    if (isRefreshing.load())
        provider->SetNeedRefresh(false);
    else if (a.wantsRefresh || b.wantsRefresh || askNeed == 1)
        provider->SetNeedRefresh(true);
    if (!a.failed) last.controller[0] = a.newest;
    if (!b.failed) last.controller[1] = b.newest;
    return 0;
}

namespace {
struct LastEventTable {
    std::mutex mu;
    std::map<VDS_OBJECT_ID, LastEvents, GuidLess> records;
};
// Never destroyed: a subsystem object may die after the statics of the process are gone.
LastEventTable& LastEventRecords() {
    static LastEventTable& t = *new LastEventTable;
    return t;
}
}  // namespace

LastEvents& LastEventsOf(const VDS_OBJECT_ID& subsystem) {
    LastEventTable& t = LastEventRecords();
    std::lock_guard<std::mutex> g(t.mu);
    return t.records[subsystem];
}

void ForgetLastEvents(const VDS_OBJECT_ID& subsystem) {
    LastEventTable& t = LastEventRecords();
    std::lock_guard<std::mutex> g(t.mu);
    t.records.erase(subsystem);
}
