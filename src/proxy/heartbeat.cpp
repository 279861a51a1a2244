#include "proxy/heartbeat.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "platform/platform.h"
#include "platform/wstr.h"
#include "proxy/iasocket.h"
#include "proxy/session.h"
#include "proxy/wire.h"
#include "support/debuglog.h"

namespace {

constexpr uint32_t kPauseMs = 5000;
// The platform's "already connected" answer of an accept, which counts as success.
constexpr uint32_t kAlreadyConnected = 535;

struct HeartbeatState {
    std::mutex mu;
    std::shared_ptr<LocalChannel> pipe;  // shared with the thread, which closes it at its end
    std::atomic<bool> valid{false};
    std::atomic<uint16_t> listenPort{0};
    std::atomic<int> running{0};
};

// Never destroyed: a host may end its process without unloading the provider, the thread running.
HeartbeatState& g_heartbeat = *new HeartbeatState;

std::u16string ShownName(const std::string& name) {
    // On Linux the channel lives in the abstract namespace; its name is shown with the '@' that
    // tools such as ss use for it.
    return AsciiToWide(("@" + name).c_str());
}

bool ParseUid(const std::string& text, uint32_t* uid) {
    if (text.empty() || text.size() > 10) return false;
    uint64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + static_cast<uint64_t>(c - '0');
    }
    if (v > UINT32_MAX) return false;
    *uid = static_cast<uint32_t>(v);
    return true;
}

// The original keeps reading a silent client for as long as it stays connected, so that any
// local process could stop every heartbeat answer by connecting and sending nothing. We drop a
// client that sends nothing within the read time-out and take the next one at once.
bool DroppedOnTimeOut(LocalChannel& pipe, uint32_t err) {
    if (err != ETIMEDOUT) return false;
    DebugTrace("recv_events: the client sent nothing in time, disconnected\n");
    pipe.Disconnect();
    return true;
}

}  // namespace

std::atomic<int>& recvEventsRunning = g_heartbeat.running;

uint16_t ListenPort() { return g_heartbeat.listenPort; }

std::string ListenerName() {
    g_heartbeat.listenPort = static_cast<uint16_t>(Plat()->ProcessId() & 0xFFFF);
    return "TROV_Proxy_" + std::to_string(g_heartbeat.listenPort.load());
}

bool ListenerValid() { return g_heartbeat.valid; }

LocalChannelPolicy HeartbeatPolicy() {
    LocalChannelPolicy policy;
    policy.readTimeoutMs = kHeartbeatReadTimeoutMs;
    policy.allowedUids.push_back(0);  // root
    std::u16string value;
    if (Plat()->ReadStringValue(TROV_PARAMETERS_KEY, "ServiceUser", &value)) {
        std::string name = WideToUtf8(value);
        uint32_t uid = 0;
        if (ParseUid(name, &uid) || Plat()->LookupUserId(name, &uid)) {
            if (uid != 0) policy.allowedUids.push_back(uid);
        } else {
            DebugTrace("create_listen: ServiceUser %s names no user, only root may connect\n", name.c_str());
        }
    } else {
        // No service user named: the service runs as root, or as the user of this process, as
        // the built-in emulator and the tests do (they run inside the host process).
        uint32_t self = Plat()->EffectiveUserId();
        if (self != 0) policy.allowedUids.push_back(self);
    }
    return policy;
}

int create_listen() {
    DebugTrace("%s()\n", "create_listen");
    std::string name = ListenerName();
    DebugTrace("create_listen: creating named pipe %S\n", ShownName(name).c_str());
    LocalChannelPolicy policy = HeartbeatPolicy();
    for (uint32_t uid : policy.allowedUids) DebugTrace("create_listen: uid %u may connect\n", uid);
    uint32_t err = 0;
    std::unique_ptr<LocalChannel> ch = Plat()->CreateLocalChannel(name, policy, &err);
    if (!ch) {
        LogErrorEvent("CreateNamedPipe failed with error 0x%x", err);
        return err ? static_cast<int>(err) : -1;
    }
    {
        std::lock_guard<std::mutex> g(g_heartbeat.mu);
        g_heartbeat.pipe = std::move(ch);
    }
    g_heartbeat.valid = true;
    DebugTrace("starting recv_events thread\n");
    // Set before the start, so that a shutdown right after this can't miss the thread.
    g_heartbeat.running = 1;
    std::unique_ptr<PlatformThread> t = Plat()->StartThread(recv_events);
    if (!t) {
        // The original doesn't look at the start's result; without a thread nothing would ever
        // clear the flag, and the unload would wait its ten seconds for nothing.
        DebugTrace("create_listen: the recv_events thread could not be started\n");
        NotifyThreadEnded(&g_heartbeat.running);
        return 0;
    }
    AdoptSessionThread(std::move(t));
    return 0;
}

void delete_listener() {
    DebugTrace("%s()\n", "delete_listener");
    std::string name = ListenerName();
    DebugTrace("delete_listener: deleting named pipe %S\n", ShownName(name).c_str());
    // An abstract name goes with its socket: shutting the channel down removes it from use and
    // wakes the thread blocked in its accept or read, so that the thread ends at once.
    std::shared_ptr<LocalChannel> ch;
    {
        std::lock_guard<std::mutex> g(g_heartbeat.mu);
        ch = g_heartbeat.pipe;
    }
    if (ch) ch->Shutdown();
    DebugTrace("%s() out\n", "delete_listener");
}

