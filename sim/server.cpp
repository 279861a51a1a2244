// The network side of the emulator: listener, one thread per connection, the session exchanges,
// the heartbeat client and the faults.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>

#include "proxy/cipher.h"
#include "proxy/wire.h"
#include "sim/commands.h"
#include "sim/encode.h"
#include "sim/iscsi_service.h"
#include "sim/sim.h"

namespace trovsim {

namespace {

std::string Format(const char* fmt, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

bool RecvAll(int fd, uint8_t* p, size_t n) {
    size_t got = 0;
    while (got < n) {
        ssize_t r = ::recv(fd, p + got, n - got, 0);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        got += static_cast<size_t>(r);
    }
    return true;
}

bool SendVec(int fd, const void* a, size_t an, const void* b, size_t bn) {
    iovec iov[2] = {{const_cast<void*>(a), an}, {const_cast<void*>(b), bn}};
    int cnt = bn ? 2 : 1;
    iovec* v = iov;
    while (cnt > 0) {
        msghdr msg{};
        msg.msg_iov = v;
        msg.msg_iovlen = static_cast<size_t>(cnt);
        ssize_t w = ::sendmsg(fd, &msg, MSG_NOSIGNAL);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        size_t left = static_cast<size_t>(w);
        while (cnt > 0 && left >= v->iov_len) {
            left -= v->iov_len;
            ++v;
            --cnt;
        }
        if (cnt > 0) {
            v->iov_base = static_cast<uint8_t*>(v->iov_base) + left;
            v->iov_len -= left;
        }
    }
    return true;
}

std::string CText(const uint8_t* p, size_t width) {
    size_t n = 0;
    while (n < width && p[n]) ++n;
    return std::string(reinterpret_cast<const char*>(p), n);
}

}  // namespace

struct Server::Conn {
    int fd = -1;
    int number = 0;
    std::thread thread;
    std::atomic<bool> done{false};
    uint32_t token = 0;
    uint32_t sessionKey = 0;
    bool loggedIn = false;
    int listenPort = -1;
    uint64_t nextHeartbeat = 0;
    std::vector<uint8_t> out;  // the reply buffer, made at the first command
};

Server::Server(Options options) : opt_(std::move(options)), clock_(opt_.manualClock) {
    encoder_ = std::make_unique<Encoder>(model_);
    commands_ = std::make_unique<Commands>(model_, *encoder_);
    randState_ = 0x9E3779B97F4A7C15ull ^ opt_.seed;
}

Server::~Server() { Stop(); }

void Server::LogLine(const std::string& line) const {
    if (opt_.logSink) {
        opt_.logSink(line);
        return;
    }
    std::string text = "[trovproxy-sim] " + line + "\n";
    std::fwrite(text.data(), 1, text.size(), stderr);
}

uint32_t Server::Random() {
    std::lock_guard<std::mutex> g(randMu_);
    randState_ ^= randState_ >> 12;
    randState_ ^= randState_ << 25;
    randState_ ^= randState_ >> 27;
    return static_cast<uint32_t>((randState_ * 2685821657736338717ull) >> 32);
}

bool Server::LoadScenario(const std::string& nameOrFile, std::string* error) {
    std::lock_guard<std::mutex> g(mu_);
    bool ok;
    if (!opt_.stateFile.empty() && ::access(opt_.stateFile.c_str(), R_OK) == 0) {
        ok = model_.LoadFile(opt_.stateFile, error);
        if (ok) LogLine("state loaded from " + opt_.stateFile);
    } else if (nameOrFile == "demo" || nameOrFile == "max") {
        ok = model_.LoadBuiltin(nameOrFile, error);
    } else {
        ok = model_.LoadFile(nameOrFile, error);
    }
    if (!ok) return false;
    encoder_->Clear();
    modelOffset_ = static_cast<int64_t>(model_.now()) - static_cast<int64_t>(clock_.NowMs());
    savedChanges_ = 0;  // the first change, or an explicit save, writes the state file
    if (!opt_.stateFile.empty()) {
        std::string err;
        if (!model_.SaveFile(opt_.stateFile, &err)) LogLine("cannot save the state: " + err);
        savedChanges_ = model_.changes();
    }
    return true;
}

void Server::SyncTimeLocked() {
    int64_t t = static_cast<int64_t>(clock_.NowMs()) + modelOffset_;
    model_.AdvanceTo(t > 0 ? static_cast<uint64_t>(t) : 0);
}

void Server::AfterChangeLocked() {
    if (iscsi_ && model_.changes() != pokedChanges_) {
        pokedChanges_ = model_.changes();
        iscsi_->Poke();
    }
    if (opt_.stateFile.empty() || model_.changes() == savedChanges_) return;
    std::string err;
    if (!model_.SaveFile(opt_.stateFile, &err)) LogLine("cannot save the state: " + err);
    savedChanges_ = model_.changes();
}

void Server::AdvanceTime(uint64_t ms) {
    clock_.Advance(ms);
    std::lock_guard<std::mutex> g(mu_);
    SyncTimeLocked();
    AfterChangeLocked();
}

// ---------------------------------------------------------------------------------------------
// Listener and lifecycle

bool Server::OpenListener(std::string* error) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        if (error) *error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port_);
    if (::inet_pton(AF_INET, opt_.bindAddress.c_str(), &addr.sin_addr) != 1) {
        if (error) *error = "bad bind address " + opt_.bindAddress;
        ::close(fd);
        return false;
    }
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 16) != 0) {
        if (error) *error = Format("cannot listen on %s:%u: %s", opt_.bindAddress.c_str(), port_, std::strerror(errno));
        ::close(fd);
        return false;
    }
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    listenFd_ = fd;
    return true;
}

