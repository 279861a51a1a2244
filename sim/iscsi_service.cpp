#include "sim/iscsi_service.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

extern char** environ;

namespace trovsim {

namespace {

const char* kSocketName = "tgtd.sock";  // tgtd adds ".<control port>"
const char* kPidFile = "tgtd.pid";      // "<tgtd pid> <emulator pid>"
const char* kLockFile = "emulator.lock";
const char* kLogFile = "tgtd.log";
const char* kTempPrefix = "trovsim-iscsi.";

std::mutex g_foldersMu;
std::set<std::string> g_folders;  // folders served in this process

uint64_t NowMs() {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch()).count());
}

void SleepMs(int ms) { ::poll(nullptr, 0, ms); }

std::string ReadFile(const std::string& path, size_t max = 1 << 20) {
    std::ifstream in(path, std::ios::binary);
    std::string s;
    if (!in) return s;
    s.resize(max);
    in.read(s.data(), static_cast<std::streamsize>(max));
    s.resize(static_cast<size_t>(in.gcount()));
    return s;
}

std::string LastLines(const std::string& text, int n) {
    size_t end = text.size();
    while (end > 0 && text[end - 1] == '\n') --end;
    size_t at = end;
    for (int i = 0; i < n && at > 0; ++i) {
        at = text.rfind('\n', at - 1);
        if (at == std::string::npos) {
            at = 0;
            break;
        }
    }
    std::string out = text.substr(at, end - at);
    while (!out.empty() && out[0] == '\n') out.erase(0, 1);
    for (char& c : out)
        if (c == '\n') c = ' ';
    return out;
}

std::string ExitText(int status) {
    if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return "was killed by signal " + std::to_string(WTERMSIG(status));
    return "ended";
}

std::vector<std::string> Environment(const std::string& socket) {
    std::vector<std::string> env;
    for (char** e = environ; e && *e; ++e)
        if (std::strncmp(*e, "TGT_IPC_SOCKET=", 15) != 0) env.emplace_back(*e);
    env.push_back("TGT_IPC_SOCKET=" + socket);
    return env;
}

std::vector<char*> Pointers(std::vector<std::string>& v) {
    std::vector<char*> p;
    for (auto& s : v) p.push_back(s.data());
    p.push_back(nullptr);
    return p;
}

// The emulator blocks SIGINT and SIGTERM in every thread to take them with sigwait; its
// children start with nothing blocked.
void ResetSignals() {
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

void CloseFrom(int first) {
    if (::close_range(static_cast<unsigned>(first), ~0u, 0) == 0) return;
    for (int fd = first; fd < 1024; ++fd) ::close(fd);
}

// Runs a program to its end (at most `timeoutMs`), with its output in *out. The exit status, or -1.
int RunProcess(std::vector<std::string> argv, std::vector<std::string> env, int timeoutMs, std::string* out) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        if (out) *out = std::string("pipe: ") + std::strerror(errno);
        return -1;
    }
    std::vector<char*> a = Pointers(argv), e = Pointers(env);
    pid_t pid = ::fork();
    if (pid == 0) {
        ResetSignals();
        int null = ::open("/dev/null", O_RDONLY);
        ::dup2(null, 0);
        ::dup2(fds[1], 1);
        ::dup2(fds[1], 2);
        CloseFrom(3);
        ::execve(a[0], a.data(), e.data());
        _exit(127);
    }
    ::close(fds[1]);
    if (pid < 0) {
        ::close(fds[0]);
        if (out) *out = std::string("fork: ") + std::strerror(errno);
        return -1;
    }
    std::string text;
    uint64_t deadline = NowMs() + static_cast<uint64_t>(timeoutMs);
    bool timedOut = false;
    char buf[4096];
    while (true) {
        uint64_t now = NowMs();
        if (now >= deadline) {
            timedOut = true;
            break;
        }
        pollfd p{fds[0], POLLIN, 0};
        int n = ::poll(&p, 1, static_cast<int>(deadline - now));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) continue;
        ssize_t r = ::read(fds[0], buf, sizeof buf);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        if (text.size() < (1u << 20)) text.append(buf, static_cast<size_t>(r));
    }
    ::close(fds[0]);
    if (timedOut) ::kill(pid, SIGKILL);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (out) *out = timedOut ? "no answer within " + std::to_string(timeoutMs) + " ms" : text;
    if (timedOut) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool RemoveTree(const std::string& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) return errno == ENOENT;
    if (S_ISDIR(st.st_mode)) {
        if (DIR* d = ::opendir(path.c_str())) {
            while (dirent* e = ::readdir(d)) {
                std::string n = e->d_name;
                if (n != "." && n != "..") RemoveTree(path + "/" + n);
            }
            ::closedir(d);
        }
        return ::rmdir(path.c_str()) == 0;
    }
    return ::unlink(path.c_str()) == 0;
}

