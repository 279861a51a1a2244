// Test doubles of the Platform: a fake clock in which no time passes for real, settings held in
// memory, recorded event reports and debugger output, a settable host version, an allocator
// that can be told to fail, and file operations that can be told to fail. The host's devices
// are those of a recorded host (platform/recorded_host.h) at a settable root, by default a
// folder that doesn't exist (a host with no devices and no multipath daemon), never those of the
// machine running the test; a test may script device nodes and the daemon's replies instead.
// Everything not replaced goes to the wrapped platform.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "platform/settings.h"

// Every wait of the logic goes through this clock: Sleep, PlatformEvent::Wait and WaitReadable.
// In auto mode (the default, for code that runs on the test's own thread) a wait that would
// block advances the clock at once by its length; an event wait first gives another thread a
// moment of real time (at most kAutoEventWaitMs) to set the event, as the threads woken by an
// unload do. In manual mode a waiter blocks until the test advances the clock past its
// deadline, or until its event is set or its socket is readable.
class FakeClock {
public:
    // Real time that an event wait in auto mode (or after ReleaseAll) grants another thread to
    // set its event before the wait counts as passed.
    static constexpr int kAutoEventWaitMs = 5000;

    uint64_t NowMs() const;
    void SetAuto(bool autoAdvance);
    bool IsAuto() const;
    void Advance(uint64_t ms);
    void Sleep(uint32_t ms);
    // Number of threads blocked in a wait (manual mode): sleeps, events and socket waits.
    int Sleepers() const;
    // Waits (for real, briefly) until at least n threads block in a wait; false after ~10 s.
    bool WaitForSleepers(int n);
    // The logic's timed pauses: every Sleep and every event wait, with the milliseconds asked
    // for, in the order they began; and their sum.
    uint64_t TotalSlept() const;
    std::vector<uint32_t> SleepCalls() const;
    // Wakes every waiter for good (used at the end of a test).
    void ReleaseAll();

    // The building block of the clock's waits: blocks until ready() holds (true), or the clock
    // passes now + ms (false). `pollMs`, when not 0, re-tests ready() every pollMs of real time
    // (for conditions the clock isn't told of, such as a socket becoming readable).
    // `autoWaitMs`: see kAutoEventWaitMs (0 for waits that no other thread ends).
    template <class Ready>
    bool WaitUntil(uint32_t ms, Ready ready, int pollMs = 0, int autoWaitMs = 0);
    // Wakes waiters to test their condition again (an event was set).
    void Notify();
    // Counts a timed pause of `ms` (Sleep and event waits).
    void RecordPause(uint32_t ms);

private:
    mutable std::mutex mu_;
    std::condition_variable cv_;
    uint64_t now_ = 1000000;
    bool auto_ = true;
    bool released_ = false;
    int sleepers_ = 0;
    uint64_t totalSlept_ = 0;
    std::vector<uint32_t> calls_;
};

template <class Ready>
bool FakeClock::WaitUntil(uint32_t ms, Ready ready, int pollMs, int autoWaitMs) {
    std::unique_lock<std::mutex> g(mu_);
    if (ready()) return true;
    if ((auto_ || released_) && autoWaitMs > 0) {
        cv_.wait_for(g, std::chrono::milliseconds(autoWaitMs), [&] { return ready() || !(auto_ || released_); });
        if (ready()) return true;
    }
    if (auto_ || released_) {
        now_ += ms;
        return ready();
    }
    uint64_t deadline = now_ + ms;
    ++sleepers_;
    cv_.notify_all();
    bool ok = false;
    for (;;) {
        if (ready()) {
            ok = true;
            break;
        }
        if (now_ >= deadline || auto_ || released_) break;
        if (pollMs > 0)
            cv_.wait_for(g, std::chrono::milliseconds(pollMs));
        else
            cv_.wait(g);
    }
    if (!ok && auto_ && now_ < deadline) now_ = deadline;
    --sleepers_;
    cv_.notify_all();
    return ok;
}

class TestPlatform : public PlatformWrapper {
public:
    struct Event {
        EventType type;
        uint32_t id;
        std::string text;
    };

    TestPlatform();
    // Installs itself as the current platform; the destructor restores the previous one.
    void Install();
    ~TestPlatform() override;

    SettingsStore& settings() { return settings_; }
    FakeClock& clock() { return clock_; }

