// The one seam between the provider's logic and the operating system.
//
// Everything the logic needs of its host goes through Platform: the settings store, the
// directories where the proxy configuration is looked for, files, the local heartbeat channel,
// event reports, the debugger sink, the clock with its sleeps, events and socket waits, threads,
// named recursive mutexes, GUIDs, task-memory blocks, the host's version, and the host's devices
// (sysfs and /dev under HostRoot(), SCSI pass-through, the multipath daemon).
// Platform::Default() is the Linux implementation; tests derive from PlatformWrapper to replace
// one facility and install it with Platform::Set().
//
// Time: every wait of the logic is measured on the Platform clock (Sleep, PlatformEvent::Wait,
// WaitReadable), so that a test's clock decides when a wait ends.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/wintypes.h"

// A named recursive mutex of the process-wide table. A null handle means "run unlocked".
struct NamedMutex;
using MutexHandle = NamedMutex*;

// Event types of the event reports.
enum EventType : uint16_t {
    EVENTLOG_ERROR_TYPE = 1,
    EVENTLOG_WARNING_TYPE = 2,
    EVENTLOG_INFORMATION_TYPE = 4,
};

// Registry root of the provider's service key, and the two keys beneath it.
#define TROV_SERVICE_KEY "SYSTEM\\CurrentControlSet\\Services\\TroviSCSIVDSProvider"
#define TROV_PARAMETERS_KEY TROV_SERVICE_KEY "\\Parameters"
#define TROV_DEBUG_KEY TROV_SERVICE_KEY "\\Debug"
#define KELVANE_PARAMETERS_KEY "SYSTEM\\CurrentControlSet\\Services\\kelvane\\Parameters"

// Who may use the local heartbeat channel, and how long a connected client may stay silent.
struct LocalChannelPolicy {
    // Effective user ids whose connections are accepted; empty: anyone (no check).
    std::vector<uint32_t> allowedUids;
    // A read that gets nothing for this long fails with ETIMEDOUT; 0: no limit.
    uint32_t readTimeoutMs = 0;
};

// The peer of an accepted connection, as the kernel reports it.
struct LocalPeer {
    uint32_t pid = 0;
    uint32_t uid = UINT32_MAX;
};

// Server side of the local heartbeat channel: accept one client at a time, read, write, disconnect.
// Error codes are positive platform numbers; 0 is success.
class LocalChannel {
public:
    virtual ~LocalChannel() = default;
    // Blocks until a client connects. Returns 0, or an error (also when Shutdown() woke it).
    // A client whose user the policy doesn't allow is closed at once: the call returns EACCES
    // with *peer filled, and the channel is ready for the next client.
    virtual uint32_t Accept(LocalPeer* peer = nullptr) = 0;
    // One blocking read of up to len bytes from the connected client. Returns 0 and sets *got
    // (0 at the client's end of stream), ETIMEDOUT after the policy's read time-out, or an error.
    virtual uint32_t Read(void* buf, uint32_t len, uint32_t* got) = 0;
    virtual uint32_t Write(const void* buf, uint32_t len, uint32_t* written) = 0;
    virtual uint32_t Flush() = 0;
    // Ends the connection with the present client; the channel stays open for the next.
    virtual uint32_t Disconnect() = 0;
    // Wakes a blocked Accept() or Read() for good: they return an error from now on.
    virtual void Shutdown() = 0;
};

// A thread started through the Platform. The logic joins every thread it starts.
class PlatformThread {
public:
    virtual ~PlatformThread() = default;
    // Waits for the thread's end. Called once.
    virtual void Join() = 0;
};

// A manual-reset event: once Set(), every Wait() returns at once until Reset().
class PlatformEvent {
public:
    virtual ~PlatformEvent() = default;
    virtual void Set() = 0;
    virtual void Reset() = 0;
    virtual bool IsSet() = 0;
    // Waits until the event is set or `ms` of the Platform clock have passed; true when set.
    virtual bool Wait(uint32_t ms) = 0;
};

