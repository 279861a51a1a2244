// The emulator's iSCSI portals: where initiators connect. Each connection is relayed to the target
// daemon, which listens on a loopback port of its own, and two of the daemon's answers are put
// the way the array gives them:
//
// - the unit serial number page (0x80): the daemon right-aligns the serial in a field of 36
//   bytes, padded with blanks in front; the array's page holds the serial text alone, and the
//   provider compares that text exactly. The front drops the blanks (and fixes the lengths);
// - discovery (SendTargets): the daemon names its own loopback port as every target's address;
//   the front names the portals where the target is reached, or the address the initiator used.
//
// Everything else passes unchanged, PDU by PDU. When a connection negotiates header or data
// digests (the daemon offers none, so this does not happen in practice) the front stops looking
// and relays bytes as they come. A PDU is held whole before it goes on, at most 16 MiB as its own
// length fields allow; a side that has 4 MiB waiting toward it is not read from until it takes them.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace trovsim {

struct Endpoint {
    std::string host;  // numeric IPv4 or IPv6 address; empty = any
    uint16_t port = 0;
    std::string Text() const;
    bool operator==(const Endpoint&) const = default;
};

// "ADDR:PORT", "[IPV6]:PORT" or ":PORT". False on anything else.
bool ParseEndpoint(const std::string& text, Endpoint* out);

// The byte work, apart from the sockets.
//
// `pdu` is one whole PDU (header, additional headers, data and padding) of a Data-In that ends a
// command with its status, answering an INQUIRY of page 0x80. Drops the blanks in front of the
// serial text, shortens the page and the data segment and adds the bytes dropped to the residual.
// False (and `pdu` unchanged) when the PDU is not such a complete answer or has no blanks.
bool PatchSerialPage(std::vector<uint8_t>& pdu);

// `pdu` is a Text Response. Each TargetAddress of a target named in it becomes the addresses
// `portalsOf` gives for that target ("ADDR:PORT", keeping the daemon's portal group tag), or
// `fallback` when it gives none. False (and `pdu` unchanged) when there is nothing to change or
// the text continues in another PDU.
bool RewriteTargetAddresses(std::vector<uint8_t>& pdu, const std::string& fallback,
                            const std::function<std::vector<std::string>(const std::string&)>& portalsOf);

// True when `pdu` (a SCSI Command) asks for INQUIRY page 0x80.
bool IsSerialPageInquiry(const uint8_t* pdu, size_t len);

class IscsiFront {
public:
    using LogFn = std::function<void(const std::string&)>;
    explicit IscsiFront(LogFn log);
    ~IscsiFront();
    IscsiFront(const IscsiFront&) = delete;
    IscsiFront& operator=(const IscsiFront&) = delete;

    // Binds every portal; false with *error naming the one that failed (in use, no such address).
    bool Start(const std::vector<Endpoint>& portals, std::string* error);
    void Stop();  // closes every portal and connection and joins their threads

    // Where the daemon listens now; connections made from now on go there.
    void SetBackend(const Endpoint& backend);
    // The portals of each target, for discovery answers.
    void SetTargetPortals(std::map<std::string, std::vector<std::string>> portals);

    struct Stats {
        uint64_t connections = 0, backendFailures = 0, serialPagesFixed = 0, discoveryAnswersFixed = 0;
        uint64_t rawConnections = 0;
    };
    Stats stats() const;

private:
    struct Conn;
    void AcceptLoop();
    void Relay(std::shared_ptr<Conn> c);
    std::vector<std::string> PortalsOf(const std::string& target) const;

    LogFn log_;
    std::vector<int> listenFds_;
    std::vector<Endpoint> portals_;
    int wakeFd_ = -1;
    std::atomic<bool> stopping_{false};
    std::thread acceptThread_;
    mutable std::mutex mu_;  // everything below
    Endpoint backend_;
    std::map<std::string, std::vector<std::string>> targetPortals_;
    std::vector<std::shared_ptr<Conn>> conns_;
    Stats stats_;
};

}  // namespace trovsim
