#include "proxy/session.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "platform/wstr.h"
#include "proxy/cipher.h"
#include "proxy/heartbeat.h"
#include "proxy/iasocket.h"
#include "proxy/kelvane.h"
#include "proxy/kelvane_conf.h"
#include "proxy/requests.h"
#include "proxy/wire.h"
#include "support/debuglog.h"
#include "support/host_notice.h"
#include "support/lang.h"

SessionState g_session;

namespace {

constexpr int kVersionMismatch = 29;
constexpr int kConnectTries = 10;
constexpr int kThreadWaitSteps = 10;
constexpr uint32_t kThreadWaitStepMs = 1000;

// The provider's threads and the two events of the unload.
struct SessionThreads {
    std::mutex mu;
    std::vector<std::unique_ptr<PlatformThread>> threads;  // handed over, not joined yet
    // Set when the unload begins: every SessionPause ends at once. Made on first use, on the
    // platform of that moment; dropped once the threads are joined.
    std::shared_ptr<PlatformEvent> stop;
    bool stopping = false;
    // ProxyUnInit's wait: set when no running flag is up any more.
    std::shared_ptr<PlatformEvent> ended;
};

// Never destroyed: a host may end its process without unloading the provider, threads running.
SessionThreads& g_threads = *new SessionThreads;

const char* kLostText = "The VDS Provider has lost its connection to the TROV Proxy service.";
const char* kRestoredText = "The VDS Provider has restored its connection to the TROV Proxy service.";

// A session answer that didn't come, or came malformed: the host is told once, and the
// connection is closed (DropConnection with `socketError`), as after a failed command. The
// original keeps the connection, so that what is left of the answer is read as the next one.
int SessionFailure(const char* step, const std::string& why, int32_t socketError) {
    NoteHostFailure("the %s exchange with the proxy service at %s:%u failed (%s)", step, g_session.AgentIP,
                    g_session.Port, why.c_str());
    DropConnection(socketError);
    return -1;
}

// Reads the payload that a whole answer header announces (a short header is judged with the
// answer's kind). `expected`: the length the payload must have, 0 for any. False once the answer
// has failed (SessionFailure done).
bool ReadAnswerPayload(uint8_t* buffer, int n, const char* step, uint32_t expected) {
    if (n != static_cast<int>(wire::kHeaderSize)) return true;
    uint32_t len = wire::DataLenOf(buffer);
    if (len == 0) return true;
    if (len > wire::kPacketBufferSize - wire::kHeaderSize) {  // never past the buffer
        SessionFailure(step, TrovFormatString("an answer of %u bytes, more than the packet buffer holds", len),
                       kMalformedReply);
        return false;
    }
    int got = recvdata(buffer + wire::kHeaderSize, static_cast<int>(len));
    if (got != static_cast<int>(len)) {
        SessionFailure(step,
                       TrovFormatString("the answer's %u bytes of payload did not all come: %s", len,
                                        TransportErrorText(g_transport.LastSocketError.load()).c_str()),
                       0);
        return false;
    }
    if (expected != 0 && len != expected) {
        SessionFailure(step, TrovFormatString("an answer of %u bytes, %u expected", len, expected), kMalformedReply);
        return false;
    }
    return true;
}

// The answer's kind is judged after its payload: a short header, or another DataType or OpCode.
int WrongAnswer(const char* step, int n, uint32_t type, uint32_t op) {
    if (n != static_cast<int>(wire::kHeaderSize))
        return SessionFailure(step, TrovFormatString("an answer header of %d bytes", n), kMalformedReply);
    return SessionFailure(step, TrovFormatString("an answer of DataType %u, OpCode %u", type, op), kMalformedReply);
}

int NoAnswer(const char* step) {
    return SessionFailure(step, TransportErrorText(g_transport.LastSocketError.load()), 0);
}

constexpr const char* kHandshakeStep = "handshake";
constexpr const char* kLoginStep = "login";
constexpr const char* kListenPortStep = "listen-port";

// `step`: "handshake" or "login", for the host's failure line.
int StatusResult(uint32_t status, const char* step) {
    switch (status) {
        case 1:
            return 0;
        case 2:
            HostConsole("unknown user.\n");
            NoteHostFailure("%s refused by the proxy service at %s:%u: unknown user (status 2)", step,
                            g_session.AgentIP, g_session.Port);
            return -1;
        case 5:
            DebugTrace("invalid password.\n");
            NoteHostFailure("%s refused by the proxy service at %s:%u: invalid password (status 5)", step,
                            g_session.AgentIP, g_session.Port);
            return -1;
        default:
            DebugTrace("unknown status.\n");
            NoteHostFailure("%s refused by the proxy service at %s:%u: unknown status %u", step, g_session.AgentIP,
                            g_session.Port, status);
            return -1;
    }
}

// Reads one candidate file; notes in *tried what became of it, for the host's failure line.
bool ReadConfigAt(const std::string& path, ProxyConfig* cfg, std::string* tried) {
    if (!tried->empty()) *tried += "; ";
    if (ReadProxyConfig(path.c_str(), cfg) == 0) {
        *tried += path + " (read)";
        return true;
    }
    *tried += (path.empty() ? std::string("no ConfigurationFile value") : path + ": " + std::strerror(errno));
    return false;
}

// The settings a read left empty or zero, for the host's failure line.
std::string MissingSettings(const ProxyConfig& cfg) {
    std::string m;
    auto add = [&m](const char* name) { m += m.empty() ? name : std::string(", ") + name; };
    if (cfg.version == 0) add("version");
    if (cfg.ipaddress == 0) add("ipaddress");
    if (cfg.username[0] == '\0') add("username");
    if (cfg.password[0] == '\0') add("password");
    if (cfg.port == 0) add("port");
    return m;
}

int ConnectWithRetries() {
    int err = 0;
    for (int i = 0; i < kConnectTries; ++i) {
        if (ConnectProxySocket(g_session.AgentIP, g_session.Port) == 0) return 0;
        err = errno;
    }
    NoteHostFailure("the proxy service at %s:%u cannot be reached: %s", g_session.AgentIP, g_session.Port,
                    std::strerror(err));
    return -1;
}

bool ThreadsRunning() { return recvEventsRunning.load() != 0 || g_session.processEventRunning.load() != 0; }

std::shared_ptr<PlatformEvent> StopEventLocked() {
    if (!g_threads.stop) {
        g_threads.stop = Plat()->CreateEvent();
        if (g_threads.stopping) g_threads.stop->Set();
    }
    return g_threads.stop;
}

// Ends every pause of the provider's threads, now and from now on.
void RequestStop() {
    std::lock_guard<std::mutex> g(g_threads.mu);
    g_threads.stopping = true;
    StopEventLocked()->Set();
}

// A new session: pauses last their full length again.
void ClearStop() {
    std::lock_guard<std::mutex> g(g_threads.mu);
    g_threads.stopping = false;
    g_threads.stop.reset();
}

void JoinSessionThreads() {
    std::vector<std::unique_ptr<PlatformThread>> threads;
    {
        std::lock_guard<std::mutex> g(g_threads.mu);
        threads.swap(g_threads.threads);
    }
    for (auto& t : threads) t->Join();
    // No thread waits on the events any more; they go with the platform they were made on.
    std::lock_guard<std::mutex> g(g_threads.mu);
    g_threads.stop.reset();
    g_threads.ended.reset();
}

// Shuts the TCP connection down without closing it: an exchange blocked in it ends at once, and
// the descriptor's number can't be handed out again while a thread may still use it.
void ShutDownProxySocket() {
    int fd = g_transport.sock.load();
    if (fd > 0) ::shutdown(fd, SHUT_RDWR);
}

}  // namespace