// A file opened for appending (the debug log). Errors are reported, never thrown.
class PlatformFile {
public:
    virtual ~PlatformFile() = default;
    virtual bool Write(const void* data, size_t n) = 0;
    virtual bool Flush() = 0;
    // The file's length in bytes; -1 when it can't be told.
    virtual int64_t Length() = 0;
    // Cuts the file to zero length; writing goes on at its (new) end.
    virtual bool Truncate() = 0;
};

// One SCSI command as SG_IO carries it: the CDB, the direction and buffer of its data, a time
// limit and a sense buffer; the call fills in the status, the residual and the sense length.
enum class ScsiDirection : uint8_t { None, FromDevice, ToDevice };
struct ScsiRequest {
    uint8_t cdb[16] = {};
    uint8_t cdbLength = 0;  // 6, 10, 12 or 16
    ScsiDirection direction = ScsiDirection::None;
    void* data = nullptr;
    uint32_t dataLength = 0;
    uint32_t timeoutMs = 60000;
    uint8_t* sense = nullptr;
    uint8_t senseCapacity = 0;
    // Filled by ScsiPassThrough.
    uint8_t status = 0;        // the SCSI status byte (2: CHECK CONDITION)
    uint32_t residual = 0;     // dataLength minus the bytes moved
    uint8_t senseLength = 0;   // sense bytes written, at most senseCapacity
    uint16_t hostStatus = 0;   // transport and driver results (0: none)
    uint16_t driverStatus = 0;
};

// A device opened through the Platform (a SCSI disk, tape or generic node).
class PlatformDevice {
public:
    virtual ~PlatformDevice() = default;
    // Runs one command. False with *err (an errno value) when the command could not be carried
    // at all; a command that ran and failed returns true with its status and sense.
    virtual bool ScsiPassThrough(ScsiRequest* request, int* err) = 0;
    // The descriptor of the opened node, for probes that read the device (libblkid).
    virtual int Descriptor() = 0;
};

class Platform {
public:
    virtual ~Platform() = default;

    // The Linux implementation; never null, lives for the process.
    static Platform* Default();
    // The platform the logic uses now (Default() unless a test installed another).
    static Platform* Get();
    // Installs p (null restores Default()). The caller keeps ownership.
    static void Set(Platform* p);

    // --- Settings store (the registry of the original, as a file in its export format) ---
    // Each reads value `name` of key `keyPath` under HKEY_LOCAL_MACHINE. A value that is absent
    // or of another type counts as missing: the call returns false and leaves *out alone.
    virtual bool KeyExists(const std::string& keyPath) = 0;
    virtual bool ReadStringValue(const std::string& keyPath, const std::string& name, std::u16string* out) = 0;
    virtual bool ReadDwordValue(const std::string& keyPath, const std::string& name, uint32_t* out) = 0;

    // --- Directories where kelvane.conf is looked for (first and last of the three places) ---
    virtual std::string SystemDirectory() = 0;        // "/etc"
    virtual std::string SecondSystemDirectory() = 0;  // "/usr/local/etc"

    // --- Files ---
    // Reads the whole file. False with *err (an errno value) when it can't be opened or read.
    virtual bool ReadTextFile(const std::string& path, std::string* out, int* err) = 0;
    // Opens (creating if need be) a file for appending. Null with *err on failure.
    virtual std::unique_ptr<PlatformFile> OpenAppendFile(const std::string& path, int* err) = 0;

    // --- Local heartbeat channel in the abstract namespace ---
    // Creates the listening end named `name` (without the leading '@'). Null and *err set on failure.
    virtual std::unique_ptr<LocalChannel> CreateLocalChannel(const std::string& name, const LocalChannelPolicy& policy,
                                                             uint32_t* err) = 0;

    // --- Event reports (syslog with ident TroviSCSIVDSProvider) and the debugger sink ---
    // Returns false when the source cannot be registered (the event is dropped).
    virtual bool ReportEvent(EventType type, uint32_t eventId, const char* text) = 0;
    virtual void DebuggerOutput(const char* text) = 0;