void Server::CloseListener() {
    if (listenFd_ >= 0) {
        ::close(listenFd_);
        listenFd_ = -1;
    }
}

bool Server::Start(std::string* error) {
    if (running_) return true;
    {
        std::lock_guard<std::mutex> g(mu_);
        if (model_.subsystems().empty()) {
            if (error) *error = "no scenario loaded";
            return false;
        }
    }
    if (port_ == 0) port_ = opt_.port;
    if (!opt_.iscsiPortal.empty() && !StartIscsi(error)) return false;
    if (!OpenListener(error)) {
        StopIscsi();
        return false;
    }
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    stopping_ = false;
    refusing_ = false;
    clock_.Resume();
    running_ = true;
    acceptThread_ = std::thread([this] { AcceptLoop(); });
    heartbeatThread_ = std::thread([this] { HeartbeatLoop(); });
    LogLine(Format("listening on %s:%u", opt_.bindAddress.c_str(), port_));
    return true;
}

void Server::Stop() {
    if (!running_) return;
    stopping_ = true;
    clock_.Interrupt();
    uint64_t one = 1;
    if (wakeFd_ >= 0) (void)!::write(wakeFd_, &one, sizeof one);
    if (acceptThread_.joinable()) acceptThread_.join();
    if (heartbeatThread_.joinable()) heartbeatThread_.join();
    std::vector<std::shared_ptr<Conn>> conns;
    {
        std::lock_guard<std::mutex> g(connMu_);
        conns.swap(conns_);
    }
    {
        std::lock_guard<std::mutex> g(connMu_);
        for (auto& c : conns)
            if (c->fd >= 0) ::shutdown(c->fd, SHUT_RDWR);
    }
    for (auto& c : conns)
        if (c->thread.joinable()) c->thread.join();
    for (auto& c : conns)
        if (c->fd >= 0) ::close(c->fd);
    CloseListener();
    if (wakeFd_ >= 0) ::close(wakeFd_);
    wakeFd_ = -1;
    running_ = false;
    refusing_ = false;
    StopIscsi();
    LogLine("stopped");
}

