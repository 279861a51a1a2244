// A scripted TCP peer for the transport and session tests: it listens on 127.0.0.1 (a free port),
// plays a fixed list of steps on the connections it accepts, in a thread of its own, and records
// every request packet it has read. Every wait on a real socket is a poll with a bounded time-out,
// and the destructor wakes any wait at once through a pipe, so that a test never hangs on it.
// CallOnClock runs a client call that waits on the fake clock, for tests of the time limits.
#pragma once

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "proxy/iasocket.h"
#include "proxy/wire.h"
#include "support/host_notice.h"
#include "testlib/fake_platform.h"

namespace testlib {

class ScriptPeer {
public:
    using Bytes = std::vector<uint8_t>;

    // The longest a single step waits for the other side (real time).
    static constexpr int kStepWaitMs = 10000;
    // The largest packet the peer reads; a larger DataLen fails the step.
    static constexpr uint32_t kMaxPacket = 4u << 20;

    ScriptPeer() {
        listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int one = 1;
        if (listenFd_ >= 0) ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = 0;
        if (listenFd_ >= 0 && ::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
            ::listen(listenFd_, 8) == 0) {
            socklen_t len = sizeof addr;
            if (::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len) == 0) port_ = ntohs(addr.sin_port);
        }
        if (::pipe2(wake_, O_CLOEXEC) != 0) wake_[0] = wake_[1] = -1;
    }

    ~ScriptPeer() {
        {
            std::lock_guard<std::mutex> g(mu_);
            stopping_ = true;
        }
        if (wake_[1] >= 0) {
            char c = 1;
            ssize_t r = ::write(wake_[1], &c, 1);
            (void)r;
        }
        if (thread_.joinable()) thread_.join();
        CloseConn();
        if (listenFd_ >= 0) ::close(listenFd_);
        if (wake_[0] >= 0) ::close(wake_[0]);
        if (wake_[1] >= 0) ::close(wake_[1]);
    }

    ScriptPeer(const ScriptPeer&) = delete;
    ScriptPeer& operator=(const ScriptPeer&) = delete;

    uint16_t port() const { return port_; }

