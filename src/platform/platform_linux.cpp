// The Linux implementation of the Platform.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <poll.h>
#include <pwd.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/named_mutex.h"
#include "platform/platform.h"
#include "platform/recorded_host.h"
#include "platform/settings.h"

namespace {

// Random (version 4) ids from a pool that one getrandom call fills for 64 of them: a load makes
// an id for every object, and libuuid's per-id seeding and reading cost more than the rest of
// making the object. Without getrandom, libuuid makes each one.
void RandomUuid(uuid_t u) {
    static std::mutex mu;
    static uint8_t pool[64 * 16];
    static size_t used = sizeof pool;
    {
        std::lock_guard<std::mutex> g(mu);
        if (used == sizeof pool) {
            ssize_t n = syscall(SYS_getrandom, pool, sizeof pool, 0);
            if (n == static_cast<ssize_t>(sizeof pool)) used = 0;
        }
        if (used < sizeof pool) {
            std::memcpy(u, pool + used, 16);
            std::memset(pool + used, 0, 16);  // an id handed out is not kept
            used += 16;
            u[6] = static_cast<uint8_t>((u[6] & 0x0F) | 0x40);  // version 4
            u[8] = static_cast<uint8_t>((u[8] & 0x3F) | 0x80);  // RFC 4122 variant
            return;
        }
    }
    uuid_generate_random(u);
}

// Abstract-namespace stream socket: one client at a time, as a named pipe with one instance.
// An abstract name has no file permissions, so the policy's user check and read time-out are
// what keep a stranger from holding the channel.
class AbstractSocketChannel : public LocalChannel {
public:
    AbstractSocketChannel(int listenFd, LocalChannelPolicy policy) : listen_(listenFd), policy_(std::move(policy)) {}
    ~AbstractSocketChannel() override {
        Shutdown();
        int c = client_.exchange(-1);
        if (c >= 0) ::close(c);
        int l = listen_.exchange(-1);
        if (l >= 0) ::close(l);
    }
    uint32_t Accept(LocalPeer* peer) override {
        if (client_.load() >= 0) return 0;  // still connected: the caller goes on with the same client
        if (down_.load()) return EPIPE;
        int fd = ::accept4(listen_.load(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return static_cast<uint32_t>(errno ? errno : EPIPE);
        if (down_.load()) {
            ::close(fd);
            return EPIPE;
        }
        ucred cred{};
        socklen_t len = sizeof cred;
        bool known = ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0;
        if (peer) {
            peer->pid = known ? static_cast<uint32_t>(cred.pid) : 0;
            peer->uid = known ? static_cast<uint32_t>(cred.uid) : UINT32_MAX;
        }
        if (!policy_.allowedUids.empty() &&
            (!known || std::find(policy_.allowedUids.begin(), policy_.allowedUids.end(),
                                 static_cast<uint32_t>(cred.uid)) == policy_.allowedUids.end())) {
            ::close(fd);
            return EACCES;
        }
        if (policy_.readTimeoutMs) {
            timeval tv{static_cast<time_t>(policy_.readTimeoutMs / 1000),
                       static_cast<suseconds_t>(policy_.readTimeoutMs % 1000) * 1000};
            ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        }
        client_.store(fd);
        return 0;
    }
    uint32_t Read(void* buf, uint32_t len, uint32_t* got) override {
        *got = 0;
        int fd = client_.load();
        if (fd < 0) return ENOTCONN;
        ssize_t n;
        do { n = ::recv(fd, buf, len, 0); } while (n < 0 && errno == EINTR);
        if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK ? ETIMEDOUT : static_cast<uint32_t>(errno);
        *got = static_cast<uint32_t>(n);
        return 0;
    }
    uint32_t Write(const void* buf, uint32_t len, uint32_t* written) override {
        *written = 0;
        int fd = client_.load();
        if (fd < 0) return ENOTCONN;
        ssize_t n = ::send(fd, buf, len, MSG_NOSIGNAL);
        if (n < 0) return static_cast<uint32_t>(errno);
        *written = static_cast<uint32_t>(n);
        return 0;
    }
    uint32_t Flush() override { return client_.load() >= 0 ? 0 : ENOTCONN; }
    uint32_t Disconnect() override {
        int fd = client_.exchange(-1);
        if (fd < 0) return ENOTCONN;
        ::close(fd);
        return 0;
    }
    void Shutdown() override {
        down_.store(true);
        int l = listen_.load();
        if (l >= 0) ::shutdown(l, SHUT_RDWR);
        int c = client_.load();
        if (c >= 0) ::shutdown(c, SHUT_RDWR);
    }

private:
    std::atomic<int> listen_;
    std::atomic<int> client_{-1};
    std::atomic<bool> down_{false};
    const LocalChannelPolicy policy_;
};

class LinuxEvent : public PlatformEvent {
public:
    void Set() override {
        std::lock_guard<std::mutex> g(mu_);
        set_ = true;
        cv_.notify_all();
    }
    void Reset() override {
        std::lock_guard<std::mutex> g(mu_);
        set_ = false;
    }
    bool IsSet() override {
        std::lock_guard<std::mutex> g(mu_);
        return set_;
    }
    bool Wait(uint32_t ms) override {
        std::unique_lock<std::mutex> g(mu_);
        return cv_.wait_for(g, std::chrono::milliseconds(ms), [this] { return set_; });
    }

private:
    std::mutex mu_;
    std::condition_variable cv_;
    bool set_ = false;
};

class LinuxThread : public PlatformThread {
public:
    explicit LinuxThread(std::thread t) : t_(std::move(t)) {}
    ~LinuxThread() override {
        if (t_.joinable()) t_.detach();
    }
    void Join() override {
        if (t_.joinable() && t_.get_id() != std::this_thread::get_id()) t_.join();
    }

private:
    std::thread t_;
};

class LinuxFile : public PlatformFile {
public:
    explicit LinuxFile(int fd) : fd_(fd) {}
    ~LinuxFile() override { ::close(fd_); }
    bool Write(const void* data, size_t n) override {
        const char* p = static_cast<const char*>(data);
        while (n > 0) {
            ssize_t w = ::write(fd_, p, n);
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) return false;
            p += w;
            n -= static_cast<size_t>(w);
        }
        return true;
    }
    bool Flush() override { return true; }  // every Write goes straight to the file
    int64_t Length() override {
        struct stat st;
        return ::fstat(fd_, &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
    }
    bool Truncate() override { return ::ftruncate(fd_, 0) == 0; }

private:
    int fd_;
};

// A device node of the running system: every command goes through SG_IO, field for field.
class SgDevice : public PlatformDevice {
public:
    explicit SgDevice(int fd) : fd_(fd) {}
    ~SgDevice() override { ::close(fd_); }
    int Descriptor() override { return fd_; }
    bool ScsiPassThrough(ScsiRequest* r, int* err) override {
        if (r->cdbLength == 0 || r->cdbLength > sizeof r->cdb) {
            *err = EINVAL;
            return false;
        }
        sg_io_hdr_t h{};
        h.interface_id = 'S';
        h.cmd_len = r->cdbLength;
        h.cmdp = r->cdb;
        h.dxfer_direction = r->direction == ScsiDirection::FromDevice ? SG_DXFER_FROM_DEV
                            : r->direction == ScsiDirection::ToDevice ? SG_DXFER_TO_DEV
                                                                      : SG_DXFER_NONE;
        h.dxfer_len = r->data ? r->dataLength : 0;
        h.dxferp = r->data;
        h.mx_sb_len = r->sense ? r->senseCapacity : 0;
        h.sbp = r->sense;
        h.timeout = r->timeoutMs;
        int rc;
        do { rc = ::ioctl(fd_, SG_IO, &h); } while (rc < 0 && errno == EINTR);
        if (rc < 0) {
            *err = errno;
            return false;
        }
        r->status = h.status;
        r->residual = h.resid < 0 ? 0 : std::min<uint32_t>(static_cast<uint32_t>(h.resid), r->dataLength);
        r->senseLength = std::min<uint8_t>(h.sb_len_wr, r->senseCapacity);
        r->hostStatus = h.host_status;
        r->driverStatus = h.driver_status;
        *err = 0;
        return true;
    }

private:
    int fd_;
};

// The multipath daemon's control socket, in the abstract namespace.
constexpr char kMultipathdSocket[] = "/org/kernel/linux/storage/multipathd";
// How long the daemon may take to answer, and the largest reply taken from it.
constexpr uint32_t kMultipathdTimeoutMs = 4000;
constexpr uint64_t kMaxMultipathdReply = 16u << 20;

class LinuxPlatform : public Platform {
public:
    bool KeyExists(const std::string& k) override {
        std::lock_guard<std::mutex> g(mu_);
        Reload();
        return store_.KeyExists(k);
    }
    bool ReadStringValue(const std::string& k, const std::string& n, std::u16string* out) override {
        std::lock_guard<std::mutex> g(mu_);
        Reload();
        const SettingsStore::Value* v = store_.Find(k, n);
        if (!v || v->type != SettingsStore::Type::String) return false;
        *out = Utf8ToUtf16(v->text);
        return true;
    }
    bool ReadDwordValue(const std::string& k, const std::string& n, uint32_t* out) override {
        std::lock_guard<std::mutex> g(mu_);
        Reload();
        const SettingsStore::Value* v = store_.Find(k, n);
        if (!v || v->type != SettingsStore::Type::Dword) return false;
        *out = v->dword;
        return true;
    }
    std::string SystemDirectory() override { return "/etc"; }
    std::string SecondSystemDirectory() override { return "/usr/local/etc"; }

    bool ReadTextFile(const std::string& path, std::string* out, int* err) override {
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            *err = errno;
            return false;
        }
        out->clear();
        char buf[65536];
        for (;;) {
            ssize_t n = ::read(fd, buf, sizeof buf);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                *err = errno;
                ::close(fd);
                return false;
            }
            if (n == 0) break;
            out->append(buf, static_cast<size_t>(n));
        }
        ::close(fd);
        *err = 0;
        return true;
    }
    std::unique_ptr<PlatformFile> OpenAppendFile(const std::string& path, int* err) override {
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd < 0) {
            *err = errno;
            return nullptr;
        }
        *err = 0;
        return std::make_unique<LinuxFile>(fd);
    }