    // --- Clock, waits and threads ---
    virtual uint32_t TickCount() = 0;                 // milliseconds, wraps
    virtual void Sleep(uint32_t milliseconds) = 0;
    virtual struct tm LocalTime() = 0;
    virtual std::unique_ptr<PlatformEvent> CreateEvent() = 0;
    // Waits until `fd` is readable (or has an error or hang-up pending) or `ms` of the clock have
    // passed: 1 ready, 0 time-out, -1 failure (errno set). EINTR is retried inside.
    virtual int WaitReadable(int fd, uint32_t ms) = 0;
    // The same for writable (a non-blocking connect completes, or fails, as writable).
    virtual int WaitWritable(int fd, uint32_t ms) = 0;
    // Starts `body` on a new thread; null when no thread could be made.
    virtual std::unique_ptr<PlatformThread> StartThread(std::function<void()> body) = 0;

    // --- Named recursive mutexes (process-wide table; the same name gives the same mutex) ---
    virtual MutexHandle CreateNamedMutex(const char* name) = 0;
    virtual MutexHandle OpenNamedMutex(const char* name) = 0;
    virtual void CloseNamedMutex(MutexHandle h) = 0;
    // 0 on a clean acquisition; no time-out.
    virtual uint32_t WaitMutex(MutexHandle h) = 0;
    // Takes the mutex only if no other thread holds it; true when taken (a null handle: true).
    virtual bool TryWaitMutex(MutexHandle h) = 0;
    virtual void ReleaseMutex(MutexHandle h) = 0;

    // --- Identity and memory ---
    virtual HRESULT CreateGuid(GUID* out) = 0;
    virtual void* TaskMemAlloc(size_t bytes) = 0;     // null when exhausted
    virtual void TaskMemFree(void* p) = 0;

    // --- Host facts ---
    virtual void HostVersion(uint32_t* major, uint32_t* minor) = 0;
    virtual uint32_t ProcessId() = 0;
    virtual uint32_t ThreadId() = 0;
    // The process's effective user id.
    virtual uint32_t EffectiveUserId() = 0;
    // The user id of the account `name`; false when there is no such account.
    virtual bool LookupUserId(const std::string& name, uint32_t* uid) = 0;

    // --- The host's devices ---
    // The folder that stands for "/" when the provider looks at its host: "" for the running
    // system; else a recorded host laid out like / (sys/, dev/, etc/iscsi/initiatorname.iscsi,
    // multipathd/; see platform/recorded_host.h). The Linux platform takes it from the
    // environment variable TROVHWIPRV_HOST_ROOT.
    virtual std::string HostRoot() = 0;
    // The names in a folder (without "." and ".."), sorted. False with *err on failure.
    virtual bool ListDirectory(const std::string& path, std::vector<std::string>* names, int* err) = 0;
    // Opens a device node for SCSI pass-through (SG_IO). Null with *err when it can't be opened.
    virtual std::unique_ptr<PlatformDevice> OpenDevice(const std::string& path, int* err) = 0;
    // One command to the multipath daemon ("show maps json", "fail path sdb", ...) and its whole
    // reply. False with *err: ECONNREFUSED when no daemon answers, ETIMEDOUT when it stays
    // silent, EMSGSIZE when the reply is larger than any reply it gives.
    virtual bool MultipathCommand(const std::string& command, std::string* reply, int* err) = 0;
    // Replaces a file's content as one step (written beside it, then renamed over it).
    virtual bool WriteTextFile(const std::string& path, const std::string& content, int* err) = 0;
};

// Forwards every call to a target; tests derive from it and override what they replace.
class PlatformWrapper : public Platform {
public:
    explicit PlatformWrapper(Platform* target) : target_(target) {}
    Platform* target() const { return target_; }

