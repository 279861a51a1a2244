#include "platform/fake_platform.h"

#include <chrono>

uint64_t FakeClock::NowMs() const {
    std::lock_guard<std::mutex> g(mu_);
    return now_;
}

void FakeClock::SetAuto(bool a) {
    std::lock_guard<std::mutex> g(mu_);
    auto_ = a;
    cv_.notify_all();
}

void FakeClock::Advance(uint64_t ms) {
    std::lock_guard<std::mutex> g(mu_);
    now_ += ms;
    cv_.notify_all();
}

void FakeClock::Sleep(uint32_t ms) {
    std::unique_lock<std::mutex> g(mu_);
    totalSlept_ += ms;
    calls_.push_back(ms);
    if (auto_ || released_) {
        now_ += ms;
        return;
    }
    uint64_t deadline = now_ + ms;
    ++sleepers_;
    cv_.notify_all();
    cv_.wait(g, [&] { return now_ >= deadline || auto_ || released_; });
    --sleepers_;
    cv_.notify_all();
}

int FakeClock::Sleepers() const {
    std::lock_guard<std::mutex> g(mu_);
    return sleepers_;
}

bool FakeClock::WaitForSleepers(int n) {
    std::unique_lock<std::mutex> g(mu_);
    return cv_.wait_for(g, std::chrono::seconds(10), [&] { return sleepers_ >= n; });
}

uint64_t FakeClock::TotalSlept() const {
    std::lock_guard<std::mutex> g(mu_);
    return totalSlept_;
}

std::vector<uint32_t> FakeClock::SleepCalls() const {
    std::lock_guard<std::mutex> g(mu_);
    return calls_;
}

void FakeClock::ReleaseAll() {
    std::lock_guard<std::mutex> g(mu_);
    released_ = true;
    cv_.notify_all();
}

TestPlatform::TestPlatform() : PlatformWrapper(Platform::Default()) {}

void TestPlatform::Install() {
    if (installed_) return;
    previous_ = Platform::Get();
    Platform::Set(this);
    installed_ = true;
}

TestPlatform::~TestPlatform() {
    clock_.ReleaseAll();
    if (installed_) Platform::Set(previous_ == Platform::Default() ? nullptr : previous_);
}

void TestPlatform::SetSystemDirectories(const std::string& a, const std::string& b) {
    std::lock_guard<std::mutex> g(mu_);
    dir1_ = a;
    dir2_ = b;
}
void TestPlatform::SetHostVersion(uint32_t ma, uint32_t mi) {
    std::lock_guard<std::mutex> g(mu_);
    major_ = ma;
    minor_ = mi;
}
void TestPlatform::SetEventSourceAvailable(bool ok) {
    std::lock_guard<std::mutex> g(mu_);
    sourceOk_ = ok;
}
void TestPlatform::FailAllocAfter(int n) {
    std::lock_guard<std::mutex> g(mu_);
    failAlloc_ = n;
}
void TestPlatform::SetSequentialGuids(bool on) {
    std::lock_guard<std::mutex> g(mu_);
    seqGuids_ = on;
}
void TestPlatform::SetRecordDebugger(bool on) {
    std::lock_guard<std::mutex> g(mu_);
    recordDebugger_ = on;
}
std::vector<TestPlatform::Event> TestPlatform::Events() const {
    std::lock_guard<std::mutex> g(mu_);
    return events_;
}
std::string TestPlatform::DebuggerText() const {
    std::lock_guard<std::mutex> g(mu_);
    return debugger_;
}
void TestPlatform::ClearRecords() {
    std::lock_guard<std::mutex> g(mu_);
    events_.clear();
    debugger_.clear();
}

bool TestPlatform::KeyExists(const std::string& k) {
    std::lock_guard<std::mutex> g(mu_);
    return settings_.KeyExists(k);
}
bool TestPlatform::ReadStringValue(const std::string& k, const std::string& n, std::u16string* o) {
    std::lock_guard<std::mutex> g(mu_);
    const SettingsStore::Value* v = settings_.Find(k, n);
    if (!v || v->type != SettingsStore::Type::String) return false;
    *o = Utf8ToUtf16(v->text);
    return true;
}
bool TestPlatform::ReadDwordValue(const std::string& k, const std::string& n, uint32_t* o) {
    std::lock_guard<std::mutex> g(mu_);
    const SettingsStore::Value* v = settings_.Find(k, n);
    if (!v || v->type != SettingsStore::Type::Dword) return false;
    *o = v->dword;
    return true;
}
std::string TestPlatform::SystemDirectory() {
    std::lock_guard<std::mutex> g(mu_);
    return dir1_;
}
std::string TestPlatform::SecondSystemDirectory() {
    std::lock_guard<std::mutex> g(mu_);
    return dir2_;
}
bool TestPlatform::ReportEvent(EventType t, uint32_t id, const char* text) {
    std::lock_guard<std::mutex> g(mu_);
    if (!sourceOk_) return false;
    events_.push_back(Event{t, id, text ? text : ""});
    return true;
}
void TestPlatform::DebuggerOutput(const char* text) {
    std::lock_guard<std::mutex> g(mu_);
    if (recordDebugger_) debugger_ += text;
}
uint32_t TestPlatform::TickCount() { return static_cast<uint32_t>(clock_.NowMs()); }
void TestPlatform::Sleep(uint32_t ms) { clock_.Sleep(ms); }
struct tm TestPlatform::LocalTime() {
    // 2026-03-07 09:05:04 plus the fake clock's seconds since its start.
    struct tm base{};
    base.tm_year = 126;
    base.tm_mon = 2;
    base.tm_mday = 7;
    base.tm_hour = 9;
    base.tm_min = 5;
    base.tm_sec = 4 + static_cast<int>((clock_.NowMs() - 1000000) / 1000);
    timegm(&base);  // normalises the fields
    return base;
}
HRESULT TestPlatform::CreateGuid(GUID* out) {
    {
        std::lock_guard<std::mutex> g(mu_);
        if (seqGuids_) {
            *out = GUID{++guidCounter_, 0x1000, 0x2000, {0x80, 0, 0, 0, 0, 0, 0, 1}};
            return 0;
        }
    }
    return PlatformWrapper::CreateGuid(out);
}
void* TestPlatform::TaskMemAlloc(size_t n) {
    {
        std::lock_guard<std::mutex> g(mu_);
        if (failAlloc_ > 0 && --failAlloc_ == 0) return nullptr;
    }
    return PlatformWrapper::TaskMemAlloc(n);
}
void TestPlatform::HostVersion(uint32_t* ma, uint32_t* mi) {
    std::lock_guard<std::mutex> g(mu_);
    *ma = major_;
    *mi = minor_;
}