bool Server::StartIscsi(std::string* error) {
    std::vector<Endpoint> portals;
    bool loopback = opt_.iscsiPortal.rfind("loopback:", 0) == 0;
    if (loopback) {
        Endpoint e;
        if (!ParseEndpoint("127.0.0.1:" + opt_.iscsiPortal.substr(9), &e)) {
            if (error) *error = "bad iSCSI portal " + opt_.iscsiPortal + " (ADDR:PORT or loopback:PORT)";
            return false;
        }
        std::lock_guard<std::mutex> g(mu_);
        for (const std::string& text : MapPortsToLoopback(model_, e.port)) {
            Endpoint p;
            if (ParseEndpoint(text, &p)) portals.push_back(p);
        }
        AfterChangeLocked();
    } else {
        Endpoint e;
        if (!ParseEndpoint(opt_.iscsiPortal, &e)) {
            if (error) *error = "bad iSCSI portal " + opt_.iscsiPortal + " (ADDR:PORT or loopback:PORT)";
            return false;
        }
        portals.push_back(e);
    }
    IscsiServiceOptions so;
    so.folder = !opt_.iscsiFolder.empty() ? opt_.iscsiFolder : opt_.stateFile.empty() ? "" : opt_.stateFile + ".iscsi";
    so.tgtd = opt_.tgtdPath;
    so.tgtadm = opt_.tgtadmPath;
    so.syncMs = opt_.iscsiSyncMs;
    so.log = [this](const std::string& line) { LogLine(line); };
    // Without the loopback map, discovery names the portal the initiator used.
    auto plan = [this, loopback](uint64_t* generation) {
        std::lock_guard<std::mutex> g(mu_);
        SyncTimeLocked();
        AfterChangeLocked();
        *generation = model_.changes();
        return PlanIscsi(model_, loopback);
    };
    auto service = std::make_unique<IscsiService>(so, plan);
    if (!service->Start(portals, error)) return false;
    std::lock_guard<std::mutex> g(mu_);
    iscsi_ = std::move(service);
    return true;
}

void Server::StopIscsi() {
    std::unique_ptr<IscsiService> service;
    {
        // Out from under the lock first: its thread takes the lock to read the model.
        std::lock_guard<std::mutex> g(mu_);
        service = std::move(iscsi_);
    }
    if (service) service->Stop();
}

bool Server::IscsiWaitInStep(uint32_t ms) {
    uint64_t generation;
    IscsiService* service;
    {
        std::lock_guard<std::mutex> g(mu_);
        SyncTimeLocked();
        AfterChangeLocked();
        generation = model_.changes();
        service = iscsi_.get();
    }
    return service && service->WaitInStep(generation, ms);
}

bool Server::Restart(std::string* error) {
    Stop();
    return Start(error);
}

void Server::RefuseConnections(uint64_t ms) {
    refuseUntil_ = clock_.NowMs() + ms;
    refusing_ = true;
    uint64_t one = 1;
    if (wakeFd_ >= 0) (void)!::write(wakeFd_, &one, sizeof one);
    // Wait until the accept loop has closed the listener, so that connects are refused from now.
    for (int i = 0; i < 2000 && running_; ++i) {
        {
            std::lock_guard<std::mutex> g(connMu_);
            if (listenFd_ < 0) return;
        }
        ::usleep(1000);
    }
}

void Server::AcceptLoop() {
    while (!stopping_) {
        if (refusing_) {
            {
                std::lock_guard<std::mutex> g(connMu_);
                CloseListener();
            }
            LogLine(Format("refusing connections until %llu ms", static_cast<unsigned long long>(refuseUntil_.load())));
            if (!clock_.WaitUntil(refuseUntil_)) break;
            std::string err;
            bool ok;
            {
                std::lock_guard<std::mutex> g(connMu_);
                ok = OpenListener(&err);
            }
            if (!ok) {
                LogLine("cannot listen again: " + err);
                break;
            }
            refusing_ = false;
            LogLine(Format("accepting connections again on port %u", port_));
            continue;
        }
        pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
        int n = ::poll(fds, 2, -1);
        if (n < 0 && errno != EINTR) break;
        if (fds[1].revents) {
            uint64_t v;
            (void)!::read(wakeFd_, &v, sizeof v);
            continue;
        }
        if (!(fds[0].revents & POLLIN)) continue;
        int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        auto c = std::make_shared<Conn>();
        c->fd = fd;
        std::lock_guard<std::mutex> g(connMu_);
        // Reap the connections that have ended.
        for (auto it = conns_.begin(); it != conns_.end();) {
            if ((*it)->done) {
                if ((*it)->thread.joinable()) (*it)->thread.join();
                it = conns_.erase(it);
            } else {
                ++it;
            }
        }
        c->number = static_cast<int>(++stats_.connections);
        conns_.push_back(c);
        c->thread = std::thread([this, c] { Serve(c); });
    }
}