    // Accepts the next connection (a connection still open is closed first).
    void Accept() {
        steps_.push_back([this] {
            if (!WaitReadable(listenFd_)) return Fail("no connection to accept");
            int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) return Fail("accept failed");
            CloseConn();
            conn_ = fd;
            return true;
        });
    }

    // Reads one packet (36-byte header and the DataLen bytes it announces, bounded to kMaxPacket),
    // records it and sends reply(req); an empty reply sends nothing.
    void OnRequest(std::function<Bytes(const Bytes& req)> reply) {
        steps_.push_back([this, reply = std::move(reply)] {
            Bytes pkt(wire::kHeaderSize);
            if (!ReadExactly(pkt.data(), wire::kHeaderSize)) return Fail("request header not read");
            uint32_t len = wire::DataLenOf(pkt.data());
            if (len > kMaxPacket - wire::kHeaderSize) return Fail("request DataLen too large");
            pkt.resize(wire::kHeaderSize + len);
            if (len > 0 && !ReadExactly(pkt.data() + wire::kHeaderSize, len)) return Fail("request payload not read");
            {
                std::lock_guard<std::mutex> g(mu_);
                requests_.push_back(pkt);
            }
            Bytes out = reply ? reply(pkt) : Bytes{};
            if (!out.empty() && !WriteAll(out.data(), out.size())) return Fail("reply not sent");
            return true;
        });
    }

    void SendRaw(Bytes bytes) {
        steps_.push_back([this, bytes = std::move(bytes)] {
            if (!bytes.empty() && !WriteAll(bytes.data(), bytes.size())) return Fail("raw bytes not sent");
            return true;
        });
    }

    // Waits until the client closes the connection; a byte that comes first fails the step (the
    // client sent something more on a connection it should have given up).
    void ExpectClosed() {
        steps_.push_back([this] {
            if (conn_ < 0) return Fail("no connection to watch");
            if (!WaitReadable(conn_)) return Fail("the client did not close the connection");
            uint8_t b;
            ssize_t r;
            do {
                r = ::recv(conn_, &b, 1, 0);
            } while (r < 0 && errno == EINTR);
            if (r > 0) return Fail("bytes after the last request");
            CloseConn();
            return true;
        });
    }

    void CloseConnection() {
        steps_.push_back([this] {
            if (conn_ < 0) return Fail("no connection to close");
            ::shutdown(conn_, SHUT_RDWR);
            CloseConn();
            return true;
        });
    }

    void Start() {
        if (thread_.joinable()) return;
        thread_ = std::thread([this] { Run(); });
    }

    // Waits (real time, at most ms) until every step ran; false when a step failed or on time-out.
    bool Finish(int ms = 5000) {
        std::unique_lock<std::mutex> lk(mu_);
        bool ended = cv_.wait_for(lk, std::chrono::milliseconds(ms), [this] { return done_; });
        return ended && ok_;
    }

    // Why the script failed ("" while none failed).
    std::string failure() const {
        std::lock_guard<std::mutex> g(mu_);
        return failure_;
    }

    // Steps played to their end so far (a reply is sent when its step ends).
    size_t stepsDone() const { return stepsDone_.load(); }

    std::vector<Bytes> requests() const {
        std::lock_guard<std::mutex> g(mu_);
        return requests_;
    }

    // Connects the transport to this peer and allocates its packet buffer; the session key stays.
    void AttachTransport() {
        ConnectProxySocket("127.0.0.1", port_);
        AllocatePacketBuffer();
    }

    // A reply packet: a correct header (sequence 0, check value with the given key) and the payload.
    static Bytes Reply(uint32_t opcode, const Bytes& payload, uint32_t dataType = wire::RSREPLY,
                       uint32_t sessionKey = 0) {
        Bytes out(wire::kHeaderSize + payload.size());
        wire::FillHeader(out.data(), 0, sessionKey, dataType, opcode, static_cast<uint32_t>(payload.size()));
        if (!payload.empty()) std::copy(payload.begin(), payload.end(), out.begin() + wire::kHeaderSize);
        return out;
    }