    std::unique_ptr<LocalChannel> CreateLocalChannel(const std::string& name, const LocalChannelPolicy& policy,
                                                     uint32_t* err) override {
        int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            *err = static_cast<uint32_t>(errno);
            return nullptr;
        }
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        size_t n = std::min(name.size(), sizeof(addr.sun_path) - 1);
        std::memcpy(addr.sun_path + 1, name.data(), n);  // leading NUL: abstract namespace
        socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + n);
        if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), len) < 0 || ::listen(fd, 2) < 0) {
            *err = static_cast<uint32_t>(errno);
            ::close(fd);
            return nullptr;
        }
        *err = 0;
        return std::make_unique<AbstractSocketChannel>(fd, policy);
    }

    bool ReportEvent(EventType type, uint32_t eventId, const char* text) override {
        int prio = type == EVENTLOG_ERROR_TYPE ? LOG_ERR : type == EVENTLOG_WARNING_TYPE ? LOG_WARNING : LOG_INFO;
        openlog("TroviSCSIVDSProvider", LOG_PID | LOG_NDELAY, LOG_DAEMON);
        syslog(prio, "%s", text);
        closelog();
        return true;
    }
    void DebuggerOutput(const char* text) override { std::fputs(text, stderr); }

    uint32_t TickCount() override { return static_cast<uint32_t>(NowMs()); }
    void Sleep(uint32_t ms) override {
        timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
        while (nanosleep(&ts, &ts) < 0 && errno == EINTR) {
        }
    }
    struct tm LocalTime() override {
        time_t t = time(nullptr);
        struct tm r;
        localtime_r(&t, &r);
        return r;
    }
    std::unique_ptr<PlatformEvent> CreateEvent() override { return std::make_unique<LinuxEvent>(); }
    int WaitReadable(int fd, uint32_t ms) override { return WaitFor(fd, POLLIN, ms); }
    int WaitWritable(int fd, uint32_t ms) override { return WaitFor(fd, POLLOUT, ms); }
    static int WaitFor(int fd, short events, uint32_t ms) {
        // Measured against the monotonic clock, so that a retried EINTR doesn't lengthen the wait.
        uint64_t deadline = NowMs() + ms;
        for (;;) {
            uint64_t now = NowMs();
            int left = now >= deadline ? 0 : static_cast<int>(std::min<uint64_t>(deadline - now, INT32_MAX));
            pollfd p{fd, events, 0};
            int r = ::poll(&p, 1, left);
            if (r < 0 && errno == EINTR) continue;
            if (r < 0) return -1;
            return r > 0 ? 1 : 0;
        }
    }
    std::unique_ptr<PlatformThread> StartThread(std::function<void()> body) override {
        try {
            return std::make_unique<LinuxThread>(std::thread(std::move(body)));
        } catch (const std::system_error&) {
            return nullptr;
        }
    }

    MutexHandle CreateNamedMutex(const char* name) override { return NamedMutexTable::Instance().Create(name); }
    MutexHandle OpenNamedMutex(const char* name) override { return NamedMutexTable::Instance().Open(name); }
    void CloseNamedMutex(MutexHandle h) override { NamedMutexTable::Instance().Close(h); }
    uint32_t WaitMutex(MutexHandle h) override { return NamedMutexTable::Wait(h); }
    bool TryWaitMutex(MutexHandle h) override { return NamedMutexTable::TryWait(h); }
    void ReleaseMutex(MutexHandle h) override { NamedMutexTable::Release(h); }

    HRESULT CreateGuid(GUID* out) override {
        uuid_t u;
        RandomUuid(u);
        out->Data1 = uint32_t(u[0]) << 24 | uint32_t(u[1]) << 16 | uint32_t(u[2]) << 8 | u[3];
        out->Data2 = static_cast<uint16_t>(u[4] << 8 | u[5]);
        out->Data3 = static_cast<uint16_t>(u[6] << 8 | u[7]);
        std::memcpy(out->Data4, u + 8, 8);
        return 0;
    }
    void* TaskMemAlloc(size_t n) override { return std::malloc(n ? n : 1); }
    void TaskMemFree(void* p) override { std::free(p); }

    void HostVersion(uint32_t* major, uint32_t* minor) override {
        *major = 6;
        *minor = 2;
    }
    uint32_t ProcessId() override { return static_cast<uint32_t>(getpid()); }
    uint32_t ThreadId() override { return static_cast<uint32_t>(syscall(SYS_gettid)); }
    uint32_t EffectiveUserId() override { return static_cast<uint32_t>(geteuid()); }
    bool LookupUserId(const std::string& name, uint32_t* uid) override {
        long size = sysconf(_SC_GETPW_R_SIZE_MAX);
        std::vector<char> buf(size > 0 ? static_cast<size_t>(size) : 16384);
        passwd pw{};
        passwd* found = nullptr;
        int rc;
        while ((rc = getpwnam_r(name.c_str(), &pw, buf.data(), buf.size(), &found)) == ERANGE && buf.size() < (1u << 20))
            buf.resize(buf.size() * 2);
        if (rc != 0 || !found) return false;
        *uid = static_cast<uint32_t>(found->pw_uid);
        return true;
    }

    std::string HostRoot() override {
        const char* env = std::getenv("TROVHWIPRV_HOST_ROOT");
        std::string root = env ? env : "";
        while (!root.empty() && root.back() == '/') root.pop_back();
        return root;
    }
    bool ListDirectory(const std::string& path, std::vector<std::string>* names, int* err) override {
        names->clear();
        DIR* d = ::opendir(path.c_str());
        if (!d) {
            *err = errno;
            return false;
        }
        while (dirent* e = ::readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..") names->push_back(std::move(n));
        }
        ::closedir(d);
        std::sort(names->begin(), names->end());
        *err = 0;
        return true;
    }
    std::unique_ptr<PlatformDevice> OpenDevice(const std::string& path, int* err) override {
        std::string root = HostRoot();
        if (!root.empty()) return OpenRecordedDevice(root, path, err);
        int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0 && (errno == EACCES || errno == EROFS)) fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            *err = errno;
            return nullptr;
        }
        *err = 0;
        return std::make_unique<SgDevice>(fd);
    }
    bool MultipathCommand(const std::string& command, std::string* reply, int* err) override {
        std::string root = HostRoot();
        if (!root.empty()) return RecordedMultipathCommand(root, command, reply, err);
        return DaemonCommand(command, reply, err);
    }
    bool WriteTextFile(const std::string& path, const std::string& content, int* err) override {
        std::string tmp = path + ".tmp." + std::to_string(getpid());
        int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) {
            *err = errno;
            return false;
        }
        LinuxFile f(fd);
        if (!f.Write(content.data(), content.size()) || ::fsync(fd) != 0 || ::rename(tmp.c_str(), path.c_str()) != 0) {
            *err = errno ? errno : EIO;
            ::unlink(tmp.c_str());
            return false;
        }
        *err = 0;
        return true;
    }