    bool KeyExists(const std::string& k) override { return target_->KeyExists(k); }
    bool ReadStringValue(const std::string& k, const std::string& n, std::u16string* o) override {
        return target_->ReadStringValue(k, n, o);
    }
    bool ReadDwordValue(const std::string& k, const std::string& n, uint32_t* o) override {
        return target_->ReadDwordValue(k, n, o);
    }
    std::string SystemDirectory() override { return target_->SystemDirectory(); }
    std::string SecondSystemDirectory() override { return target_->SecondSystemDirectory(); }
    bool ReadTextFile(const std::string& p, std::string* o, int* e) override { return target_->ReadTextFile(p, o, e); }
    std::unique_ptr<PlatformFile> OpenAppendFile(const std::string& p, int* e) override {
        return target_->OpenAppendFile(p, e);
    }
    std::unique_ptr<LocalChannel> CreateLocalChannel(const std::string& n, const LocalChannelPolicy& pol,
                                                     uint32_t* e) override {
        return target_->CreateLocalChannel(n, pol, e);
    }
    bool ReportEvent(EventType t, uint32_t id, const char* text) override { return target_->ReportEvent(t, id, text); }
    void DebuggerOutput(const char* text) override { target_->DebuggerOutput(text); }
    uint32_t TickCount() override { return target_->TickCount(); }
    void Sleep(uint32_t ms) override { target_->Sleep(ms); }
    struct tm LocalTime() override { return target_->LocalTime(); }
    std::unique_ptr<PlatformEvent> CreateEvent() override { return target_->CreateEvent(); }
    int WaitReadable(int fd, uint32_t ms) override { return target_->WaitReadable(fd, ms); }
    int WaitWritable(int fd, uint32_t ms) override { return target_->WaitWritable(fd, ms); }
    std::unique_ptr<PlatformThread> StartThread(std::function<void()> body) override {
        return target_->StartThread(std::move(body));
    }
    MutexHandle CreateNamedMutex(const char* n) override { return target_->CreateNamedMutex(n); }
    MutexHandle OpenNamedMutex(const char* n) override { return target_->OpenNamedMutex(n); }
    void CloseNamedMutex(MutexHandle h) override { target_->CloseNamedMutex(h); }
    uint32_t WaitMutex(MutexHandle h) override { return target_->WaitMutex(h); }
    bool TryWaitMutex(MutexHandle h) override { return target_->TryWaitMutex(h); }
    void ReleaseMutex(MutexHandle h) override { target_->ReleaseMutex(h); }
    HRESULT CreateGuid(GUID* g) override { return target_->CreateGuid(g); }
    void* TaskMemAlloc(size_t n) override { return target_->TaskMemAlloc(n); }
    void TaskMemFree(void* p) override { target_->TaskMemFree(p); }
    void HostVersion(uint32_t* ma, uint32_t* mi) override { target_->HostVersion(ma, mi); }
    uint32_t ProcessId() override { return target_->ProcessId(); }
    uint32_t ThreadId() override { return target_->ThreadId(); }
    uint32_t EffectiveUserId() override { return target_->EffectiveUserId(); }
    bool LookupUserId(const std::string& n, uint32_t* uid) override { return target_->LookupUserId(n, uid); }
    std::string HostRoot() override { return target_->HostRoot(); }
    bool ListDirectory(const std::string& p, std::vector<std::string>* n, int* e) override {
        return target_->ListDirectory(p, n, e);
    }
    std::unique_ptr<PlatformDevice> OpenDevice(const std::string& p, int* e) override {
        return target_->OpenDevice(p, e);
    }
    bool MultipathCommand(const std::string& c, std::string* r, int* e) override {
        return target_->MultipathCommand(c, r, e);
    }
    bool WriteTextFile(const std::string& p, const std::string& c, int* e) override {
        return target_->WriteTextFile(p, c, e);
    }

private:
    Platform* target_;
};

// Shorthands used throughout the logic.
inline Platform* Plat() { return Platform::Get(); }
inline void* CoTaskMemAlloc(size_t n) { return Plat()->TaskMemAlloc(n); }
inline void CoTaskMemFree(void* p) { Plat()->TaskMemFree(p); }
inline HRESULT CoCreateGuid(GUID* g) { return Plat()->CreateGuid(g); }