void AdoptSessionThread(std::unique_ptr<PlatformThread> thread) {
    if (!thread) return;
    std::lock_guard<std::mutex> g(g_threads.mu);
    g_threads.threads.push_back(std::move(thread));
}

bool SessionPause(uint32_t ms) {
    std::shared_ptr<PlatformEvent> stop;
    {
        std::lock_guard<std::mutex> g(g_threads.mu);
        stop = StopEventLocked();
    }
    return stop->Wait(ms);
}

int SessionThreadCount() {
    std::lock_guard<std::mutex> g(g_threads.mu);
    return static_cast<int>(g_threads.threads.size());
}

void NotifyThreadEnded(std::atomic<int>* runningFlag) {
    std::lock_guard<std::mutex> g(g_threads.mu);
    // The flag goes down under the lock, so a waiter that sees it down finds the event set.
    if (runningFlag) *runningFlag = 0;
    if (g_threads.ended && !ThreadsRunning()) g_threads.ended->Set();
}

namespace {
// The size of a session packet P, and its DataLen.
template <class P>
constexpr int PacketSize() {
    return static_cast<int>(sizeof(P));
}
template <class P>
constexpr uint32_t PayloadSize() {
    return static_cast<uint32_t>(sizeof(P) - wire::kHeaderSize);
}
}  // namespace