std::vector<std::string> ListFolder(const std::string& path) {
    std::vector<std::string> out;
    if (DIR* d = ::opendir(path.c_str())) {
        while (dirent* e = ::readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..") out.push_back(n);
        }
        ::closedir(d);
    }
    return out;
}

bool Alive(pid_t pid) {
    if (pid <= 0 || ::kill(pid, 0) != 0) return false;
    // A zombie is no longer serving anything.
    std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat", 512);
    size_t close = stat.rfind(')');
    return !(close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'Z');
}

// Processes named tgtd whose control socket is `socket` (read from their environment).
std::vector<pid_t> DaemonsUsing(const std::string& socket) {
    std::vector<pid_t> out;
    std::string want = "TGT_IPC_SOCKET=" + socket;
    for (const std::string& n : ListFolder("/proc")) {
        if (n.find_first_not_of("0123456789") != std::string::npos) continue;
        std::string dir = "/proc/" + n;
        std::string comm = ReadFile(dir + "/comm", 64);
        if (comm != "tgtd\n") continue;
        std::string env = ReadFile(dir + "/environ");
        size_t at = 0;
        while (at < env.size()) {
            size_t end = env.find('\0', at);
            if (end == std::string::npos) end = env.size();
            if (env.compare(at, end - at, want) == 0) {
                out.push_back(static_cast<pid_t>(std::atoi(n.c_str())));
                break;
            }
            at = end + 1;
        }
    }
    return out;
}

uint16_t FreeLoopbackPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    uint16_t port = 0;
    if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    if (fd >= 0) ::close(fd);
    return port;
}

}  // namespace

std::string FindProgram(const std::string& given, const std::string& name) {
    auto runnable = [](const std::string& p) { return !p.empty() && ::access(p.c_str(), X_OK) == 0; };
    if (!given.empty()) return given.find('/') != std::string::npos ? (runnable(given) ? given : "") : FindProgram("", given);
    std::string path = std::getenv("PATH") ? std::getenv("PATH") : "";
    path += ":/usr/sbin:/sbin:/usr/local/sbin";
    std::istringstream in(path);
    for (std::string dir; std::getline(in, dir, ':');)
        if (!dir.empty() && runnable(dir + "/" + name)) return dir + "/" + name;
    return "";
}

// ---------------------------------------------------------------------------------------------

class IscsiService::Driver : public IscsiDriver {
public:
    Driver(std::string tgtadm, std::string folder, uint16_t control)
        : tgtadm_(std::move(tgtadm)), folder_(std::move(folder)), control_(control) {}

    bool Tgtadm(const std::vector<std::string>& args, std::string* output) override {
        std::vector<std::string> argv{tgtadm_, "-C", std::to_string(control_)};
        argv.insert(argv.end(), args.begin(), args.end());
        return RunProcess(argv, Environment(folder_ + "/" + kSocketName), 10000, output) == 0;
    }
    bool SizeFile(const std::string& name, uint64_t bytes, std::string* error) override {
        std::string path = PathOf(name);
        int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        struct stat st;
        bool ok = fd >= 0 && ::fstat(fd, &st) == 0 &&
                  (static_cast<uint64_t>(st.st_size) == bytes || ::ftruncate(fd, static_cast<off_t>(bytes)) == 0);
        if (!ok && error) *error = path + ": " + std::strerror(errno);
        if (fd >= 0) ::close(fd);
        return ok;
    }
    bool RemoveFile(const std::string& name, std::string* error) override {
        if (::unlink(PathOf(name).c_str()) == 0 || errno == ENOENT) return true;
        if (error) *error = PathOf(name) + ": " + std::strerror(errno);
        return false;
    }
    std::string PathOf(const std::string& name) const override { return folder_ + "/" + name; }

private:
    std::string tgtadm_, folder_;
    uint16_t control_;
};

IscsiService::IscsiService(IscsiServiceOptions options, PlanFn plan)
    : opt_(std::move(options)), plan_(std::move(plan)), front_([this](const std::string& l) { Log(l); }) {}