private:
    // Reads exactly n bytes, each wait bounded by the daemon's time limit.
    bool ReadFull(int fd, void* buf, size_t n, int* err) {
        char* p = static_cast<char*>(buf);
        while (n > 0) {
            int ready = WaitReadable(fd, kMultipathdTimeoutMs);
            if (ready <= 0) {
                *err = ready == 0 ? ETIMEDOUT : errno;
                return false;
            }
            ssize_t got = ::recv(fd, p, n, 0);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) {
                *err = got == 0 ? ECONNRESET : errno;
                return false;
            }
            p += got;
            n -= static_cast<size_t>(got);
        }
        return true;
    }

    // The daemon's framing: the length of what follows as a native size_t, then the text with
    // its terminator; the reply comes back the same way.
    bool DaemonCommand(const std::string& command, std::string* reply, int* err) {
        reply->clear();
        int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            *err = errno;
            return false;
        }
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::memcpy(addr.sun_path + 1, kMultipathdSocket, sizeof kMultipathdSocket - 1);
        socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sizeof kMultipathdSocket);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), len) < 0) {
            ::close(fd);
            *err = ECONNREFUSED;
            return false;
        }
        std::string out(sizeof(size_t), '\0');
        size_t cmdLen = command.size() + 1;
        std::memcpy(out.data(), &cmdLen, sizeof cmdLen);
        out.append(command);
        out.push_back('\0');
        bool ok = ::send(fd, out.data(), out.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(out.size());
        if (!ok) *err = errno ? errno : EPIPE;
        size_t replyLen = 0;
        ok = ok && ReadFull(fd, &replyLen, sizeof replyLen, err);
        if (ok && replyLen > kMaxMultipathdReply) {
            *err = EMSGSIZE;
            ok = false;
        }
        if (ok) {
            reply->resize(replyLen);
            ok = ReadFull(fd, reply->data(), replyLen, err);
            while (ok && !reply->empty() && reply->back() == '\0') reply->pop_back();
        }
        ::close(fd);
        if (ok) *err = 0;
        else reply->clear();
        return ok;
    }

    static uint64_t NowMs() {
        timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return ts.tv_sec * 1000ull + ts.tv_nsec / 1000000;
    }

    // Re-reads the settings file when it changed; an absent file means no keys.
    void Reload() {
        const char* env = std::getenv("TROVHWIPRV_SETTINGS");
        std::string path = env && *env ? env : "/etc/trovhwiprv/settings.reg";
        struct stat st;
        if (::stat(path.c_str(), &st) != 0) {
            store_.Clear();
            loadedPath_.clear();
            return;
        }
        if (path == loadedPath_ && st.st_mtim.tv_sec == mtime_.tv_sec && st.st_mtim.tv_nsec == mtime_.tv_nsec &&
            st.st_size == size_ && st.st_ino == ino_)
            return;
        std::ifstream f(path, std::ios::binary);
        std::stringstream ss;
        ss << f.rdbuf();
        store_.Clear();
        store_.Parse(ss.str());
        loadedPath_ = path;
        mtime_ = st.st_mtim;
        size_ = st.st_size;
        ino_ = st.st_ino;
    }

    std::mutex mu_;
    SettingsStore store_;
    std::string loadedPath_;
    timespec mtime_{};
    off_t size_ = 0;
    ino_t ino_ = 0;
};

std::atomic<Platform*> g_current{nullptr};

}  // namespace

Platform* Platform::Default() {
    static LinuxPlatform* p = new LinuxPlatform();  // lives for the process: threads may outlast main
    return p;
}

Platform* Platform::Get() {
    Platform* p = g_current.load(std::memory_order_acquire);
    return p ? p : Default();
}

void Platform::Set(Platform* p) { g_current.store(p, std::memory_order_release); }