int Handshake(uint8_t* buffer) {
    auto* q = reinterpret_cast<req::Handshake*>(buffer);
    MakeHeader(buffer, wire::RSSESSION, req::kHandshakeOp);
    std::memcpy(q->word, "qvemid", sizeof q->word);
    q->header.dataLen = PayloadSize<req::Handshake>();
    int n = exec_cmnd(buffer, PacketSize<req::Handshake>(), buffer, static_cast<int>(wire::kHeaderSize));
    if (n <= 0) return NoAnswer(kHandshakeStep);
    if (!ReadAnswerPayload(buffer, n, kHandshakeStep, PayloadSize<req::HandshakeAnswer>())) return -1;
    uint32_t type = wire::DataTypeOf(buffer), op = wire::OpCodeOf(buffer);
    if (n != static_cast<int>(wire::kHeaderSize) || type != wire::RSSESSION || op != req::kHandshakeAnswerOp)
        return WrongAnswer(kHandshakeStep, n, type, op);
    const auto* a = reinterpret_cast<const req::HandshakeAnswer*>(buffer);
    uint32_t versionStatus = a->versionStatus;
    g_session.HandshakeToken = a->handshakeToken;
    if (((versionStatus >> 8) & 0xFF) != 5) {
        NoteHostFailure("the proxy service at %s:%u speaks protocol version %u; this provider needs version 5",
                        g_session.AgentIP, g_session.Port, (versionStatus >> 8) & 0xFF);
        return kVersionMismatch;
    }
    return StatusResult(versionStatus & 0xFF, "handshake");
}

int Login(uint8_t* buffer) {
    auto* q = reinterpret_cast<req::Login*>(buffer);
    MakeHeader(buffer, wire::RSSESSION, req::kLoginOp);
    std::memset(buffer + wire::kHeaderSize, 0, PayloadSize<req::Login>());
    static_assert(sizeof q->userName == sizeof g_session.UserName && sizeof q->password == sizeof g_session.Password);
    std::memcpy(q->userName, g_session.UserName, sizeof q->userName);
    std::memcpy(q->password, g_session.Password, sizeof q->password);
    EncipherPasswordField(q->password);
    q->passwordLength = static_cast<uint8_t>(g_session.PasswordLength & 0xFF);
    q->handshakeToken = g_session.HandshakeToken;
    q->header.dataLen = PayloadSize<req::Login>();
    int n = exec_cmnd(buffer, PacketSize<req::Login>(), buffer, static_cast<int>(wire::kHeaderSize));
    if (n <= 0) return NoAnswer(kLoginStep);
    if (!ReadAnswerPayload(buffer, n, kLoginStep, PayloadSize<req::LoginAnswer>())) return -1;
    uint32_t type = wire::DataTypeOf(buffer), op = wire::OpCodeOf(buffer);
    if (type != wire::RSSESSION || op != req::kLoginAnswerOp) {
        HostConsole(TrovFormatString("datatype = %d   opcode = %d\n", static_cast<int>(type), static_cast<int>(op)).c_str());
        return WrongAnswer(kLoginStep, n, type, op);
    }
    if (n != static_cast<int>(wire::kHeaderSize)) return WrongAnswer(kLoginStep, n, type, op);
    const auto* a = reinterpret_cast<const req::LoginAnswer*>(buffer);
    uint32_t status = a->status;
    if (status == 1) {
        g_transport.SessionKey = a->sessionKey;
        return 0;
    }
    return StatusResult(status, "login");
}

