#include "proxy/heartbeat.h"

#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/platform.h"
#include "platform/wstr.h"
#include "proxy/iasocket.h"
#include "proxy/session.h"
#include "proxy/wire.h"
#include "support/debuglog.h"

std::atomic<int> recvEventsRunning{0};

namespace {

std::mutex g_pipeMu;
std::shared_ptr<LocalChannel> g_pipe;  // shared with the thread, which closes it at its end
std::atomic<bool> g_pipeValid{false};
std::atomic<uint16_t> g_listenPort{0};

void PauseUnlessTerminating() {
    if (!g_session.terminating) Plat()->Sleep(5000);
}

std::u16string ShownName(const std::string& name) {
    // On Linux the channel lives in the abstract namespace; its name is shown with the '@' that
    // tools such as ss use for it.
    return AsciiToWide(("@" + name).c_str());
}

}  // namespace

uint16_t ListenPort() { return g_listenPort; }

std::string ListenerName() {
    g_listenPort = static_cast<uint16_t>(Plat()->ProcessId() & 0xFFFF);
    return "TROV_Proxy_" + std::to_string(g_listenPort.load());
}

bool ListenerValid() { return g_pipeValid; }

int create_listen() {
    DebugTrace("%s()\n", "create_listen");
    std::string name = ListenerName();
    DebugTrace("create_listen: creating named pipe %S\n", ShownName(name).c_str());
    uint32_t err = 0;
    std::unique_ptr<LocalChannel> ch = Plat()->CreateLocalChannel(name, LocalChannelPolicy{}, &err);
    if (!ch) {
        LogErrorEvent("CreateNamedPipe failed with error 0x%x", err);
        return err ? static_cast<int>(err) : -1;
    }
    {
        std::lock_guard<std::mutex> g(g_pipeMu);
        g_pipe = std::move(ch);
    }
    g_pipeValid = true;
    DebugTrace("starting recv_events thread\n");
    // Set before the start, so that a shutdown right after this can't miss the thread.
    recvEventsRunning = 1;
    std::thread(recv_events).detach();
    return 0;
}

void delete_listener() {
    DebugTrace("%s()\n", "delete_listener");
    std::string name = ListenerName();
    DebugTrace("delete_listener: deleting named pipe %S\n", ShownName(name).c_str());
    // An abstract name goes with its socket: shutting the channel down removes it from use and
    // wakes the thread blocked in its accept, so that the thread ends at once.
    std::shared_ptr<LocalChannel> ch;
    {
        std::lock_guard<std::mutex> g(g_pipeMu);
        ch = g_pipe;
    }
    if (ch) ch->Shutdown();
    DebugTrace("%s() out\n", "delete_listener");
}

void recv_events() {
    std::shared_ptr<LocalChannel> pipe;
    {
        std::lock_guard<std::mutex> g(g_pipeMu);
        pipe = g_pipe;
    }
    auto* buffer = static_cast<uint8_t*>(std::malloc(wire::kPacketBufferSize));
    DebugTrace("%s()\n", "recv_events");
    while (buffer && pipe && !g_session.terminating) {
        recvEventsRunning = 1;
        DebugTrace("pipe connect...\n");
        uint32_t err = pipe->Accept();
        if (err != 0 && err != 535) {
            if (!g_session.terminating) LogErrorEvent("ConnectNamedPipe failed with error 0x%x", err);
            break;
        }
        if (g_session.terminating) break;
        DebugTrace("pipe read...\n");
        uint32_t got = 0;
        err = pipe->Read(buffer, static_cast<uint32_t>(wire::kPacketBufferSize), &got);
        if (err != 0) {
            LogErrorEvent("ReadFile failed to read packet header error 0x%x", err);
            PauseUnlessTerminating();
            continue;
        }
        uint32_t dataLen = got >= wire::kHeaderSize ? wire::DataLenOf(buffer) : 0;
        DebugTrace("pipe read %d bytes, DataLen=%d\n", static_cast<int>(got), static_cast<int>(dataLen));
        if (got == wire::kHeaderSize && dataLen != 0) {
            // Never past the buffer, whatever the peer announces.
            uint32_t want = dataLen <= wire::kPacketBufferSize - wire::kHeaderSize
                                ? dataLen
                                : static_cast<uint32_t>(wire::kPacketBufferSize - wire::kHeaderSize);
            uint32_t more = 0;
            err = pipe->Read(buffer + wire::kHeaderSize, want, &more);
            if (err != 0) {
                LogErrorEvent("ReadFile failed to read additional data with error 0x%x\n", err);
                PauseUnlessTerminating();
                continue;
            }
            got += more;
            DebugTrace("pipe read %d ADDITIONAL bytes, DataLen=%d read=%d\n", static_cast<int>(more),
                       static_cast<int>(dataLen), static_cast<int>(got));
        }
        if (got == 0) {
            DebugTrace("error: size=%d at %s %d \n", 0, __FILE__, __LINE__);
            // On a stream socket nothing more comes once a read gives 0 bytes: the client left,
            // and the next accept must take a new one rather than read the dead one again.
            pipe->Disconnect();
            PauseUnlessTerminating();
            continue;
        }
        if (got < wire::kHeaderSize) {
            DebugTrace("error: message too short, size=%d at %s %d \n", static_cast<int>(got), __FILE__, __LINE__);
            PauseUnlessTerminating();
            continue;
        }
        uint32_t type = wire::DataTypeOf(buffer);
        if (type == wire::RSHEARTBEAT) {
            MakeHeader(buffer, wire::RSHEARTBEAT, 0);
            uint32_t written = 0;
            err = pipe->Write(buffer, static_cast<uint32_t>(wire::kHeaderSize), &written);
            if (err != 0) LogErrorEvent("WriteFile failed to write heartbeat response with error 0x%x\n", err);
            DebugTrace("WriteFile(pipe) wrote %d bytes\n", static_cast<int>(written));
            err = pipe->Flush();
            if (err != 0) DebugTrace("FlushFileBuffers(pipe) failed, error %d\n", static_cast<int>(err));
        } else {
            DebugTrace("Received non-HB packet, ignoring (DataType=%d==0x%lx...\n", static_cast<int>(type),
                       static_cast<unsigned long>(type));
        }
        err = pipe->Disconnect();
        if (err == 0)
            DebugTrace("pipe disconnected\n");
        else
            LogErrorEvent("DisconnectNamedPipe failed with error 0x%x\n", err);
    }
    if (g_pipeValid.exchange(false)) {
        DebugTrace("closing pipe handle...\n");
        {
            std::lock_guard<std::mutex> g(g_pipeMu);
            g_pipe.reset();
        }
        pipe.reset();  // the last reference: the socket closes and the name is free again
        DebugTrace("closed pipe handle\n");
    }
    std::free(buffer);
    DebugTrace("recv_events thread exit.\n");
    DebugTrace("%s() out\n", "recv_events");
    // The last thing the thread does: once the flag is down the process may end its platform.
    NotifyThreadEnded(&recvEventsRunning);
}
