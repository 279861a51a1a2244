// The built programs (trovctl, trovproxy-sim) as child processes of a test, on pipes or on a
// pseudo-terminal. Every wait is bounded in real time - these are other processes, which the fake
// clock does not reach - and the destructor kills what still runs, so that a hang fails the test
// instead of stalling it.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

namespace testchild {

using Clock = std::chrono::steady_clock;

inline int MsSince(Clock::time_point t) {
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

class Child {
public:
    // `env`: "NAME=value" sets, "-NAME" removes. With `pty` the child's standard streams are a
    // pseudo-terminal (standard error reads as output), else three pipes.
    Child(const std::vector<std::string>& argv, const std::vector<std::string>& env = {}, bool pty = false) {
        int in[2], out[2], err[2];
        // Close-on-exec: a later child must not hold this one's pipes open.
        if (pty)
            pid_ = forkpty(&in_, nullptr, nullptr, nullptr);
        else if (pipe2(in, O_CLOEXEC) == 0 && pipe2(out, O_CLOEXEC) == 0 && pipe2(err, O_CLOEXEC) == 0)
            pid_ = fork();
        if (pid_ == 0) {
            if (!pty) dup2(in[0], 0), dup2(out[1], 1), dup2(err[1], 2);
            for (const std::string& e : env) e[0] == '-' ? unsetenv(e.c_str() + 1) : putenv(strdup(e.c_str()));
            std::vector<char*> args;
            for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
        if (pty && pid_ > 0) {
            fcntl(in_, F_SETFD, FD_CLOEXEC);
            out_ = fcntl(in_, F_DUPFD_CLOEXEC, 0);
        } else if (!pty && pid_ > 0) {
            close(in[0]), close(out[1]), close(err[1]);
            in_ = in[1], out_ = out[0], err_ = err[0];
        }
    }
    ~Child() {
        if (pid_ > 0 && !reaped_) kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0);
        for (int fd : {in_, out_, err_})
            if (fd >= 0) close(fd);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void Write(const std::string& s) { (void)!write(in_, s.data(), s.size()); }
    void Signal(int sig) { kill(pid_, sig); }

    // Reads until `text` appears in the output or standard error from offset `from` on; false
    // when `ms` passed first.
    bool WaitFor(const std::string& text, int ms, size_t from = 0) {
        auto seen = [&] {
            return (out.size() > from && out.find(text, from) != std::string::npos) ||
                   (err.size() > from && err.find(text, from) != std::string::npos);
        };
        auto start = Clock::now();
        while (!seen() && MsSince(start) < ms && ReadSome(ms - MsSince(start))) {
        }
        return seen();
    }
    // Reads everything until the child ends; false when it still runs after `ms`.
    bool Finish(int ms) {
        auto start = Clock::now();
        while (MsSince(start) < ms && ReadSome(ms - MsSince(start))) {
        }
        return Reap(std::max(ms - MsSince(start), 0));
    }
    // Waits for the child to end, without reading; false when it still runs after `ms`.
    bool Reap(int ms) {
        auto start = Clock::now();
        while (!reaped_ && waitpid(pid_, &status_, WNOHANG) != pid_) {
            if (MsSince(start) >= ms) return false;
            usleep(5000);
        }
        reaped_ = true;
        return true;
    }
    bool exited() const { return reaped_ && WIFEXITED(status_); }
    int exitCode() const { return exited() ? WEXITSTATUS(status_) : -1; }
    int termSignal() const { return reaped_ && WIFSIGNALED(status_) ? WTERMSIG(status_) : 0; }

    std::string out, err;

private:
    // Waits up to `ms` for output and takes it; false once every stream has closed (on a
    // pseudo-terminal: EIO once the child has gone).
    bool ReadSome(int ms) {
        pollfd p[2];
        nfds_t n = 0;
        for (int fd : {out_, err_})
            if (fd >= 0) p[n++] = {fd, POLLIN, 0};
        if (n == 0) return false;
        if (poll(p, n, std::max(ms, 0)) <= 0) return true;
        for (nfds_t i = 0; i < n; ++i) {
            if (!(p[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            int& fd = p[i].fd == err_ ? err_ : out_;
            char buf[4096];
            ssize_t got = read(fd, buf, sizeof buf);
            if (got > 0) {
                (fd == err_ ? err : out).append(buf, static_cast<size_t>(got));
            } else {
                close(fd);
                fd = -1;
            }
        }
        return true;
    }

    pid_t pid_ = -1;
    int in_ = -1, out_ = -1, err_ = -1;
    bool reaped_ = false;
    int status_ = 0;
};

}  // namespace testchild
