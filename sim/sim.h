// trovproxy-sim as a library: the proxy service's side of the session, the array model behind it,
// the heartbeat client, and faults on demand.
//
// A Server listens on a loopback TCP port (0 = any free one), serves each connection on a thread
// of its own, answers every command from its Model, and after a listen-port announcement
// connects now and then to the provider's heartbeat channel (the abstract unix socket
// "TROV_Proxy_<port>"). Stop() ends every thread it started; Start() may follow again, and
// Restart() does both while keeping the model. The model is reached through WithModel() or
// Lock()+model(), which hold the server's one mutex.
//
// With Options::iscsiPortal set, Start() also starts the data path (sim/iscsi_service.h): a tgtd
// of the emulator's own that serves the model's partitions as iSCSI LUNs and follows every change
// of the model; Start() fails when it cannot, and Stop() stops it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sim/clock.h"
#include "sim/model.h"

namespace trovsim {

// What a fault does to a matching request.
enum class FaultKind {
    kClose,        // close the connection instead of answering
    kNeverAnswer,  // take the request and never answer it
    kDelay,        // answer after `value` ms of the emulator's clock
    kError,        // answer with error_code `value`, without doing the command
    kShortHeader,  // do the command, send only the first `value` bytes (default 20) of the header
    kWrongOpcode,  // do the command, answer under opcode `value` (default: the request's + 1)
    kHugeDataLen,  // do the command, announce DataLen `value` (default 0x7FFFFFF0), send, close
    kRandomBytes,  // send `value` (default 64) random bytes instead of an answer
};

struct Fault {
    FaultKind kind = FaultKind::kClose;
    int64_t opcode = -1;  // the command's opcode; -1 = any command
    uint32_t skip = 0;    // matching commands to let through before it fires
    int32_t count = 1;    // how often it fires; -1 = for good
    uint32_t value = 0;
};

// Answers of the session that differ from the normal ones.
struct SessionFaults {
    int32_t handshakeVersion = -1;  // version byte of the handshake answer (normally 5)
    int32_t handshakeStatus = -1;   // status byte of the handshake answer (normally 1)
    int32_t loginStatus = -1;       // status word of the login answer (normally from the check)
    bool dropListenPort = false;    // close instead of accepting the listen port
};

struct Options {
    std::string user = "admin";
    std::string password = "!admin";
    std::string bindAddress = "127.0.0.1";
    uint16_t port = 0;                     // 0: a free port, see Server::port()
    uint32_t heartbeatIntervalMs = 5000;   // 0: heartbeats only through SendHeartbeatNow()
    bool heartbeatOnGoodbye = true;        // one last heartbeat after a goodbye
    bool manualClock = false;              // time moves only by AdvanceTime()
    bool closeOnBadMagic = true;           // otherwise a packet with a wrong magic is only logged
    uint32_t seed = 1;                     // session keys, tokens and random bytes
    std::string stateFile;                 // saved after every change when not empty
    bool logRequests = true;
    std::function<void(const std::string&)> logSink;  // one line each; null: standard error
    // The data path, off when empty: "ADDR:PORT" serves every target on that portal;
    // "loopback:PORT" first gives each iSCSI port of the model an address of its own on the
    // loopback network (127.<subsystem>.<controller>.<port>) and serves each target there.
    std::string iscsiPortal;
    std::string iscsiFolder;          // empty: "<stateFile>.iscsi", or a temporary folder without one
    std::string tgtdPath, tgtadmPath; // empty: looked up on PATH, /usr/sbin and /sbin
    uint32_t iscsiSyncMs = 250;       // between syncs when no change pokes one
};

struct Stats {
    uint64_t connections = 0, commands = 0, logins = 0, loginFailures = 0;
    uint64_t badMagic = 0, badCheckValue = 0, badDataLen = 0, unexpectedPackets = 0;
    uint64_t heartbeatsOk = 0, heartbeatsFailed = 0, goodbyes = 0;
    uint64_t encodings = 0;  // records encoded afresh (the cache's misses)
    uint32_t delayedReplies = 0;  // replies waiting for a delay fault's time now
    uint32_t lastSessionKey = 0, lastToken = 0;
    int32_t lastListenPort = -1;
};

class Encoder;
class Commands;
class IscsiService;

class Server {
public:
    explicit Server(Options options = {});
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // The starting model: "demo", "max" or a scenario file. With a state file that exists, the
    // state is loaded instead and the scenario only names what to start from otherwise.
    bool LoadScenario(const std::string& nameOrFile, std::string* error);

    bool Start(std::string* error = nullptr);
    void Stop();
    bool Restart(std::string* error = nullptr);  // same port, same model
    bool running() const { return running_; }
    uint16_t port() const { return port_; }
    const Options& options() const { return opt_; }

