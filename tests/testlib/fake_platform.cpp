#include "testlib/fake_platform.h"

#include <errno.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>

#include "platform/recorded_host.h"

uint64_t FakeClock::NowMs() const {
    std::lock_guard<std::mutex> g(mu_);
    return now_;
}

void FakeClock::SetAuto(bool a) {
    std::lock_guard<std::mutex> g(mu_);
    auto_ = a;
    cv_.notify_all();
}

bool FakeClock::IsAuto() const {
    std::lock_guard<std::mutex> g(mu_);
    return auto_;
}

void FakeClock::Notify() {
    std::lock_guard<std::mutex> g(mu_);
    cv_.notify_all();
}

void FakeClock::Advance(uint64_t ms) {
    std::lock_guard<std::mutex> g(mu_);
    now_ += ms;
    cv_.notify_all();
}

void FakeClock::RecordPause(uint32_t ms) {
    std::lock_guard<std::mutex> g(mu_);
    totalSlept_ += ms;
    calls_.push_back(ms);
}

void FakeClock::Sleep(uint32_t ms) {
    RecordPause(ms);
    WaitUntil(ms, [] { return false; });
}

namespace {

// An event whose waits run on the fake clock.
class FakeEvent : public PlatformEvent {
public:
    explicit FakeEvent(FakeClock& clock) : clock_(clock) {}
    void Set() override {
        set_ = true;
        clock_.Notify();
    }
    void Reset() override { set_ = false; }
    bool IsSet() override { return set_; }
    bool Wait(uint32_t ms) override {
        clock_.RecordPause(ms);
        return clock_.WaitUntil(ms, [this] { return set_.load(); }, 0, FakeClock::kAutoEventWaitMs);
    }

private:
    FakeClock& clock_;
    std::atomic<bool> set_{false};
};

// A file whose writes fail once the platform is told to fail files on its path.
class FailableFile : public PlatformFile {
public:
    FailableFile(std::unique_ptr<PlatformFile> f, TestPlatform* owner, std::string path)
        : f_(std::move(f)), owner_(owner), path_(std::move(path)) {}
    bool Write(const void* d, size_t n) override { return !owner_->FileFailure(path_) && f_->Write(d, n); }
    bool Flush() override { return !owner_->FileFailure(path_) && f_->Flush(); }
    int64_t Length() override { return f_->Length(); }
    bool Truncate() override { return !owner_->FileFailure(path_) && f_->Truncate(); }

private:
    std::unique_ptr<PlatformFile> f_;
    TestPlatform* owner_;
    std::string path_;
};

bool PollNow(int fd, short events = POLLIN) {
    pollfd p{fd, events, 0};
    return ::poll(&p, 1, 0) > 0;
}

// In auto mode a socket wait blocks for real for at most this long before the fake clock counts
// the whole wait as passed: a peer that answers does so long before, and a test that forgot to
// use manual mode for a silent peer fails quickly instead of hanging.
constexpr int kAutoSocketWaitCapMs = 20000;

}  // namespace

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

void TestPlatform::FailFiles(const std::string& pathPart, int err) {
    std::lock_guard<std::mutex> g(mu_);
    failPath_ = pathPart;
    failErr_ = err;
}

int TestPlatform::FileFailure(const std::string& path) const {
    std::lock_guard<std::mutex> g(mu_);
    return failErr_ != 0 && path.find(failPath_) != std::string::npos ? failErr_ : 0;
}

bool TestPlatform::ReadTextFile(const std::string& path, std::string* out, int* err) {
    if (int e = FileFailure(path)) {
        *err = e;
        return false;
    }
    return PlatformWrapper::ReadTextFile(path, out, err);
}

std::unique_ptr<PlatformFile> TestPlatform::OpenAppendFile(const std::string& path, int* err) {
    if (int e = FileFailure(path)) {
        *err = e;
        return nullptr;
    }
    std::unique_ptr<PlatformFile> f = PlatformWrapper::OpenAppendFile(path, err);
    if (!f) return nullptr;
    return std::make_unique<FailableFile>(std::move(f), this, path);
}

