#include "proxy/iasocket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "platform/platform.h"
#include "proxy/wire.h"
#include "support/debuglog.h"

TransportState g_transport;

namespace {

int LastError() { return errno; }

}  // namespace

void SetReplyTimeout(uint32_t seconds) {
    if (seconds == 0 || seconds > kDefaultReplyTimeoutSeconds) seconds = kDefaultReplyTimeoutSeconds;
    g_transport.replyTimeoutMs = seconds * 1000;
}

uint32_t ReplyTimeoutMs() { return g_transport.replyTimeoutMs.load(); }

int MakeHeader(uint8_t* buffer, uint32_t dataType, uint32_t opCode) {
    // The counter isn't guarded against the heartbeat thread by any lock, as always; an atomic
    // increment only keeps two threads from taking the same number.
    uint32_t n = g_transport.sequence.fetch_add(1, std::memory_order_relaxed);
    uint32_t key = g_transport.SessionKey.load(std::memory_order_relaxed);
    std::memset(buffer, 0, wire::kHeaderSize);
    wire::StoreBe32(buffer + wire::kDataTypeOffset, dataType);
    wire::StoreBe32(buffer + wire::kOpCodeOffset, opCode);
    wire::StoreBe32(buffer + wire::kSeqNumOffset, n);
    wire::StoreBe32(buffer + wire::kCheckValueOffset, wire::CheckValue(n, key));
    std::memcpy(buffer + wire::kMagicOffset, wire::kMagic, 9);
    return static_cast<int>(wire::kHeaderSize);
}

int exec_cmnd(uint8_t* sendBuffer, int sendLength, uint8_t* recvBuffer, int recvLength) {
    int fd = g_transport.sock.load();
    // A failed send is retried once at once, without delay. MSG_NOSIGNAL: a closed peer must not
    // end the host process with SIGPIPE.
    ssize_t r = ::send(fd, sendBuffer, static_cast<size_t>(sendLength), MSG_NOSIGNAL);
    if (r < 1) r = ::send(fd, sendBuffer, static_cast<size_t>(sendLength), MSG_NOSIGNAL);
    if (r < 1) {
        int err = LastError();
        if (err != 0) {
            g_transport.LastSocketError = err;
            DebugTrace("OOP!! exec_cmnd send error errorcode 0x%x\n", err);
        }
        return -1;
    }
    // The wait for the first bytes: 600 s as always, unless the settings lower it (ReplyTimeout),
    // and on the Platform clock.
    errno = 0;
    int ready = Plat()->WaitReadable(fd, ReplyTimeoutMs());
    if (ready < 0 && errno != 0) {
        g_transport.LastSocketError = errno;
        DebugTrace("OOP!! exec_cmnd send error errorcode 0x%x\n", errno);
    }
    if (ready <= 0) {
        g_transport.LastSocketError = kNoReplyInTime;
        DebugTrace("OOP!! exec_cmnd FD_ISSET error\n");
        return -1;
    }
    ssize_t n;
    do {
        n = ::recv(fd, recvBuffer, static_cast<size_t>(recvLength), 0);
    } while (n < 0 && errno == EINTR);
    if (n < 1) {
        int err = n < 0 ? LastError() : 0;
        g_transport.LastSocketError = err != 0 ? err : -1;
        DebugTrace("OOP!! exec_cmnd recv error 0x%x\n", err);
        return -1;
    }
    g_transport.LastSocketError = 0;
    return static_cast<int>(n);
}