// ---------------------------------------------------------------------------------------------
// One connection

void Server::Serve(std::shared_ptr<Conn> c) {
    LogLine(Format("conn %d: connected", c->number));
    std::vector<uint8_t> in(wire::kPacketBufferSize);
    while (!stopping_) {
        if (!RecvAll(c->fd, in.data(), wire::kHeaderSize)) break;
        uint32_t dataLen = wire::DataLenOf(in.data());
        if (!wire::MagicOk(in.data())) {
            // Not our framing: nothing after it can be trusted to line up.
            {
                std::lock_guard<std::mutex> g(connMu_);
                ++stats_.badMagic;
            }
            LogLine(Format("conn %d: packet with a wrong magic (DataType %u, OpCode %u)%s", c->number,
                           wire::DataTypeOf(in.data()), wire::OpCodeOf(in.data()),
                           opt_.closeOnBadMagic ? ", closing" : ", served all the same"));
            if (opt_.closeOnBadMagic) break;
        }
        if (dataLen > wire::kPacketBufferSize - wire::kHeaderSize) {
            {
                std::lock_guard<std::mutex> g(connMu_);
                ++stats_.badDataLen;
            }
            LogLine(Format("conn %d: DataLen %u is larger than any packet, closing", c->number, dataLen));
            break;
        }
        if (dataLen && !RecvAll(c->fd, in.data() + wire::kHeaderSize, dataLen)) break;
        // The check value: the client's key at the time, which may be 0 (before a login) or a key
        // of an earlier session (the first packets of a reconnect). A mismatch is logged and the
        // packet served: the client never checks ours either, and nothing depends on it.
        uint32_t seq = wire::SeqNumOf(in.data()), cv = wire::CheckValueOf(in.data());
        bool cvOk = cv == wire::CheckValue(seq, c->sessionKey) || cv == wire::CheckValue(seq, 0);
        if (!cvOk) {
            std::lock_guard<std::mutex> g(connMu_);
            for (uint32_t k : issuedKeys_) cvOk |= cv == wire::CheckValue(seq, k);
            if (!cvOk) ++stats_.badCheckValue;
        }
        if (!cvOk)
            LogLine(Format("conn %d: wrong check value 0x%08x for sequence %u, served all the same", c->number, cv, seq));
        uint32_t type = wire::DataTypeOf(in.data());
        bool keep;
        if (type == wire::RSSESSION) {
            keep = HandleSession(*c, in.data(), wire::kHeaderSize + dataLen);
        } else if (type == wire::RSREQUEST) {
            keep = HandleCommand(*c, in.data(), wire::kHeaderSize + dataLen);
        } else {
            {
                std::lock_guard<std::mutex> g(connMu_);
                ++stats_.unexpectedPackets;
            }
            LogLine(Format("conn %d: packet of DataType %u on the command connection, closing", c->number, type));
            keep = false;
        }
        if (!keep) break;
    }
    {
        // Closed here rather than at the next accept, so that an idle emulator holds no
        // descriptor of a session that has ended.
        std::lock_guard<std::mutex> g(connMu_);
        c->listenPort = -1;  // no more heartbeats for a session that ended
        ::shutdown(c->fd, SHUT_RDWR);
        ::close(c->fd);
        c->fd = -1;
    }
    LogLine(Format("conn %d: closed", c->number));
    c->done = true;
}

bool Server::SendAll(Conn& c, const void* p, size_t n) { return SendVec(c.fd, p, n, nullptr, 0); }