HeartbeatNext ServeHeartbeatClient(LocalChannel& pipe, uint8_t* buffer, uint32_t size) {
    DebugTrace("pipe read...\n");
    uint32_t got = 0;
    uint32_t err = pipe.Read(buffer, size, &got);
    if (err != 0) {
        if (DroppedOnTimeOut(pipe, err)) return HeartbeatNext::kAccept;
        LogErrorEvent("ReadFile failed to read packet header error 0x%x", err);
        return HeartbeatNext::kPause;
    }
    uint32_t dataLen = got >= wire::kHeaderSize ? wire::DataLenOf(buffer) : 0;
    DebugTrace("pipe read %d bytes, DataLen=%d\n", static_cast<int>(got), static_cast<int>(dataLen));
    if (got == wire::kHeaderSize && dataLen != 0) {
        // Never past the buffer, whatever the peer announces.
        uint32_t room = size - static_cast<uint32_t>(wire::kHeaderSize);
        uint32_t more = 0;
        err = pipe.Read(buffer + wire::kHeaderSize, dataLen <= room ? dataLen : room, &more);
        if (err != 0) {
            if (DroppedOnTimeOut(pipe, err)) return HeartbeatNext::kAccept;
            LogErrorEvent("ReadFile failed to read additional data with error 0x%x\n", err);
            return HeartbeatNext::kPause;
        }
        got += more;
        DebugTrace("pipe read %d ADDITIONAL bytes, DataLen=%d read=%d\n", static_cast<int>(more),
                   static_cast<int>(dataLen), static_cast<int>(got));
    }
    if (got == 0) {
        DebugTrace("error: size=%d at %s %d \n", 0, __FILE__, __LINE__);
        // On a stream socket nothing more comes once a read gives 0 bytes: the client left,
        // and the next accept must take a new one rather than read the dead one again.
        pipe.Disconnect();
        return HeartbeatNext::kPause;
    }
    if (got < wire::kHeaderSize) {
        DebugTrace("error: message too short, size=%d at %s %d \n", static_cast<int>(got), __FILE__, __LINE__);
        return HeartbeatNext::kPause;  // not disconnected: the same client is read again
    }
    uint32_t type = wire::DataTypeOf(buffer);
    if (type == wire::RSHEARTBEAT) {
        MakeHeader(buffer, wire::RSHEARTBEAT, 0);
        uint32_t written = 0;
        err = pipe.Write(buffer, static_cast<uint32_t>(wire::kHeaderSize), &written);
        if (err != 0) LogErrorEvent("WriteFile failed to write heartbeat response with error 0x%x\n", err);
        DebugTrace("WriteFile(pipe) wrote %d bytes\n", static_cast<int>(written));
        err = pipe.Flush();
        if (err != 0) DebugTrace("FlushFileBuffers(pipe) failed, error %d\n", static_cast<int>(err));
    } else {
        DebugTrace("Received non-HB packet, ignoring (DataType=%d==0x%lx...\n", static_cast<int>(type),
                   static_cast<unsigned long>(type));
    }
    err = pipe.Disconnect();
    if (err == 0)
        DebugTrace("pipe disconnected\n");
    else
        LogErrorEvent("DisconnectNamedPipe failed with error 0x%x\n", err);
    return HeartbeatNext::kAccept;
}

void recv_events() {
    std::shared_ptr<LocalChannel> pipe;
    {
        std::lock_guard<std::mutex> g(g_heartbeat.mu);
        pipe = g_heartbeat.pipe;
    }
    auto* buffer = static_cast<uint8_t*>(std::malloc(wire::kPacketBufferSize));
    DebugTrace("%s()\n", "recv_events");
    while (buffer && pipe && !g_session.terminating) {
        g_heartbeat.running = 1;
        DebugTrace("pipe connect...\n");
        LocalPeer peer;
        uint32_t err = pipe->Accept(&peer);
        if (err == EACCES) {
            DebugTrace("recv_events: refused a connection from uid %u pid %u\n", peer.uid, peer.pid);
            continue;
        }
        if (err != 0 && err != kAlreadyConnected) {
            if (!g_session.terminating) LogErrorEvent("ConnectNamedPipe failed with error 0x%x", err);
            break;
        }
        if (g_session.terminating) break;
        if (ServeHeartbeatClient(*pipe, buffer, static_cast<uint32_t>(wire::kPacketBufferSize)) ==
                HeartbeatNext::kPause &&
            !g_session.terminating)
            SessionPause(kPauseMs);
    }
    if (g_heartbeat.valid.exchange(false)) {
        DebugTrace("closing pipe handle...\n");
        {
            std::lock_guard<std::mutex> g(g_heartbeat.mu);
            g_heartbeat.pipe.reset();
        }
        pipe.reset();  // the last reference: the socket closes and the name is free again
        DebugTrace("closed pipe handle\n");
    }
    std::free(buffer);
    DebugTrace("recv_events thread exit.\n");
    DebugTrace("%s() out\n", "recv_events");
    NotifyThreadEnded(&g_heartbeat.running);
}

void ResetHeartbeatForTest() {
    {
        std::lock_guard<std::mutex> g(g_heartbeat.mu);
        g_heartbeat.pipe.reset();
    }
    g_heartbeat.valid = false;
    g_heartbeat.listenPort = 0;
    g_heartbeat.running = 0;
}
