// A scripted client for the emulator's tests: builds packets byte by byte, sends them, reads
// whole replies, and plays the provider's heartbeat channel.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "proxy/cipher.h"
#include "proxy/wire.h"

namespace simtest {

class Client {
public:
    ~Client() { Close(); }

    bool Connect(uint16_t port) {
        Close();
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
            Close();
            return false;
        }
        return true;
    }
    void Close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }
    int fd() const { return fd_; }
    uint32_t key() const { return key_; }
    void set_key(uint32_t k) { key_ = k; }

    // A packet with header and payload; the header as the client builds it.
    std::vector<uint8_t> Packet(uint32_t type, uint32_t op, const std::vector<uint8_t>& payload) {
        std::vector<uint8_t> p(wire::kHeaderSize + payload.size());
        wire::FillHeader(p.data(), seq_++, key_, type, op, static_cast<uint32_t>(payload.size()));
        if (!payload.empty()) std::memcpy(p.data() + wire::kHeaderSize, payload.data(), payload.size());
        return p;
    }
    bool SendRaw(const std::vector<uint8_t>& bytes) {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    bool Send(uint32_t type, uint32_t op, const std::vector<uint8_t>& payload) { return SendRaw(Packet(type, op, payload)); }

    // Reads up to n bytes, waiting at most `ms` of real time for each piece (a safety net only:
    // the emulator answers at once unless a test delays it on purpose).
    size_t RecvSome(uint8_t* p, size_t n, int ms = 5000) {
        size_t got = 0;
        while (got < n) {
            pollfd pf{fd_, POLLIN, 0};
            if (::poll(&pf, 1, ms) <= 0) break;
            ssize_t r = ::recv(fd_, p + got, n - got, 0);
            if (r <= 0) break;
            got += static_cast<size_t>(r);
        }
        return got;
    }
    // True when the peer has closed (end of stream) within `ms`.
    bool PeerClosed(int ms = 5000) {
        pollfd pf{fd_, POLLIN, 0};
        if (::poll(&pf, 1, ms) <= 0) return false;
        uint8_t b;
        return ::recv(fd_, &b, 1, MSG_PEEK) == 0;
    }
    // Nothing arrives within `ms`.
    bool Silent(int ms) {
        pollfd pf{fd_, POLLIN, 0};
        return ::poll(&pf, 1, ms) == 0;
    }

    // One whole reply: header and DataLen bytes (DataLen bounded to the packet buffer).
    bool Recv(std::vector<uint8_t>* pkt, int ms = 5000) {
        pkt->assign(wire::kHeaderSize, 0);
        if (RecvSome(pkt->data(), wire::kHeaderSize, ms) != wire::kHeaderSize) return false;
        uint32_t len = wire::DataLenOf(pkt->data());
        if (len > wire::kPacketBufferSize - wire::kHeaderSize) return false;
        pkt->resize(wire::kHeaderSize + len);
        return RecvSome(pkt->data() + wire::kHeaderSize, len, ms) == len;
    }

    // Handshake; returns the VersionStatus word, or -1.
    int64_t Handshake(uint32_t* token) {
        std::vector<uint8_t> word = {'q', 'v', 'e', 'm', 'i', 'd'};
        std::vector<uint8_t> r;
        if (!Send(wire::RSSESSION, 1, word) || !Recv(&r) || r.size() != 44) return -1;
        if (wire::DataTypeOf(r.data()) != wire::RSSESSION || wire::OpCodeOf(r.data()) != 2) return -1;
        *token = wire::LoadBe32(r.data() + 40);
        return wire::LoadBe32(r.data() + 36);
    }
    // The 344-byte login record as the client makes it.
    static std::vector<uint8_t> LoginRecord(const std::string& user, const std::string& password, uint32_t token) {
        std::vector<uint8_t> rec(344, 0);
        std::strncpy(reinterpret_cast<char*>(rec.data()), user.c_str(), 31);
        std::strncpy(reinterpret_cast<char*>(rec.data() + 32), password.c_str(), 48);
        EncipherPasswordField(rec.data() + 32);
        rec[80] = static_cast<uint8_t>(password.size());
        wire::StoreBe32(rec.data() + 84, token);
        return rec;
    }
    // Login status word, or -1; on status 1 the session key is taken.
    int64_t Login(const std::string& user, const std::string& password, int64_t tokenOverride = -1) {
        uint32_t token = 0;
        if (Handshake(&token) < 0) return -1;
        if (tokenOverride >= 0) token = static_cast<uint32_t>(tokenOverride);
        std::vector<uint8_t> r;
        if (!Send(wire::RSSESSION, 3, LoginRecord(user, password, token)) || !Recv(&r) || r.size() != 48) return -1;
        if (wire::OpCodeOf(r.data()) != 4) return -1;
        uint32_t status = wire::LoadBe32(r.data() + 36);
        if (status == 1) key_ = wire::LoadBe32(r.data() + 40);
        return status;
    }
    bool ListenPort(uint16_t port) {
        std::vector<uint8_t> p(2), r;
        wire::StoreBe16(p.data(), port);
        return Send(wire::RSSESSION, 7, p) && Recv(&r) && wire::OpCodeOf(r.data()) == 8;
    }

    // A command with a zeroed payload of `len` bytes that `fill` writes into (packet offsets).
    template <typename F>
    bool Command(uint32_t op, uint32_t len, F fill, std::vector<uint8_t>* reply) {
        std::vector<uint8_t> pkt = Packet(wire::RSREQUEST, op, std::vector<uint8_t>(len, 0));
        fill(pkt.data());
        return SendRaw(pkt) && Recv(reply);
    }
    bool Command(uint32_t op, uint32_t len, std::vector<uint8_t>* reply) {
        return Command(op, len, [](uint8_t*) {}, reply);
    }

private:
    int fd_ = -1;
    uint32_t seq_ = 0;
    uint32_t key_ = 0;
};

inline uint32_t ErrorOf(const std::vector<uint8_t>& r) { return r.size() >= 44 ? wire::LoadBe32(r.data() + 40) : 0xFFFFFFFFu; }

}  // namespace simtest