bool Server::HandleSession(Conn& c, const uint8_t* pkt, uint32_t len) {
    uint32_t op = wire::OpCodeOf(pkt);
    uint32_t payload = len - static_cast<uint32_t>(wire::kHeaderSize);
    const uint8_t* body = pkt + wire::kHeaderSize;
    uint8_t out[wire::kHeaderSize + 12] = {};
    SessionFaults sf;
    {
        std::lock_guard<std::mutex> g(connMu_);
        sf = sessionFaults_;
    }
    switch (op) {
    case 1: {  // handshake
        bool wordOk = payload == 6 && std::memcmp(body, "qvemid", 6) == 0;
        uint32_t token = Random() | 1;
        uint32_t version = sf.handshakeVersion >= 0 ? static_cast<uint32_t>(sf.handshakeVersion) : 5;
        uint32_t status = sf.handshakeStatus >= 0 ? static_cast<uint32_t>(sf.handshakeStatus) : (wordOk ? 1 : 0);
        {
            std::lock_guard<std::mutex> g(connMu_);
            c.token = token;
            stats_.lastToken = token;
        }
        wire::FillHeader(out, NextSeq(), c.sessionKey, wire::RSSESSION, 2, 8);
        wire::StoreBe32(out + 36, (version & 0xFF) << 8 | (status & 0xFF));
        wire::StoreBe32(out + 40, token);
        LogLine(Format("conn %d: handshake%s -> version %u status %u token 0x%08x", c.number,
                       wordOk ? "" : " with an unknown word", version, status, token));
        return SendAll(c, out, 44);
    }
    case 3: {  // login
        uint32_t status;
        std::string user;
        if (payload < 88) {
            status = 0;
            LogLine(Format("conn %d: login record of %u bytes, too short", c.number, payload));
        } else {
            user = CText(body, 32);
            uint8_t expected[48] = {};
            std::memcpy(expected, opt_.password.data(), std::min<size_t>(opt_.password.size(), 48));
            EncipherPasswordField(expected);
            uint8_t lengthByte = static_cast<uint8_t>(opt_.password.size());
            uint32_t token = wire::LoadBe32(body + 84);
            if (user != opt_.user) status = 2;
            else if (std::memcmp(body + 32, expected, 48) != 0 || body[80] != lengthByte) status = 5;
            else if (token != c.token) status = 4;  // not the token of this connection's handshake
            else status = 1;
        }
        if (sf.loginStatus >= 0) status = static_cast<uint32_t>(sf.loginStatus);
        uint32_t key = 0;
        {
            std::lock_guard<std::mutex> g(connMu_);
            if (status == 1) {
                do key = Random(); while (key == 0);
                c.sessionKey = key;
                c.loggedIn = true;
                ++stats_.logins;
                stats_.lastSessionKey = key;
                issuedKeys_.push_back(key);
                if (issuedKeys_.size() > 64) issuedKeys_.erase(issuedKeys_.begin());
            } else {
                ++stats_.loginFailures;
            }
        }
        wire::FillHeader(out, NextSeq(), c.sessionKey, wire::RSSESSION, 4, 12);
        wire::StoreBe32(out + 36, status);
        wire::StoreBe32(out + 40, key);
        LogLine(Format("conn %d: login of \"%s\" -> status %u%s", c.number, user.c_str(), status,
                       status == 1 ? Format(", session key 0x%08x", key).c_str() : ""));
        return SendAll(c, out, 48);
    }
    case 7: {  // listen port
        if (sf.dropListenPort) {
            LogLine(Format("conn %d: listen port announcement dropped on purpose, closing", c.number));
            return false;
        }
        int port = payload >= 2 ? wire::LoadBe16(body) : -1;
        {
            std::lock_guard<std::mutex> g(connMu_);
            c.listenPort = port;
            c.nextHeartbeat = clock_.NowMs() + opt_.heartbeatIntervalMs;
            stats_.lastListenPort = port;
        }
        LogLine(Format("conn %d: listen port %d%s", c.number, port, c.loggedIn ? "" : " (before a login)"));
        wire::FillHeader(out, NextSeq(), c.sessionKey, wire::RSSESSION, 8, 0);
        return SendAll(c, out, 36);
    }
    case 14: {  // goodbye
        int port;
        {
            std::lock_guard<std::mutex> g(connMu_);
            ++stats_.goodbyes;
            port = c.listenPort;
            c.listenPort = -1;
        }
        LogLine(Format("conn %d: goodbye", c.number));
        wire::FillHeader(out, NextSeq(), c.sessionKey, wire::RSSESSION, 14, 0);
        SendAll(c, out, 36);
        // One last heartbeat lets the provider's channel thread see that it is to end.
        if (opt_.heartbeatOnGoodbye && port >= 0) Heartbeat(port, c.sessionKey);
        return false;
    }
    default:
        {
            std::lock_guard<std::mutex> g(connMu_);
            ++stats_.unexpectedPackets;
        }
        LogLine(Format("conn %d: unknown session OpCode %u, closing", c.number, op));
        return false;
    }
}