private:
    void Run() {
        bool ok = true;
        for (auto& step : steps_) {
            if (Stopping() || !step()) {
                ok = false;
                break;
            }
            ++stepsDone_;
        }
        std::lock_guard<std::mutex> g(mu_);
        ok_ = ok && failure_.empty();
        done_ = true;
        cv_.notify_all();
    }

    bool Stopping() const {
        std::lock_guard<std::mutex> g(mu_);
        return stopping_;
    }

    bool Fail(const char* why) {
        std::lock_guard<std::mutex> g(mu_);
        if (failure_.empty()) failure_ = why;
        return false;
    }

    void CloseConn() {
        if (conn_ >= 0) ::close(conn_);
        conn_ = -1;
    }

    // Waits until fd is readable (or the peer is torn down); false on time-out or stop.
    bool WaitReadable(int fd) {
        if (fd < 0) return false;
        pollfd p[2] = {{fd, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        int r;
        do {
            r = ::poll(p, wake_[0] >= 0 ? 2 : 1, kStepWaitMs);
        } while (r < 0 && errno == EINTR);
        if (r <= 0 || (p[1].revents & POLLIN)) return false;
        return (p[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0;
    }

    bool ReadExactly(uint8_t* buf, size_t n) {
        size_t got = 0;
        while (got < n) {
            if (!WaitReadable(conn_)) return false;
            ssize_t r = ::recv(conn_, buf + got, n - got, 0);
            if (r < 0 && errno == EINTR) continue;
            if (r <= 0) return false;
            got += static_cast<size_t>(r);
        }
        return true;
    }

    bool WriteAll(const uint8_t* buf, size_t n) {
        if (conn_ < 0) return false;
        size_t sent = 0;
        while (sent < n) {
            ssize_t r = ::send(conn_, buf + sent, n - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (r < 0 && errno == EINTR) continue;
            if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                // The other side reads no more for now: wait, bounded, for room.
                pollfd p[2] = {{conn_, POLLOUT, 0}, {wake_[0], POLLIN, 0}};
                int w;
                do {
                    w = ::poll(p, wake_[0] >= 0 ? 2 : 1, kStepWaitMs);
                } while (w < 0 && errno == EINTR);
                if (w <= 0 || (p[1].revents & POLLIN)) return false;
                continue;
            }
            if (r <= 0) return false;
            sent += static_cast<size_t>(r);
        }
        return true;
    }

    int listenFd_ = -1;
    int conn_ = -1;  // touched by the script thread only (and by the destructor after the join)
    int wake_[2] = {-1, -1};
    uint16_t port_ = 0;
    std::vector<std::function<bool()>> steps_;
    std::thread thread_;
    mutable std::mutex mu_;
    std::condition_variable cv_;
    bool stopping_ = false;
    bool done_ = false;
    bool ok_ = false;
    std::string failure_;
    std::vector<Bytes> requests_;
    std::atomic<size_t> stepsDone_{0};
};

// Records the failure lines the provider tells its host (support/host_notice.h) while it lives.
class HostFailures {
public:
    HostFailures() {
        TrovHostSink sink{this, nullptr, &OnFailure, nullptr};
        SetHostSink(&sink);
    }
    ~HostFailures() { SetHostSink(nullptr); }
    HostFailures(const HostFailures&) = delete;
    HostFailures& operator=(const HostFailures&) = delete;

    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> g(mu_);
        return lines_;
    }

private:
    static void OnFailure(void* context, const char* reason) {
        auto* self = static_cast<HostFailures*>(context);
        std::lock_guard<std::mutex> g(self->mu_);
        self->lines_.emplace_back(reason);
    }
    mutable std::mutex mu_;
    std::vector<std::string> lines_;
};

// Runs `call` on a thread of its own, for a call that blocks on the fake clock in manual mode:
// the test moves the clock and sees the call end exactly at its limit, with no real wait.
class CallOnClock {
public:
    CallOnClock(FakeClock& clock, std::function<int()> call) : clock_(clock), start_(clock.NowMs()) {
        thread_ = std::thread([this, call = std::move(call)] {
            rc_ = call();
            done_ = true;
        });
    }
    ~CallOnClock() {
        if (thread_.joinable()) {
            clock_.ReleaseAll();  // a test that failed half-way must not leave the call blocked
            thread_.join();
        }
    }
    CallOnClock(const CallOnClock&) = delete;
    CallOnClock& operator=(const CallOnClock&) = delete;

    // True once the call waits on the clock (real time, bounded).
    bool Blocked() { return clock_.WaitForSleepers(1); }
    // True once the call waits on the clock while `also` holds: for a call that waits more than
    // once, the wait the test means (real time, bounded).
    template <class Pred>
    bool BlockedWhen(Pred also) {
        for (int i = 0; i < 10000; ++i) {
            if (clock_.Sleepers() >= 1 && also()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }
    // For BlockedWhen: true when nothing waits unread on the transport's connection, so that a
    // client that waits is waiting for bytes that haven't come.
    static bool NothingUnread() {
        pollfd p{g_transport.sock.load(), POLLIN, 0};
        return ::poll(&p, 1, 0) == 0;
    }
    // Moves the clock; true when the call has then ended (waited for up to a few seconds of real
    // time, for a loaded machine).
    bool AdvanceEnds(uint64_t ms) {
        clock_.Advance(ms);
        for (int i = 0; i < 1000 && !done_; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return done_;
    }
    // Moves the clock; true when the call is still waiting a moment of real time later.
    bool AdvanceStillWaits(uint64_t ms) {
        clock_.Advance(ms);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return !done_;
    }
    // The call's result. A call still waiting (a test that failed already) is let go first, so
    // that a failure never becomes a hang.
    int Join() {
        if (!done_) clock_.ReleaseAll();
        thread_.join();
        return rc_;
    }
    // Clock time since the call began.
    uint64_t Elapsed() const { return clock_.NowMs() - start_; }

private:
    FakeClock& clock_;
    uint64_t start_;
    std::atomic<bool> done_{false};
    int rc_ = 0;
    std::thread thread_;
};

}  // namespace testlib