int negotiate_listen_port(uint8_t* buffer) {
    auto* q = reinterpret_cast<req::ListenPort*>(buffer);
    MakeHeader(buffer, wire::RSSESSION, req::kListenPortOp);
    q->port = ListenPort();
    q->header.dataLen = PayloadSize<req::ListenPort>();
    int n = exec_cmnd(buffer, PacketSize<req::ListenPort>(), buffer, static_cast<int>(wire::kHeaderSize));
    if (n <= 0) return NoAnswer(kListenPortStep);
    if (!ReadAnswerPayload(buffer, n, kListenPortStep, 0)) return -1;  // a payload is read and ignored
    uint32_t type = wire::DataTypeOf(buffer), op = wire::OpCodeOf(buffer);
    if (type == wire::RSSESSION && op == req::kListenPortAnswerOp) {
        if (n != static_cast<int>(wire::kHeaderSize)) return WrongAnswer(kListenPortStep, n, type, op);
        return 0;
    }
    HostConsole(TrovFormatString("datatype = %d   opcode = %d\n", static_cast<int>(type), static_cast<int>(op)).c_str());
    return WrongAnswer(kListenPortStep, n, type, op);
}

int ProxyLogin() {
    uint8_t* buffer = g_transport.PacketBuffer;
    int rc = Handshake(buffer);
    if (rc == kVersionMismatch)
        DebugTrace("Version incompatibility! The version of the kelvane and the vds provider must match.\n");
    if (rc != 0) return rc;
    rc = Login(buffer);
    if (rc != 0) return rc;
    return negotiate_listen_port(buffer);
}

int ProxyConnect() {
    g_session.terminating = 0;
    ClearStop();
    g_transport.sock = 0;
    if (!AllocatePacketBuffer()) return -1;

    ProxyConfig cfg{};
    std::string tried;
    if (!ReadConfigAt(Plat()->SystemDirectory() + "/kelvane.conf", &cfg, &tried)) {
        std::string path;
        if (!Plat()->KeyExists(KELVANE_PARAMETERS_KEY)) {
            DebugTrace("Could not open the registry key:%S\n", AsciiToWide(KELVANE_PARAMETERS_KEY).c_str());
        } else {
            std::u16string value;
            if (Plat()->ReadStringValue(KELVANE_PARAMETERS_KEY, "ConfigurationFile", &value))
                path = WideToUtf8(value);
            else
                DebugTrace("Could not get the registry key 'ConfigurationFile' value\n");
        }
        if (!ReadConfigAt(path, &cfg, &tried))
            ReadConfigAt(Plat()->SecondSystemDirectory() + "/kelvane.conf", &cfg, &tried);
    }
    if (!ProxyConfigComplete(cfg)) {
        DebugTrace("Read proxy confige file failed!\n");
        NoteHostFailure("no usable kelvane.conf (missing or empty: %s): %s", MissingSettings(cfg).c_str(),
                        tried.c_str());
        return -1;
    }
    in_addr a{};
    a.s_addr = cfg.ipaddress;
    std::snprintf(g_session.AgentIP, sizeof g_session.AgentIP, "%s", inet_ntoa(a));
    std::memcpy(g_session.UserName, cfg.username, sizeof g_session.UserName);
    std::memcpy(g_session.Password, cfg.password, sizeof g_session.Password);
    g_session.PasswordLength = static_cast<uint32_t>(strnlen(cfg.password, sizeof cfg.password));
    g_session.Port = cfg.port;
    DebugTrace("AgentIP = %s\n", g_session.AgentIP);
    DebugTrace("UserName = %s\n", std::string(g_session.UserName, strnlen(g_session.UserName, 32)).c_str());
    DebugTrace("Proxy Listen Port = %d\n", static_cast<int>(g_session.Port));

    if (create_listen() != 0) return -1;
    DebugTrace("Connecting to %s ... \n", g_session.AgentIP);
    if (ConnectWithRetries() != 0) return -1;  // the heartbeat channel and its thread remain
    DebugTrace("Success!\n");
    // A library loaded into a host installs no signal handlers of its own: SIGINT and SIGTERM
    // belong to the host. sig_action stays the function that ProxyUnInit calls.
    return ProxyLogin();
}