IscsiService::~IscsiService() { Stop(); }

void IscsiService::Log(const std::string& line) const {
    if (opt_.log) opt_.log(line);
}

pid_t IscsiService::daemonPid() const {
    std::lock_guard<std::mutex> g(mu_);
    return pid_;
}

Endpoint IscsiService::backend() const {
    std::lock_guard<std::mutex> g(mu_);
    return backend_;
}

uint64_t IscsiService::daemonStarts() const {
    std::lock_guard<std::mutex> g(mu_);
    return starts_;
}

std::string IscsiService::Describe() const {
    std::lock_guard<std::mutex> g(mu_);
    return description_;
}

void IscsiService::CleanUpStale(const std::string& folder) {
    std::string socket = folder + "/" + kSocketName;
    std::set<pid_t> stale;
    std::istringstream pids(ReadFile(folder + "/" + kPidFile, 256));
    pid_t daemon = 0;
    pids >> daemon;
    for (pid_t p : DaemonsUsing(socket)) stale.insert(p);
    if (daemon > 0 && stale.count(daemon) == 0 && Alive(daemon)) {
        // The pid file names a process that is not a tgtd of this folder: not ours to stop.
        Log("iSCSI: the pid file of " + folder + " names process " + std::to_string(daemon) +
            ", which is not its tgtd; left alone");
    }
    for (pid_t p : stale) {
        ::kill(p, SIGKILL);
        for (int i = 0; i < 200 && Alive(p); ++i) SleepMs(10);
        Log("iSCSI: stopped tgtd (pid " + std::to_string(p) + ") left running by an earlier emulator in " + folder);
    }
    for (const std::string& n : ListFolder(folder))
        if (n.rfind(kSocketName, 0) == 0 || n == kPidFile) ::unlink((folder + "/" + n).c_str());
}

bool IscsiService::PrepareFolder(std::string* error) {
    // Temporary folders of emulators that were killed: their lock is free.
    const char* tmp = std::getenv("TMPDIR");
    std::string base = tmp && *tmp ? tmp : "/tmp";
    for (const std::string& n : ListFolder(base)) {
        if (n.rfind(kTempPrefix, 0) != 0) continue;
        std::string dir = base + "/" + n;
        int fd = ::open((dir + "/" + kLockFile).c_str(), O_RDWR | O_CLOEXEC);
        if (fd < 0) continue;
        bool free = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
        ::close(fd);
        if (!free) continue;
        CleanUpStale(dir);
        RemoveTree(dir);
        Log("iSCSI: removed " + dir + ", left by an emulator that did not stop");
    }

    if (opt_.folder.empty()) {
        std::string templ = base + "/" + kTempPrefix + std::to_string(::getpid()) + ".XXXXXX";
        if (!::mkdtemp(templ.data())) {
            if (error) *error = "cannot make a folder in " + base + ": " + std::strerror(errno);
            return false;
        }
        folder_ = templ;
        temporary_ = true;
    } else {
        folder_ = opt_.folder;
        temporary_ = false;
        if (::mkdir(folder_.c_str(), 0755) != 0 && errno != EEXIST) {
            if (error) *error = "cannot make the iSCSI folder " + folder_ + ": " + std::strerror(errno);
            return false;
        }
    }
    std::string socket = folder_ + "/" + kSocketName + ".65535.lock";
    if (socket.size() >= sizeof(sockaddr_un{}.sun_path)) {
        if (error) *error = "the iSCSI folder's path is too long for tgtd's control socket: " + folder_;
        if (temporary_) RemoveTree(folder_);
        return false;
    }
    {
        std::lock_guard<std::mutex> g(g_foldersMu);
        if (g_folders.count(folder_)) {
            if (error) *error = "the iSCSI folder " + folder_ + " is in use by another emulator in this process";
            return false;
        }
    }
    int lock = ::open((folder_ + "/" + kLockFile).c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0644);
    if (lock < 0 || ::flock(lock, LOCK_EX | LOCK_NB) != 0) {
        std::istringstream pids(ReadFile(folder_ + "/" + kPidFile, 256));
        pid_t daemon = 0, owner = 0;
        pids >> daemon >> owner;
        if (error)
            *error = "the iSCSI folder " + folder_ + " is in use by another emulator" +
                     (owner > 0 ? " (pid " + std::to_string(owner) + ")" : "");
        if (lock >= 0) ::close(lock);
        return false;
    }
    lockFd_ = lock;
    {
        std::lock_guard<std::mutex> g(g_foldersMu);
        g_folders.insert(folder_);
    }
    CleanUpStale(folder_);
    return true;
}

