// The built programs (trovctl, trovproxy-sim) as child processes of a test: started with pipes
// or on a pseudo-terminal, their output read as it comes, and every wait bounded in real time
// (these are other processes: the fake clock does not reach them), after which the child is
// killed so that a hang fails the test instead of stalling it.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

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
    // Starts argv[0] with `argv`; `env` entries ("NAME=value", "-NAME" to remove) change the
    // environment. With `pty` the child runs on a pseudo-terminal (its standard input, output and
    // error), else on three pipes.
    Child(const std::vector<std::string>& argv, const std::vector<std::string>& env = {}, bool pty = false) {
        int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1};
        if (pty) {
            pid_ = forkpty(&in_, nullptr, nullptr, nullptr);
            if (pid_ > 0) {
                out_ = fcntl(in_, F_DUPFD_CLOEXEC, 0);
                fcntl(in_, F_SETFD, FD_CLOEXEC);
            }
        } else {
            // Close-on-exec: a later child must not hold this one's pipes open.
            if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
            pid_ = fork();
        }
        if (pid_ == 0) {
            if (!pty) {
                dup2(in[0], 0);
                dup2(out[1], 1);
                dup2(err[1], 2);
            }
            for (const std::string& e : env) {
                if (e[0] == '-')
                    unsetenv(e.c_str() + 1);
                else
                    putenv(strdup(e.c_str()));
            }
            std::vector<char*> args;
            for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
        if (!pty) {
            close(in[0]);
            close(out[1]);
            close(err[1]);
            in_ = in[1];
            out_ = out[0];
            err_ = err[0];
        }
    }
    ~Child() {
        if (pid_ > 0 && !reaped_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        CloseInput();
        if (out_ >= 0) close(out_);
        if (err_ >= 0) close(err_);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return pid_; }
    bool started() const { return pid_ > 0; }
    void Write(const std::string& s) { (void)!write(in_, s.data(), s.size()); }
    void CloseInput() {
        if (in_ >= 0) close(in_);
        in_ = -1;
    }
    void Signal(int sig) { kill(pid_, sig); }

    // Reads until `text` has appeared in the output (standard error included when on pipes), or
    // `ms` passed. True when it did.
    bool WaitFor(const std::string& text, int ms) {
        auto start = Clock::now();
        for (;;) {
            if (out.find(text) != std::string::npos || err.find(text) != std::string::npos) return true;
            int left = ms - MsSince(start);
            if (left <= 0 || !ReadSome(left)) return out.find(text) != std::string::npos ||
                                                     err.find(text) != std::string::npos;
        }
    }
    // Reads all output until the child ends or `ms` passed; true when it ended (then status()).
    bool Finish(int ms) {
        auto start = Clock::now();
        while (ReadSome(std::max(ms - MsSince(start), 0)) && MsSince(start) < ms) {
        }
        return Reap(std::max(ms - MsSince(start), 0));
    }
    // Waits up to `ms` for the child to end, without reading.
    bool Reap(int ms) {
        auto start = Clock::now();
        while (!reaped_) {
            int st = 0;
            pid_t r = waitpid(pid_, &st, WNOHANG);
            if (r == pid_) {
                reaped_ = true;
                status_ = st;
                break;
            }
            if (MsSince(start) >= ms) return false;
            usleep(5000);
        }
        return true;
    }
    bool exited() const { return reaped_ && WIFEXITED(status_); }
    int exitCode() const { return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1; }
    int termSignal() const { return reaped_ && WIFSIGNALED(status_) ? WTERMSIG(status_) : 0; }

    std::string out, err;

private:
    // Waits up to `ms` for output and takes what came; false when every stream has closed.
    bool ReadSome(int ms) {
        pollfd p[2];
        int n = 0;
        if (out_ >= 0) p[n++] = {out_, POLLIN, 0};
        if (err_ >= 0) p[n++] = {err_, POLLIN, 0};
        if (n == 0) return false;
        if (poll(p, static_cast<nfds_t>(n), ms) <= 0) return true;
        for (int i = 0; i < n; ++i) {
            if (!(p[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char buf[4096];
            ssize_t got = read(p[i].fd, buf, sizeof buf);
            std::string& to = p[i].fd == err_ ? err : out;
            if (got > 0) {
                to.append(buf, static_cast<size_t>(got));
            } else {
                // Closed (on a pseudo-terminal: EIO once the child has gone).
                int& fd = p[i].fd == err_ ? err_ : out_;
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
