// Test doubles of the Platform: a fake clock in which no time passes for real, settings held in
// memory, recorded event reports and debugger output, a settable host version, and an allocator
// that can be told to fail. Everything not replaced goes to the wrapped platform.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "platform/settings.h"

// Sleep() on a fake clock either advances the clock at once (auto mode, the default, for code
// that runs on the test's own thread) or blocks until the test advances the clock past the
// sleeper's deadline (manual mode, for threads the test drives step by step).
class FakeClock {
public:
    uint64_t NowMs() const;
    void SetAuto(bool autoAdvance);
    void Advance(uint64_t ms);
    void Sleep(uint32_t ms);
    // Number of threads blocked in Sleep (manual mode).
    int Sleepers() const;
    // Waits (for real, briefly) until at least n threads block in Sleep; false after ~10 s.
    bool WaitForSleepers(int n);
    // Total milliseconds that Sleep was asked for, and the calls.
    uint64_t TotalSlept() const;
    std::vector<uint32_t> SleepCalls() const;
    // Wakes every sleeper for good (used at the end of a test).
    void ReleaseAll();

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
    // The n-th TaskMemAlloc from now (1 = the next) returns null; 0 disables.
    void FailAllocAfter(int n);
    // GUIDs come from a counter (deterministic) instead of randomness.
    void SetSequentialGuids(bool on);
    // When false, debugger output is not recorded (only kept out of stderr).
    void SetRecordDebugger(bool on);

    std::vector<Event> Events() const;
    std::string DebuggerText() const;
    void ClearRecords();

    bool KeyExists(const std::string& k) override;
    bool ReadStringValue(const std::string& k, const std::string& n, std::u16string* o) override;
    bool ReadDwordValue(const std::string& k, const std::string& n, uint32_t* o) override;
    std::string SystemDirectory() override;
    std::string SecondSystemDirectory() override;
    bool ReportEvent(EventType t, uint32_t id, const char* text) override;
    void DebuggerOutput(const char* text) override;
    uint32_t TickCount() override;
    void Sleep(uint32_t ms) override;
    struct tm LocalTime() override;
    HRESULT CreateGuid(GUID* g) override;
    void* TaskMemAlloc(size_t n) override;
    void HostVersion(uint32_t* ma, uint32_t* mi) override;

private:
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
    std::vector<Event> events_;
    std::string debugger_;
};