bool IscsiService::Start(const std::vector<Endpoint>& portals, std::string* error) {
    if (running()) return true;
    std::string tgtd = FindProgram(opt_.tgtd, "tgtd"), tgtadm = FindProgram(opt_.tgtadm, "tgtadm");
    if (tgtd.empty() || tgtadm.empty()) {
        if (error)
            *error = std::string(tgtd.empty() ? "tgtd" : "tgtadm") + " not found" +
                     (opt_.tgtd.empty() && opt_.tgtadm.empty() ? " on PATH, /usr/sbin or /sbin"
                                                               : " at " + (tgtd.empty() ? opt_.tgtd : opt_.tgtadm)) +
                     ": install the tgt package to serve iSCSI";
        return false;
    }
    opt_.tgtd = tgtd;
    opt_.tgtadm = tgtadm;
    if (portals.empty()) {
        if (error) *error = "no iSCSI portal to listen on";
        return false;
    }
    if (!PrepareFolder(error)) return false;
    if (!front_.Start(portals, error)) {
        ReleaseFolder();
        return false;
    }
    // tgtd takes control ports up to 32767 only; the socket lives in our own folder, so the
    // number only has to be valid, not unique.
    controlPort_ = static_cast<uint16_t>(portals.front().port & 0x7FFF);
    driver_ = std::make_unique<Driver>(tgtadm, folder_, controlPort_);
    reconciler_ = std::make_unique<IscsiReconciler>(*driver_, [this](const std::string& l) { Log(l); });
    std::set<std::string> files;
    for (const std::string& n : ListFolder(folder_))
        if (IsIscsiLunFile(n)) files.insert(n);
    reconciler_->AdoptFiles(files);
    {
        std::lock_guard<std::mutex> g(mu_);
        stop_ = false;
        startState_ = 0;
        startError_.clear();
        passes_ = 0;
        warnings_.clear();
        inStep_ = false;
    }
    thread_ = std::thread([this] { Loop(); });
    std::unique_lock<std::mutex> g(mu_);
    cv_.wait(g, [&] { return startState_ != 0; });
    if (startState_ < 0) {
        std::string why = startError_;
        g.unlock();
        thread_.join();
        front_.Stop();
        ReleaseFolder();
        if (error) *error = why;
        return false;
    }
    // Serving starts with the model's state in place, not an empty daemon.
    cv_.wait_for(g, std::chrono::milliseconds(opt_.startTimeoutMs), [&] { return passes_ > 0; });
    std::string where;
    for (const Endpoint& e : portals) where += (where.empty() ? "" : ", ") + e.Text();
    g.unlock();
    Log("iSCSI: serving on " + where + " through tgtd (pid " + std::to_string(daemonPid()) + ", control port " +
        std::to_string(controlPort_) + "), files in " + folder_);
    return true;
}

void IscsiService::ReleaseFolder() {
    if (lockFd_ >= 0) {
        if (temporary_) RemoveTree(folder_);
        else ::unlink((folder_ + "/" + kLockFile).c_str());
        ::close(lockFd_);
        lockFd_ = -1;
        std::lock_guard<std::mutex> g(g_foldersMu);
        g_folders.erase(folder_);
    }
}

void IscsiService::Stop() {
    if (!thread_.joinable()) return;
    {
        std::lock_guard<std::mutex> g(mu_);
        stop_ = true;
    }
    cv_.notify_all();
    thread_.join();
    front_.Stop();
    ReleaseFolder();
    Log("iSCSI: stopped");
}

void IscsiService::Poke() {
    {
        std::lock_guard<std::mutex> g(mu_);
        poked_ = true;
    }
    cv_.notify_all();
}

bool IscsiService::WaitInStep(uint64_t generation, uint32_t ms) {
    Poke();
    std::unique_lock<std::mutex> g(mu_);
    return cv_.wait_for(g, std::chrono::milliseconds(ms),
                        [&] { return inStep_ && inStepGeneration_ >= generation; });
}

