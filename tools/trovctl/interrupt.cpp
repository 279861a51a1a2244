#include "interrupt.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>

namespace trovctl::interrupt {

namespace {

std::atomic<bool> g_pending{false};
std::atomic<bool> g_interactive{false};
std::atomic<int> g_endingSignal{0};

int EventFd() {
    static int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    return fd;
}

void Die(int sig) {
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

}  // namespace

void Deliver(int sig) {
    bool ending = sig != SIGINT || !g_interactive.load() || g_pending.load();
    g_pending = true;
    uint64_t one = 1;
    if (EventFd() >= 0) (void)!write(EventFd(), &one, sizeof one);
    if (ending) {
        int none = 0;
        if (g_endingSignal.compare_exchange_strong(none, sig)) StartGrace(sig);
    }
}

void Install() {
    sigset_t sigs;
    sigemptyset(&sigs);
    sigaddset(&sigs, SIGINT);
    sigaddset(&sigs, SIGTERM);
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

bool Pending() { return g_pending.load(); }

void Clear() {
    // Drained first: a Ctrl-C between the two steps leaves the descriptor readable, never the
    // flag raised with nothing to wake a reader.
    uint64_t n;
    if (EventFd() >= 0) (void)!read(EventFd(), &n, sizeof n);
    g_pending = false;
}

int WakeFd() { return EventFd(); }

bool Sleep(int ms) {
    using Clock = std::chrono::steady_clock;
    auto end = Clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        if (g_pending.load()) return false;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) return true;
        pollfd p{EventFd(), POLLIN, 0};
        int r = poll(&p, EventFd() >= 0 ? 1 : 0, static_cast<int>(left));
        if (r < 0 && errno != EINTR) {
            std::this_thread::sleep_for(std::chrono::milliseconds(left));
        } else if (r > 0 && !g_pending.load()) {
            uint64_t n;  // a wake-up already answered
            (void)!read(EventFd(), &n, sizeof n);
        }
    }
}

bool Ending() { return g_endingSignal.load() != 0; }

void ExitAsSignalled() {
    int sig = g_endingSignal.load();
    if (sig != 0) Die(sig);
}

}  // namespace trovctl::interrupt
