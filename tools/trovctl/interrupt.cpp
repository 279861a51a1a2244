#include "interrupt.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <vector>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>

namespace trovctl::interrupt {

namespace {

// Ctrl-Cs delivered and answered: one that comes while another is answered stays pending.
std::atomic<uint64_t> g_delivered{0}, g_answered{0};
std::atomic<bool> g_interactive{false};
std::atomic<int> g_endingSignal{0};
std::atomic<bool> g_resized{false};
std::mutex g_filesMu;
std::vector<std::string>* g_files = new std::vector<std::string>;  // never freed: read at the very end

int EventFd() {
    static int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    return fd;
}

void Die(int sig) {
    {
        std::lock_guard<std::mutex> g(g_filesMu);
        // Newest first: a folder's files before the folder.
        for (auto it = g_files->rbegin(); it != g_files->rend(); ++it) std::remove(it->c_str());
    }
    signal(sig, SIG_DFL);
    sigset_t s;
    sigemptyset(&s);
    sigaddset(&s, sig);
    pthread_sigmask(SIG_UNBLOCK, &s, nullptr);
    raise(sig);
    _exit(128 + sig);  // should the signal not end the process after all
}

void StartGrace(int sig) {
    // Detached: it either ends the process or the process ends first.
    std::thread([sig] {
        std::this_thread::sleep_for(std::chrono::milliseconds(kGraceMs));
        Die(sig);
    }).detach();
}

void Wake() {
    uint64_t one = 1;
    if (EventFd() >= 0) (void)!write(EventFd(), &one, sizeof one);
}

void Deliver(int sig) {
    if (sig == SIGWINCH) {
        g_resized = true;
        Wake();
        return;
    }
    bool ending = sig != SIGINT || !g_interactive.load() || Pending();
    ++g_delivered;
    Wake();
    if (ending) {
        int none = 0;
        if (g_endingSignal.compare_exchange_strong(none, sig)) StartGrace(sig);
    }
}

}  // namespace

void Install() {
    sigset_t sigs;
    sigemptyset(&sigs);
    sigaddset(&sigs, SIGINT);
    sigaddset(&sigs, SIGTERM);
    sigaddset(&sigs, SIGWINCH);
    pthread_sigmask(SIG_BLOCK, &sigs, nullptr);
    EventFd();
    std::thread([sigs] {
        for (;;) {
            int sig = 0;
            if (sigwait(&sigs, &sig) == 0) Deliver(sig);
        }
    }).detach();
}

void SetInteractive(bool interactive) { g_interactive = interactive; }

bool Pending() { return g_delivered.load() != g_answered.load(); }

void Clear() {
    // Counted before the drain: one that comes during it stays pending, and every reader looks
    // at Pending() before it waits.
    uint64_t delivered = g_delivered.load();
    Drain();
    g_answered = delivered;
}

int WakeFd() { return EventFd(); }

void Drain() {
    uint64_t n;
    if (EventFd() >= 0) (void)!read(EventFd(), &n, sizeof n);
}

bool Sleep(int ms) {
    using Clock = std::chrono::steady_clock;
    auto end = Clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        if (Pending()) return false;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) return true;
        pollfd p{EventFd(), POLLIN, 0};
        int r = poll(&p, EventFd() >= 0 ? 1 : 0, static_cast<int>(left));
        if (r < 0 && errno != EINTR) {
            std::this_thread::sleep_for(std::chrono::milliseconds(left));
        } else if (r > 0 && !Pending()) {
            Drain();  // a wake-up already answered, or a resize
        }
    }
}

bool Ending() { return g_endingSignal.load() != 0; }

bool TakeResize() { return g_resized.exchange(false); }

void RemoveIfCutShort(const std::string& path) {
    std::lock_guard<std::mutex> g(g_filesMu);
    g_files->push_back(path);
}

void ExitAsSignalled() {
    int sig = g_endingSignal.load();
    if (sig != 0) Die(sig);
}

}  // namespace trovctl::interrupt