bool IscsiService::SpawnDaemon(std::string* error) {
    std::string socket = folder_ + "/" + kSocketName;
    std::string log = folder_ + "/" + kLogFile;
    for (int attempt = 0; attempt < 3; ++attempt) {
        uint16_t port = FreeLoopbackPort();
        if (port == 0) {
            if (error) *error = "no free loopback port for tgtd";
            return false;
        }
        Endpoint internal{"127.0.0.1", port};
        std::vector<std::string> argv{opt_.tgtd, "-f", "-C", std::to_string(controlPort_), "--iscsi",
                                      "portal=" + internal.Text()};
        std::vector<std::string> env = Environment(socket);
        std::vector<char*> a = Pointers(argv), e = Pointers(env);
        int out = ::open(log.c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0644);
        size_t logStart = ReadFile(log).size();
        pid_t parent = ::getpid();
        pid_t pid = ::fork();
        if (pid == 0) {
            // Its own process group, so that a Ctrl-C at the terminal reaches the emulator alone,
            // which then stops tgtd in order; and gone with the thread that started it.
            ::setpgid(0, 0);
            ResetSignals();
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent) _exit(1);
            int null = ::open("/dev/null", O_RDONLY);
            ::dup2(null, 0);
            if (out >= 0) {
                ::dup2(out, 1);
                ::dup2(out, 2);
            }
            CloseFrom(3);
            ::execve(a[0], a.data(), e.data());
            _exit(127);
        }
        if (out >= 0) ::close(out);
        if (pid < 0) {
            if (error) *error = std::string("cannot start tgtd: ") + std::strerror(errno);
            return false;
        }
        {
            std::lock_guard<std::mutex> g(mu_);
            pid_ = pid;
        }
        std::ofstream(folder_ + "/" + kPidFile, std::ios::trunc) << pid << " " << parent << "\n";

        // Up when tgtadm reaches it; gone when it ended first.
        uint64_t deadline = NowMs() + opt_.startTimeoutMs;
        bool up = false;
        std::string how;
        while (NowMs() < deadline) {
            if (DaemonExited(&how)) break;
            std::string ignored;
            if (driver_->Tgtadm({"--op", "show", "--mode", "system"}, &ignored)) {
                up = true;
                break;
            }
            SleepMs(50);
        }
        if (!up) {
            std::string tail = LastLines(ReadFile(log).substr(std::min(logStart, ReadFile(log).size())), 3);
            if (how.empty()) {
                ::kill(pid, SIGKILL);
                ::waitpid(pid, nullptr, 0);
                how = "did not answer within " + std::to_string(opt_.startTimeoutMs) + " ms";
            }
            std::lock_guard<std::mutex> g(mu_);
            pid_ = -1;
            if (error) *error = "tgtd " + how + (tail.empty() ? "" : ": " + tail) + " (log: " + log + ")";
            return false;
        }
        // When it cannot bind the port it was given, tgtd listens on the wildcard address of the
        // default port instead: it must listen where asked and nowhere else.
        std::string portals;
        driver_->Tgtadm({"--lld", "iscsi", "--op", "show", "--mode", "portal"}, &portals);
        std::istringstream lines(portals);
        bool asked = false, other = false;
        for (std::string l; std::getline(lines, l);) {
            if (l.rfind("Portal: ", 0) != 0) continue;
            (l.compare(8, internal.Text().size() + 1, internal.Text() + ",") == 0 ? asked : other) = true;
        }
        if (asked && !other) {
            std::lock_guard<std::mutex> g(mu_);
            backend_ = internal;
            ++starts_;
            front_.SetBackend(internal);
            return true;
        }
        Log("iSCSI: tgtd did not listen on " + internal.Text() + " (" + LastLines(portals, 4) + "); trying another port");
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        std::lock_guard<std::mutex> g(mu_);
        pid_ = -1;
    }
    if (error) *error = "tgtd did not listen on the loopback port it was given, three times";
    return false;
}

bool IscsiService::DaemonExited(std::string* how) {
    pid_t pid;
    {
        std::lock_guard<std::mutex> g(mu_);
        pid = pid_;
    }
    if (pid <= 0) return true;
    int status = 0;
    pid_t r = ::waitpid(pid, &status, WNOHANG);
    if (r == 0) return false;
    if (how) *how = r == pid ? ExitText(status) : "is gone";
    std::lock_guard<std::mutex> g(mu_);
    pid_ = -1;
    return true;
}