int recvdata(uint8_t* buffer, int maxlen) {
    if (maxlen <= 0) return 0;
    int fd = g_transport.sock.load();
    // The original reads the rest of a payload without any limit, so that a peer that announces
    // more than it sends holds the caller (and the command lock) for good. The rest must come
    // within the same limit as the first bytes, counted from here.
    const uint32_t limit = ReplyTimeoutMs();
    const uint32_t start = Plat()->TickCount();
    int total = 0;
    while (total < maxlen) {
        ssize_t n = ::recv(fd, buffer + total, static_cast<size_t>(maxlen - total), MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            uint32_t elapsed = Plat()->TickCount() - start;  // wraps correctly
            int ready = elapsed < limit ? Plat()->WaitReadable(fd, limit - elapsed) : 0;
            if (ready > 0) continue;
            if (ready == 0) {
                g_transport.LastSocketError = kNoReplyInTime;
                DebugTrace("recvdata timed out after %u ms, %d of %d bytes\n", limit, total, maxlen);
                return -1;
            }
            n = -1;  // the wait itself failed: as a failed receive
        }
        if (n < 1) {
            // Unlike the original, the end of the connection is kept in LastSocketError, so that the
            // event monitor reconnects.
            int err = n < 0 ? LastError() : 0;
            g_transport.LastSocketError = err != 0 ? err : kClosedByService;
            DebugTrace("recvdata len = %d\n", static_cast<int>(n));
            return -1;
        }
        total += static_cast<int>(n);
    }
    if (total != maxlen) DebugTrace("recvdata total = %d, maxlen = %d\n", total, maxlen);
    return total;
}

int ConnectProxySocket(const char* ipText, uint16_t port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    g_transport.sock = fd;
    if (fd < 0) {
        int err = LastError();
        DebugTrace("socket connect to port %d failed, error %d\n", port, err);
        errno = err;
        return -1;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = inet_addr(ipText);
    addr.sin_port = htons(port);
    int err = 0;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        err = LastError();
        if (err == EINPROGRESS || err == EINTR) {
            // The original's connect waits as long as the system lets it; ours ends at the reply
            // limit, on the Platform clock.
            int ready = Plat()->WaitWritable(fd, ReplyTimeoutMs());
            if (ready > 0) {
                socklen_t len = sizeof err;
                if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = LastError();
            } else {
                err = ready == 0 ? ETIMEDOUT : LastError();
            }
        }
    }
    if (err == 0) {
        // The exchanges use blocking sends and receives, bounded by the waits before them.
        int flags = ::fcntl(fd, F_GETFL);
        if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) < 0) err = LastError();
    }
    if (err != 0) {
        DebugTrace("socket connect to port %d failed, error %d\n", port, err);
        // The closed number isn't kept in sock: a later close must not hit a descriptor that
        // the process has handed out again meanwhile.
        g_transport.sock = -1;
        ::close(fd);
        errno = err;
        return -1;
    }
    return 0;
}

void CloseProxySocket(int closed) {
    int fd = g_transport.sock.exchange(closed);
    if (fd > 0) ::close(fd);
}

void DropConnection(int32_t reason) {
    // The original keeps the connection after a time-out or a malformed reply, so that the late
    // or remaining bytes are read as the reply to the next command. We close it: the next command
    // fails at once, and the reconnect makes a fresh connection.
    int fd = g_transport.sock.exchange(-1);
    if (fd > 0) {
        ::shutdown(fd, SHUT_RDWR);
        ::close(fd);
    }
    if (reason != 0)
        g_transport.LastSocketError = reason;
    else if (g_transport.LastSocketError.load() == 0)
        g_transport.LastSocketError = kClosedByService;
}

std::string TransportErrorText(int32_t e) {
    if (e == kNoReplyInTime) return "no reply in time";
    if (e == kClosedByService) return "connection closed by the service";
    if (e == kMalformedReply) return "a malformed reply";
    if (e == 0) return "no connection";
    return std::strerror(e);
}

bool AllocatePacketBuffer() {
    if (!g_transport.PacketBuffer)
        g_transport.PacketBuffer = static_cast<uint8_t*>(std::calloc(1, wire::kPacketBufferSize));
    return g_transport.PacketBuffer != nullptr;
}

void FreePacketBuffer() {
    std::free(g_transport.PacketBuffer);
    g_transport.PacketBuffer = nullptr;
}

void ResetTransportForTest() {
    CloseProxySocket(0);
    FreePacketBuffer();
    g_transport.sequence = 0;
    g_transport.SessionKey = 0;
    g_transport.LastSocketError = 0;
    g_transport.replyTimeoutMs = kDefaultReplyTimeoutSeconds * 1000;
}
