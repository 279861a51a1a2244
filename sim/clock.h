// The emulator's clock. In real mode it follows the steady clock; in manual mode it stands still
// until Advance() moves it, so that tests decide when heartbeats fall due, when a delayed reply
// goes out and how far a utility has come. Advance() works in both modes (it adds an offset).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace trovsim {

class Clock {
public:
    explicit Clock(bool manual = false) : manual_(manual), start_(std::chrono::steady_clock::now()) {}

    bool manual() const { return manual_; }

    uint64_t NowMs() const {
        std::lock_guard<std::mutex> g(mu_);
        return NowLocked();
    }

    void Advance(uint64_t ms) {
        {
            std::lock_guard<std::mutex> g(mu_);
            offset_ += ms;
        }
        cv_.notify_all();
    }

    // Blocks until NowMs() reaches `deadline`. False when Interrupt() came first.
    bool WaitUntil(uint64_t deadline) {
        struct Count {
            std::atomic<int>& n;
            explicit Count(std::atomic<int>& c) : n(c) { ++n; }
            ~Count() { --n; }
        } count(waiters_);
        std::unique_lock<std::mutex> g(mu_);
        while (NowLocked() < deadline) {
            if (interrupted_) return false;
            if (manual_) {
                cv_.wait(g);
            } else {
                auto left = std::chrono::milliseconds(deadline - NowLocked());
                cv_.wait_for(g, std::min<std::chrono::milliseconds>(left, std::chrono::milliseconds(200)));
            }
        }
        return !interrupted_;
    }

    // Wakes every waiter at once; they, and all later waits until Resume(), return false.
    void Interrupt() {
        {
            std::lock_guard<std::mutex> g(mu_);
            interrupted_ = true;
        }
        cv_.notify_all();
    }
    void Resume() {
        std::lock_guard<std::mutex> g(mu_);
        interrupted_ = false;
    }

    // Number of threads blocked in WaitUntil (for tests that step the clock).
    int Waiters() const { return waiters_.load(); }

private:
    uint64_t NowLocked() const {
        if (manual_) return offset_;
        auto real = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start_);
        return static_cast<uint64_t>(real.count()) + offset_;
    }

    const bool manual_;
    const std::chrono::steady_clock::time_point start_;
    mutable std::mutex mu_;
    std::condition_variable cv_;
    uint64_t offset_ = 0;
    bool interrupted_ = false;
    std::atomic<int> waiters_{0};
};

}  // namespace trovsim