void IscsiService::StopDaemon() {
    pid_t pid;
    {
        std::lock_guard<std::mutex> g(mu_);
        pid = pid_;
    }
    if (pid > 0) {
        std::string ignored;
        for (const auto& [name, t] : reconciler_->applied().targets)
            driver_->Tgtadm({"--lld", "iscsi", "--op", "delete", "--mode", "target", "--tid", std::to_string(t.tid), "--force"},
                            &ignored);
        std::string out;
        bool asked = driver_->Tgtadm({"--op", "delete", "--mode", "system"}, &out);
        bool gone = false;
        for (int i = 0; i < 150 && !gone; ++i) {
            gone = ::waitpid(pid, nullptr, WNOHANG) == pid;
            if (!gone) SleepMs(20);
        }
        if (!gone) {
            Log("iSCSI: tgtd (pid " + std::to_string(pid) + ") did not stop when asked" +
                (asked ? "" : " (" + LastLines(out, 1) + ")") + "; killed");
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        std::lock_guard<std::mutex> g(mu_);
        pid_ = -1;
    }
    for (const std::string& n : ListFolder(folder_))
        if (n.rfind(kSocketName, 0) == 0 || n == kPidFile) ::unlink((folder_ + "/" + n).c_str());
}

void IscsiService::Loop() {
    bool first = true;
    int unanswered = 0;
    while (true) {
        {
            std::lock_guard<std::mutex> g(mu_);
            if (stop_) break;
        }
        std::string how;
        if (!first && DaemonExited(&how)) {
            Log("iSCSI: tgtd " + how + "; starting a new one and rebuilding its state from the model");
            {
                std::lock_guard<std::mutex> g(mu_);
                inStep_ = false;
            }
            std::string err;
            if (!SpawnDaemon(&err)) {
                Log("iSCSI: cannot start tgtd again: " + err + "; trying again in a second");
                std::unique_lock<std::mutex> g(mu_);
                cv_.wait_for(g, std::chrono::seconds(1), [&] { return stop_; });
                continue;
            }
            reconciler_->ForgetDaemon();
        }
        if (first) {
            std::string err;
            bool ok = SpawnDaemon(&err);
            std::lock_guard<std::mutex> g(mu_);
            startState_ = ok ? 1 : -1;
            startError_ = err;
            cv_.notify_all();
            if (!ok) return;
            first = false;
        }

        uint64_t generation = 0;
        IscsiPlan plan = plan_(&generation);
        uint32_t refused = reconciler_->Sync(plan);
        if (refused) {
            // A daemon that no longer answers at all is replaced.
            std::string ignored;
            unanswered = driver_->Tgtadm({"--op", "show", "--mode", "system"}, &ignored) ? 0 : unanswered + 1;
            if (unanswered >= 3) {
                Log("iSCSI: tgtd does not answer; killing it");
                std::lock_guard<std::mutex> g(mu_);
                if (pid_ > 0) ::kill(pid_, SIGKILL);
                unanswered = 0;
            }
        }
        std::map<std::string, std::vector<std::string>> portals;
        for (const IscsiTargetPlan& t : plan.targets) portals[t.name] = t.portals;
        front_.SetTargetPortals(std::move(portals));

        std::ostringstream text;
        for (const auto& [name, t] : reconciler_->applied().targets) {
            text << "target " << t.tid << " " << name << ": admits ";
            if (t.admitAll) text << "all initiators";
            std::string who;
            for (const auto& n : t.names) who += (who.empty() ? "" : ", ") + n;
            for (const auto& n : t.addresses) who += (who.empty() ? "" : ", ") + n;
            if (!t.admitAll) text << (who.empty() ? "nobody" : who);
            if (!t.accounts.empty()) text << "; CHAP users " << t.accounts.size();
            text << "\n";
            for (const auto& [lun, l] : t.luns)
                text << "  LUN " << lun << ": " << l.bytes << " bytes, " << l.file << ", serial " << l.inquiry.serial << "\n";
        }

        std::unique_lock<std::mutex> g(mu_);
        std::set<std::string> now(plan.warnings.begin(), plan.warnings.end());
        for (const std::string& w : now)
            if (!warnings_.count(w)) Log("iSCSI warning: " + w);
        warnings_ = now;
        description_ = text.str();
        ++passes_;
        if (refused == 0) {
            inStep_ = true;
            inStepGeneration_ = generation;
        } else {
            inStep_ = false;
        }
        cv_.notify_all();
        cv_.wait_for(g, std::chrono::milliseconds(opt_.syncMs), [&] { return stop_ || poked_; });
        poked_ = false;
    }
    StopDaemon();
}

}  // namespace trovsim