    void SetSystemDirectories(const std::string& first, const std::string& second);
    void SetHostVersion(uint32_t major, uint32_t minor);
    void SetEventSourceAvailable(bool ok);
    // Called after each Sleep of the logic with its length (for example to move another clock
    // along, or to play a thread that runs while the logic pauses); empty: nothing.
    void SetSleepHook(std::function<void(uint32_t)> hook);
    // The n-th TaskMemAlloc from now (1 = the next) returns null; 0 disables.
    void FailAllocAfter(int n);
    // GUIDs come from a counter (deterministic) instead of randomness.
    void SetSequentialGuids(bool on);
    // When false, debugger output is not recorded (only kept out of stderr).
    void SetRecordDebugger(bool on);
    // File operations on paths that contain `pathPart` fail with errno `err` (0 clears): opening
    // and reading at once, writing to a file opened before the call as well.
    void FailFiles(const std::string& pathPart, int err);

    std::vector<Event> Events() const;
    std::string DebuggerText() const;
    void ClearRecords();

    bool KeyExists(const std::string& k) override;
    bool ReadStringValue(const std::string& k, const std::string& n, std::u16string* o) override;
    bool ReadDwordValue(const std::string& k, const std::string& n, uint32_t* o) override;
    std::string SystemDirectory() override;
    std::string SecondSystemDirectory() override;
    bool ReadTextFile(const std::string& path, std::string* out, int* err) override;
    std::unique_ptr<PlatformFile> OpenAppendFile(const std::string& path, int* err) override;
    bool ReportEvent(EventType t, uint32_t id, const char* text) override;
    void DebuggerOutput(const char* text) override;
    uint32_t TickCount() override;
    void Sleep(uint32_t ms) override;
    struct tm LocalTime() override;
    std::unique_ptr<PlatformEvent> CreateEvent() override;
    int WaitReadable(int fd, uint32_t ms) override;
    int WaitWritable(int fd, uint32_t ms) override;
    HRESULT CreateGuid(GUID* g) override;
    void* TaskMemAlloc(size_t n) override;
    void HostVersion(uint32_t* ma, uint32_t* mi) override;

    // The errno that file operations on `path` fail with now; 0 when they don't.
    int FileFailure(const std::string& path) const;

    // --- The host's devices ---
    using DeviceOpener = std::function<std::unique_ptr<PlatformDevice>(const std::string& path, int* err)>;
    using MultipathResponder = std::function<bool(const std::string& command, std::string* reply, int* err)>;
    // The recorded host that stands for "/" (no trailing slash).
    void SetHostRoot(const std::string& root);
    // Opens device nodes instead of the recorded host (null: the recorded host again).
    void SetDeviceOpener(DeviceOpener opener);
    // Answers multipath daemon commands instead of the recorded host (null: the recorded host).
    void SetMultipathResponder(MultipathResponder responder);
    // Every command the daemon was sent, in order.
    std::vector<std::string> MultipathCommands() const;

    std::string HostRoot() override;
    bool ListDirectory(const std::string& path, std::vector<std::string>* names, int* err) override;
    std::unique_ptr<PlatformDevice> OpenDevice(const std::string& path, int* err) override;
    bool MultipathCommand(const std::string& command, std::string* reply, int* err) override;
    bool WriteTextFile(const std::string& path, const std::string& content, int* err) override;

private:
    int WaitFor(int fd, short events, uint32_t ms);

    mutable std::mutex mu_;
    SettingsStore settings_;
    FakeClock clock_;
    Platform* previous_ = nullptr;
    bool installed_ = false;
    std::string dir1_ = "/nonexistent/etc", dir2_ = "/nonexistent/usr/local/etc";
    uint32_t major_ = 6, minor_ = 2;
    bool sourceOk_ = true;
    int failAlloc_ = 0;
    bool seqGuids_ = false;
    uint32_t guidCounter_ = 0;
    bool recordDebugger_ = true;
    std::string failPath_;
    int failErr_ = 0;
    std::function<void(uint32_t)> sleepHook_;
    std::vector<Event> events_;
    std::string debugger_;
    std::string hostRoot_ = "/nonexistent/host";
    DeviceOpener deviceOpener_;
    MultipathResponder multipathResponder_;
    std::vector<std::string> multipathCommands_;
};