bool Server::MatchFault(uint32_t opcode, Fault* out) {
    std::lock_guard<std::mutex> g(connMu_);
    for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        if (it->opcode >= 0 && static_cast<uint32_t>(it->opcode) != opcode) continue;
        if (it->skip > 0) {
            --it->skip;
            continue;
        }
        *out = *it;
        if (it->count > 0 && --it->count == 0) faults_.erase(it);
        return true;
    }
    return false;
}

bool Server::HandleCommand(Conn& c, const uint8_t* pkt, uint32_t len) {
    uint32_t op = wire::OpCodeOf(pkt);
    bool never;
    {
        std::lock_guard<std::mutex> g(connMu_);
        ++stats_.commands;
        never = neverAnswer_;
    }
    const char* name = Commands::OpName(op);
    if (never) {
        LogLine(Format("conn %d: %s(%u) taken, never answered", c.number, name, op));
        return true;
    }
    Fault f;
    bool faulted = MatchFault(op, &f);
    if (faulted) {
        switch (f.kind) {
        case FaultKind::kClose:
            LogLine(Format("conn %d: %s(%u) -> fault: connection closed", c.number, name, op));
            return false;
        case FaultKind::kNeverAnswer:
            LogLine(Format("conn %d: %s(%u) -> fault: never answered", c.number, name, op));
            return true;
        case FaultKind::kDelay:
        {
            LogLine(Format("conn %d: %s(%u) -> fault: answer delayed by %u ms", c.number, name, op, f.value));
            uint64_t until = clock_.NowMs() + f.value;
            {
                std::lock_guard<std::mutex> g(connMu_);
                ++stats_.delayedReplies;
            }
            bool ok = clock_.WaitUntil(until);
            {
                std::lock_guard<std::mutex> g(connMu_);
                --stats_.delayedReplies;
            }
            if (!ok) return false;
            break;
        }
        case FaultKind::kRandomBytes: {
            std::vector<uint8_t> junk(f.value ? f.value : 64);
            for (uint8_t& b : junk) b = static_cast<uint8_t>(Random());
            LogLine(Format("conn %d: %s(%u) -> fault: %zu random bytes", c.number, name, op, junk.size()));
            return SendAll(c, junk.data(), junk.size());
        }
        default: break;
        }
    }

    if (c.out.empty()) c.out.resize(wire::kPacketBufferSize);
    std::vector<uint8_t>& out = c.out;
    CommandReply r;
    r.out = &out;
    {
        std::lock_guard<std::mutex> g(mu_);
        SyncTimeLocked();
        if (!c.loggedIn) {
            commands_->Refuse(op, kErrNotLoggedIn, r);
            r.note = "before a login";
        } else if (faulted && f.kind == FaultKind::kError) {
            commands_->Refuse(op, f.value, r);
            r.note = "fault: refused";
        } else {
            commands_->Handle(pkt, len, r);
        }
        AfterChangeLocked();
    }
    uint32_t replyOp = op;
    uint32_t dataLen = static_cast<uint32_t>(r.PayloadLength());
    size_t headerBytes = r.length;
    bool closeAfter = false;
    if (faulted) {
        if (f.kind == FaultKind::kWrongOpcode) replyOp = f.value ? f.value : op + 1;
        if (f.kind == FaultKind::kHugeDataLen) {
            dataLen = f.value ? f.value : 0x7FFFFFF0u;
            closeAfter = true;
        }
    }
    // Sequence and check value are set over the payload's header in place.
    uint32_t savedLen = dataLen;
    wire::FillHeader(out.data(), NextSeq(), c.sessionKey, wire::RSREPLY, replyOp, savedLen);
    // FillHeader cleared bytes 28..35; the payload begins at 36 and is untouched.
    if (opt_.logRequests)
        LogLine(Format("conn %d: %s(%u) len %u -> error %u, %u bytes%s%s%s", c.number, name, op,
                       len - static_cast<uint32_t>(wire::kHeaderSize), r.error, static_cast<uint32_t>(r.PayloadLength()),
                       r.note.empty() ? "" : " (", r.note.c_str(), r.note.empty() ? "" : ")"));
    if (faulted && f.kind == FaultKind::kShortHeader) {
        size_t n = std::min<size_t>(f.value ? f.value : 20, wire::kHeaderSize - 1);
        LogLine(Format("conn %d: fault: only %zu bytes of the header sent", c.number, n));
        return SendAll(c, out.data(), n);
    }
    if (faulted && f.kind == FaultKind::kWrongOpcode)
        LogLine(Format("conn %d: fault: answered under OpCode %u", c.number, replyOp));
    bool ok = SendVec(c.fd, out.data(), headerBytes, r.bulk ? r.bulk->data() : nullptr, r.bulk ? r.bulk->size() : 0);
    if (closeAfter) {
        LogLine(Format("conn %d: fault: DataLen %u announced, closing", c.number, dataLen));
        return false;
    }
    return ok;
}