int ProxyReconnect() {
    if (g_session.terminating) return -1;
    uint8_t* buffer = g_transport.PacketBuffer;
    if (!buffer) return -1;
    int err = g_transport.sock.load() > 0 ? Handshake(buffer) : -1;
    if (err == 0) return 0;
    DebugTrace("Reconnecting... (handshake returned err %d)\n", err);
    if (!g_session.LostConnectionLogged.exchange(true)) LogWarningEvent("%s", TranslateEventText(kLostText));
    int rc = -1;
    for (int i = 0; i < kConnectTries && rc != 0; ++i) {
        CloseProxySocket(-1);
        rc = ConnectProxySocket(g_session.AgentIP, g_session.Port);
    }
    if (rc != 0) {
        DebugTrace("reconnect failed (err %d)\n", rc);
        return rc;
    }
    rc = Handshake(buffer);
    if (rc != 0) {
        DebugTrace("Reconnect failed (err %d)\n", rc);
        if (rc == kVersionMismatch)
            DebugTrace("Version incompatibility! The version of the kelvane and the vds provider must match.\n");
        return rc;
    }
    rc = Login(buffer);
    if (rc != 0) {
        DebugTrace("Reconnect login failed (err %d)\n", rc);
        return rc;
    }
    rc = negotiate_listen_port(buffer);
    if (rc != 0) DebugTrace("Reconnect negotiate_listen_port failed (err %d)\n", rc);
    LogInfoEvent("%s", TranslateEventText(kRestoredText));
    return rc;
}

void sig_action(int signal) {
    g_session.terminating = 1;
    DebugTrace("sig_action %d\n", signal);
}

void shut() {
    DebugTrace("shut()\n");
    uint8_t* buffer = g_transport.PacketBuffer;
    if (buffer && g_transport.sock.load() > 0) {
        // The original sends its goodbye at once, also into an exchange that a monitor pass has
        // in flight, the two sharing the packet buffer. We send it only while no exchange holds
        // the line; otherwise the shutdown below cuts that exchange short, and the service sees
        // the connection end without the goodbye.
        if (Plat()->TryWaitMutex(hVdsMutex)) {
            MakeHeader(buffer, wire::RSSESSION, req::kGoodbyeOp);
            exec_cmnd(buffer, PacketSize<req::Goodbye>(), buffer, static_cast<int>(wire::kHeaderSize));
            if (hVdsMutex) Plat()->ReleaseMutex(hVdsMutex);
        } else {
            DebugTrace("shut(): an exchange is in progress, no goodbye\n");
        }
    }
    // Closed by ProxyUnInit once the threads are joined.
    ShutDownProxySocket();
}

void ProxyUnInit() {
    DebugTrace("ProxyUnInit enter\n");
    sig_action(-1);
    RequestStop();
    shut();
    if (ListenerValid()) delete_listener();
    DebugTrace("waiting for threads to complete\n");
    std::shared_ptr<PlatformEvent> ended;
    {
        std::lock_guard<std::mutex> g(g_threads.mu);
        g_threads.ended = Plat()->CreateEvent();
        if (!ThreadsRunning()) g_threads.ended->Set();
        ended = g_threads.ended;
    }
    // Up to ten seconds in steps of one, on the Platform clock. A step ends as soon as the
    // threads have ended (they set the event), so a clean stop costs no wait.
    bool done = ended->IsSet();
    for (int count = kThreadWaitSteps; !done;) {
        done = ended->Wait(kThreadWaitStepMs);
        if (done || --count == 0) break;
    }
    if (!done)
        DebugTrace("timed out waiting for threads to finish: recv_events=%d process_event=%d\n",
                   recvEventsRunning.load(), g_session.processEventRunning.load());
    // The original frees the buffer under threads that may still run. Every wait of ours ends
    // at the stop event or the shutdown of its channel, so the join follows soon after.
    JoinSessionThreads();
    CloseProxySocket(0);
    FreePacketBuffer();
    DebugTrace("ProxyUnInit leave\n");
}

void ResetSessionForTest() {
    // Threads of an earlier test that never unloaded: woken and joined before anything goes.
    if (SessionThreadCount() > 0) {
        g_session.terminating = 1;
        RequestStop();
        ShutDownProxySocket();
        if (ListenerValid()) delete_listener();
        JoinSessionThreads();
    }
    ClearStop();
    {
        std::lock_guard<std::mutex> g(g_threads.mu);
        g_threads.ended.reset();
    }
    g_session.terminating = 0;
    g_session.HandshakeToken = 0;
    g_session.LostConnectionLogged = false;
    g_session.processEventRunning = 0;
    std::memset(g_session.AgentIP, 0, sizeof g_session.AgentIP);
    std::memset(g_session.UserName, 0, sizeof g_session.UserName);
    std::memset(g_session.Password, 0, sizeof g_session.Password);
    g_session.PasswordLength = 0;
    g_session.Port = 0;
    ResetHeartbeatForTest();
    ResetTransportForTest();
}
