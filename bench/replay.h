// Recording and replaying the proxy service's side of a session, so that a benchmark of the
// provider measures the provider and the wire, not the emulator.
//
// Tap sits between a client and a real service (the emulator): it forwards every packet and
// keeps each distinct request (DataType, OpCode and payload; the header's sequence number and
// check value differ from run to run and are not part of the key) with the reply it got.
// ReplayPeer then serves those replies on a loopback port to any number of connections, one at
// a time, from memory: its cost per exchange is a hash lookup and a send. RawExchanges plays the
// recorded requests against a ReplayPeer without any provider, which is the floor: the same
// bytes over the same loopback through the same peer.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace bench {

struct Exchange {
    std::string request;  // header and payload, as first sent
    std::shared_ptr<const std::string> reply;
};

class Recording {
public:
    // The reply to a request (header ignored but for DataType and OpCode); null when unknown.
    const std::string* Find(const uint8_t* pkt, size_t len) const;
    void Add(const std::string& request, const std::string& reply);
    // Every exchange in the order of the recorded session.
    const std::vector<Exchange>& Sequence() const { return sequence_; }
    uint64_t Bytes() const;

private:
    static std::string Key(const uint8_t* pkt, size_t len);
    std::unordered_map<std::string, std::shared_ptr<const std::string>> replies_;
    std::vector<Exchange> sequence_;
};

// Reads one packet (36-byte header and its payload) into *out; false at end of stream or error.
bool ReadPacket(int fd, std::string* out);
bool WriteAll(int fd, const void* p, size_t n);

// Forwards one client connection at a time to `servicePort` and records what passes.
class Tap {
public:
    explicit Tap(uint16_t servicePort);
    ~Tap();
    uint16_t port() const { return port_; }
    // Stops forwarding; the recording stays.
    void Stop();
    Recording& recording() { return rec_; }

private:
    void Run();
    uint16_t servicePort_;
    int listenFd_ = -1;
    uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    Recording rec_;
};

// Serves a recording on a loopback port.
class ReplayPeer {
public:
    explicit ReplayPeer(const Recording& rec);
    ~ReplayPeer();
    uint16_t port() const { return port_; }
    uint64_t unknownRequests() const { return unknown_; }

private:
    void Run();
    const Recording& rec_;
    int listenFd_ = -1;
    uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> unknown_{0};
    std::thread thread_;
};

// Connects to `port` and plays `sequence` (request, then the whole reply), as a client that
// does nothing with the bytes would. Returns the bytes received; 0 on failure.
uint64_t RawExchanges(uint16_t port, const std::vector<Exchange>& sequence);

// Writes a kelvane.conf for 127.0.0.1:port and a settings file naming it, in `dir`; returns the
// settings file's path.
std::string WriteClientConfig(const std::string& dir, uint16_t port, const std::string& user,
                              const std::string& password);

}  // namespace bench