// ---------------------------------------------------------------------------------------------
// Heartbeats

bool Server::Heartbeat(int listenPort, uint32_t sessionKey) {
    std::string name = Format("TROV_Proxy_%d", listenPort);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool ok = false;
    std::string why;
    if (fd >= 0) {
        timeval tv{5, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        size_t n = std::min(name.size(), sizeof(addr.sun_path) - 1);
        std::memcpy(addr.sun_path + 1, name.data(), n);
        socklen_t alen = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + n);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), alen) != 0) {
            why = std::string("cannot connect: ") + std::strerror(errno);
        } else {
            uint8_t hb[wire::kHeaderSize];
            wire::FillHeader(hb, NextSeq(), sessionKey, wire::RSHEARTBEAT, 0, 0);
            uint8_t answer[wire::kHeaderSize] = {};
            size_t got = 0;
            if (SendVec(fd, hb, sizeof hb, nullptr, 0)) {
                while (got < sizeof answer) {
                    ssize_t r = ::recv(fd, answer + got, sizeof answer - got, 0);
                    if (r < 0 && errno == EINTR) continue;
                    if (r <= 0) break;
                    got += static_cast<size_t>(r);
                }
            }
            if (got < wire::kHeaderSize) {
                why = Format("answer of %zu bytes", got);
            } else if (wire::DataTypeOf(answer) != wire::RSHEARTBEAT || wire::OpCodeOf(answer) != 0) {
                why = Format("answer with DataType %u OpCode %u", wire::DataTypeOf(answer), wire::OpCodeOf(answer));
            } else {
                ok = true;
                uint32_t s = wire::SeqNumOf(answer);
                if (!wire::MagicOk(answer)) why = "answered, with a wrong magic";
                else if (wire::CheckValueOf(answer) != wire::CheckValue(s, sessionKey) &&
                         wire::CheckValueOf(answer) != wire::CheckValue(s, 0))
                    why = "answered, with a check value of another key";
                else why = Format("answered (sequence %u)", s);
            }
        }
        ::close(fd);
    } else {
        why = std::string("socket: ") + std::strerror(errno);
    }
    {
        std::lock_guard<std::mutex> g(connMu_);
        ++(ok ? stats_.heartbeatsOk : stats_.heartbeatsFailed);
    }
    LogLine(Format("heartbeat to @%s: %s", name.c_str(), why.c_str()));
    return ok;
}

void Server::HeartbeatLoop() {
    while (!stopping_) {
        uint64_t now = clock_.NowMs();
        std::vector<std::pair<int, uint32_t>> due;
        if (opt_.heartbeatIntervalMs > 0) {
            std::lock_guard<std::mutex> g(connMu_);
            for (auto& c : conns_)
                if (!c->done && c->listenPort >= 0 && c->nextHeartbeat <= now) {
                    c->nextHeartbeat = now + opt_.heartbeatIntervalMs;
                    due.emplace_back(c->listenPort, c->sessionKey);
                }
        }
        for (auto [port, key] : due) Heartbeat(port, key);
        if (!clock_.WaitUntil(now + 100)) break;
    }
}