std::unique_ptr<PlatformEvent> TestPlatform::CreateEvent() { return std::make_unique<FakeEvent>(clock_); }

int TestPlatform::WaitReadable(int fd, uint32_t ms) { return WaitFor(fd, POLLIN, ms); }
int TestPlatform::WaitWritable(int fd, uint32_t ms) { return WaitFor(fd, POLLOUT, ms); }

int TestPlatform::WaitFor(int fd, short events, uint32_t ms) {
    if (PollNow(fd, events)) return 1;
    if (clock_.IsAuto()) {
        pollfd p{fd, events, 0};
        int r;
        do {
            r = ::poll(&p, 1, static_cast<int>(std::min<uint32_t>(ms, kAutoSocketWaitCapMs)));
        } while (r < 0 && errno == EINTR);
        if (r != 0) return r > 0 ? 1 : -1;
        clock_.Advance(ms);
        return 0;
    }
    return clock_.WaitUntil(ms, [fd, events] { return PollNow(fd, events); }, 2) ? 1 : 0;
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
void TestPlatform::Sleep(uint32_t ms) {
    clock_.Sleep(ms);
    std::function<void(uint32_t)> hook;
    {
        std::lock_guard<std::mutex> g(mu_);
        hook = sleepHook_;
    }
    if (hook) hook(ms);
}

void TestPlatform::SetSleepHook(std::function<void(uint32_t)> hook) {
    std::lock_guard<std::mutex> g(mu_);
    sleepHook_ = std::move(hook);
}
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

void TestPlatform::SetHostRoot(const std::string& root) {
    std::lock_guard<std::mutex> g(mu_);
    hostRoot_ = root;
    while (!hostRoot_.empty() && hostRoot_.back() == '/') hostRoot_.pop_back();
}
void TestPlatform::SetDeviceOpener(DeviceOpener opener) {
    std::lock_guard<std::mutex> g(mu_);
    deviceOpener_ = std::move(opener);
}
void TestPlatform::SetMultipathResponder(MultipathResponder responder) {
    std::lock_guard<std::mutex> g(mu_);
    multipathResponder_ = std::move(responder);
}
std::vector<std::string> TestPlatform::MultipathCommands() const {
    std::lock_guard<std::mutex> g(mu_);
    return multipathCommands_;
}
std::string TestPlatform::HostRoot() {
    std::lock_guard<std::mutex> g(mu_);
    return hostRoot_;
}
bool TestPlatform::ListDirectory(const std::string& path, std::vector<std::string>* names, int* err) {
    if (int e = FileFailure(path)) {
        names->clear();
        *err = e;
        return false;
    }
    return PlatformWrapper::ListDirectory(path, names, err);
}
std::unique_ptr<PlatformDevice> TestPlatform::OpenDevice(const std::string& path, int* err) {
    if (int e = FileFailure(path)) {
        *err = e;
        return nullptr;
    }
    DeviceOpener opener;
    {
        std::lock_guard<std::mutex> g(mu_);
        opener = deviceOpener_;
    }
    if (opener) return opener(path, err);
    return OpenRecordedDevice(HostRoot(), path, err);
}
bool TestPlatform::MultipathCommand(const std::string& command, std::string* reply, int* err) {
    MultipathResponder responder;
    {
        std::lock_guard<std::mutex> g(mu_);
        multipathCommands_.push_back(command);
        responder = multipathResponder_;
    }
    if (responder) return responder(command, reply, err);
    return RecordedMultipathCommand(HostRoot(), command, reply, err);
}
bool TestPlatform::WriteTextFile(const std::string& path, const std::string& content, int* err) {
    if (int e = FileFailure(path)) {
        *err = e;
        return false;
    }
    return PlatformWrapper::WriteTextFile(path, content, err);
}
