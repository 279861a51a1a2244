#include "proxy/iasocket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "proxy/wire.h"
#include "support/debuglog.h"

TransportState g_transport;

namespace {

// The wait for a reply's first bytes.
constexpr int kReplyWaitMs = 600 * 1000;

int LastError() { return errno; }

}  // namespace

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
    pollfd p{fd, POLLIN, 0};
    errno = 0;
    int ready;
    do {
        ready = ::poll(&p, 1, kReplyWaitMs);
    } while (ready < 0 && errno == EINTR);
    if (ready < 0 && errno != 0) {
        g_transport.LastSocketError = errno;
        DebugTrace("OOP!! exec_cmnd send error errorcode 0x%x\n", errno);
    }
    if (ready <= 0) {
        g_transport.LastSocketError = -2;
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
    int total = 0;
    while (total < maxlen) {
        ssize_t n = ::recv(fd, buffer + total, static_cast<size_t>(maxlen - total), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 1) {
            DebugTrace("recvdata len = %d\n", static_cast<int>(n));
            return -1;
        }
        total += static_cast<int>(n);
    }
    if (total != maxlen) DebugTrace("recvdata total = %d, maxlen = %d\n", total, maxlen);
    return total;
}

int ConnectProxySocket(const char* ipText, uint16_t port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    g_transport.sock = fd;
    if (fd < 0) {
        DebugTrace("socket connect to port %d failed, error %d\n", port, LastError());
        return -1;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = inet_addr(ipText);
    addr.sin_port = htons(port);
    int r;
    do {
        r = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    } while (r < 0 && errno == EINTR);
    if (r < 0) {
        DebugTrace("socket connect to port %d failed, error %d\n", port, LastError());
        // The closed number isn't kept in sock: a later close must not hit a descriptor that
        // the process has handed out again meanwhile.
        g_transport.sock = -1;
        ::close(fd);
        return -1;
    }
    return 0;
}

void CloseProxySocket(int closed) {
    int fd = g_transport.sock.exchange(closed);
    if (fd > 0) ::close(fd);
}

std::string TransportErrorText(int32_t e) {
    if (e == -2) return "no reply in time";
    if (e == -1) return "connection closed by the service";
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
}