bool Server::SendHeartbeatNow() {
    int port = -1;
    uint32_t key = 0;
    {
        std::lock_guard<std::mutex> g(connMu_);
        for (auto& c : conns_)
            if (!c->done && c->listenPort >= 0) {
                port = c->listenPort;
                key = c->sessionKey;
            }
        if (port < 0) port = stats_.lastListenPort;
    }
    if (port < 0) return false;
    return Heartbeat(port, key);
}

// ---------------------------------------------------------------------------------------------
// Faults, outages and the rest of the API

void Server::AddFault(const Fault& f) {
    std::lock_guard<std::mutex> g(connMu_);
    faults_.push_back(f);
}

void Server::ClearFaults() {
    std::lock_guard<std::mutex> g(connMu_);
    faults_.clear();
    neverAnswer_ = false;
    sessionFaults_ = SessionFaults{};
}

void Server::NeverAnswer(bool on) {
    std::lock_guard<std::mutex> g(connMu_);
    neverAnswer_ = on;
}

void Server::SetSessionFaults(const SessionFaults& f) {
    std::lock_guard<std::mutex> g(connMu_);
    sessionFaults_ = f;
}

uint32_t Server::RaiseEvent(uint32_t handle, uint32_t code, uint32_t param, const std::string& driveSerial,
                            const Serial* partitionSerial, const std::string& text) {
    return WithModel([&](Model& m) -> uint32_t {
        CtrlRef c = m.FindController(handle);
        if (!c) return kErrBadHandle;
        Serial drive = SerialFromText(driveSerial);
        m.RaiseEvent(c, code, param, driveSerial.empty() ? nullptr : &drive, partitionSerial, text);
        LogLine(Format("event %u (param %u) raised on controller 0x%08x", code, param, handle));
        return kOk;
    });
}

uint32_t Server::SetControllerOffline(uint32_t handle, bool offline, uint8_t state) {
    return WithModel([&](Model& m) -> uint32_t {
        CtrlRef c = m.FindController(handle);
        if (!c) return kErrBadHandle;
        LogLine(Format("controller 0x%08x %s", handle, offline ? "taken offline" : "back online"));
        return m.SetControllerOffline(c, offline, state);
    });
}

uint32_t Server::SetDriveOffline(const std::string& serial, bool offline) {
    return WithModel([&](Model& m) -> uint32_t {
        for (Subsystem& s : m.subsystems())
            if (m.FindDrive(s, serial)) {
                LogLine("drive " + serial + (offline ? " taken offline" : " back online"));
                return m.SetDriveOffline(s, serial, offline);
            }
        return kErrNotFound;
    });
}

bool Server::WriteKelvaneConf(const std::string& path, std::string* error) const {
    if (opt_.password.find(':') != std::string::npos || opt_.user.find(':') != std::string::npos) {
        // The file's reader cuts a value at a colon.
        if (error) *error = "a user or password with a colon can't stand in kelvane.conf";
        return false;
    }
    std::ofstream out(path, std::ios::trunc);
    if (!out) {
        if (error) *error = "cannot write " + path;
        return false;
    }
    std::string ip = opt_.bindAddress == "0.0.0.0" ? "127.0.0.1" : opt_.bindAddress;
    // Keys are nine columns wide, padding included; every line ends in a newline, the last too.
    out << "# written by trovproxy-sim\n"
        << "version  :1\n"
        << "ipaddress:" << ip << "\n"
        << "username :" << opt_.user << "\n"
        << "password :" << opt_.password << "\n"
        << "port     :" << port_ << "\n";
    if (!out) {
        if (error) *error = "cannot write " + path;
        return false;
    }
    return true;
}

Stats Server::stats() const {
    std::lock_guard<std::mutex> g(connMu_);
    Stats s = stats_;
    s.encodings = encoder_->encodings();
    return s;
}

}  // namespace trovsim