    // The model, under the server's mutex.
    std::unique_lock<std::mutex> Lock() { return std::unique_lock<std::mutex>(mu_); }
    Model& model() { return model_; }
    template <typename F>
    auto WithModel(F&& f) {
        std::lock_guard<std::mutex> g(mu_);
        struct After {
            Server* s;
            ~After() { s->AfterChangeLocked(); }
        } after{this};
        return f(model_);
    }

    // Time: moves the emulator's clock (and with it heartbeats, delays and utilities).
    Clock& clock() { return clock_; }
    void AdvanceTime(uint64_t ms);

    // Faults.
    void AddFault(const Fault& f);
    void ClearFaults();
    void CloseAfterCommands(uint32_t n) { AddFault({FaultKind::kClose, -1, n, 1, 0}); }
    void CloseAtOpcode(uint32_t op) { AddFault({FaultKind::kClose, op, 0, 1, 0}); }
    void DelayReply(int64_t op, uint32_t ms, int32_t count = 1) { AddFault({FaultKind::kDelay, op, 0, count, ms}); }
    void FailOpcode(uint32_t op, uint32_t error, int32_t count = 1) { AddFault({FaultKind::kError, op, 0, count, error}); }
    void NeverAnswer(bool on);
    void SetSessionFaults(const SessionFaults& f);
    // Closes the listening socket for `ms` of the emulator's clock: connects are refused.
    void RefuseConnections(uint64_t ms);
    bool refusing() const { return refusing_; }

    // Events and outages by hand. Handles and serials as the records carry them.
    uint32_t RaiseEvent(uint32_t handle, uint32_t code, uint32_t param, const std::string& driveSerial = "",
                        const Serial* partitionSerial = nullptr, const std::string& text = "");
    uint32_t SetControllerOffline(uint32_t handle, bool offline, uint8_t state = 1);
    uint32_t SetDriveOffline(const std::string& serial, bool offline);

    // A kelvane.conf that points at this server.
    bool WriteKelvaneConf(const std::string& path, std::string* error = nullptr) const;

    // Sends one heartbeat now to the last announced listen port; true when it was answered.
    bool SendHeartbeatNow();

    Stats stats() const;
    // The emulator's own log line, to the sink or standard error.
    void LogLine(const std::string& line) const;

    // Called with the model lock held after a change from outside (saves the state file, tells
    // the data path).
    void AfterChangeLocked();

    // The data path; null unless running with Options::iscsiPortal.
    IscsiService* iscsi() { return iscsi_.get(); }
    // Waits (real time, at most `ms`) until tgtd serves the model as it is now. True when it does.
    bool IscsiWaitInStep(uint32_t ms);

private:
    struct Conn;
    void AcceptLoop();
    void Serve(std::shared_ptr<Conn> c);
    void HeartbeatLoop();
    bool Heartbeat(int listenPort, uint32_t sessionKey);
    bool OpenListener(std::string* error);
    void CloseListener();
    bool HandleSession(Conn& c, const uint8_t* pkt, uint32_t len);
    bool HandleCommand(Conn& c, const uint8_t* pkt, uint32_t len);
    bool SendAll(Conn& c, const void* p, size_t n);
    bool MatchFault(uint32_t opcode, Fault* out);
    uint32_t NextSeq() { return seq_.fetch_add(1); }
    uint32_t Random();
    void SyncTimeLocked();
    bool StartIscsi(std::string* error);
    void StopIscsi();

    Options opt_;
    Clock clock_;
    mutable std::mutex mu_;  // the model, the encoder, the state file
    Model model_;
    std::unique_ptr<Encoder> encoder_;
    std::unique_ptr<Commands> commands_;
    int64_t modelOffset_ = 0;     // model time less the clock's time
    uint64_t savedChanges_ = 0;   // model changes written to the state file
    uint64_t pokedChanges_ = 0;   // model changes the data path was told of
    std::unique_ptr<IscsiService> iscsi_;

    std::atomic<bool> running_{false}, stopping_{false}, refusing_{false};
    std::atomic<uint64_t> refuseUntil_{0};
    std::atomic<uint32_t> seq_{0};
    int listenFd_ = -1;
    int wakeFd_ = -1;  // eventfd that wakes the accept loop
    uint16_t port_ = 0;
    std::thread acceptThread_;
    std::thread heartbeatThread_;

    mutable std::mutex connMu_;  // connections, faults, stats, heartbeat targets
    std::vector<std::shared_ptr<Conn>> conns_;
    std::vector<Fault> faults_;
    bool neverAnswer_ = false;
    SessionFaults sessionFaults_;
    Stats stats_;
    std::vector<uint32_t> issuedKeys_;  // session keys given out, newest last
    std::mutex randMu_;
    uint64_t randState_ = 0;
};

}  // namespace trovsim
