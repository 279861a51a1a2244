// The session with the proxy service: configuration, connection, handshake, login, listen-port
// announcement, reconnect and shutdown.
//
// The session also owns the provider's threads (the heartbeat thread and the event monitors).
// Each is started through the Platform and handed over with AdoptSessionThread; each pauses
// only through SessionPause, which the unload ends at once. ProxyUnInit wakes them (the stop
// event, the heartbeat channel and the TCP socket shut down), waits for their running flags
// on the Platform clock, and joins them before the packet buffer goes: after it, no provider
// thread is alive.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

class PlatformThread;

struct SessionState {
    char AgentIP[16] = {};
    char UserName[32] = {};
    uint8_t Password[48] = {};     // in clear; enciphered only in the login record
    uint32_t PasswordLength = 0;
    uint16_t Port = 0;
    std::atomic<uint32_t> HandshakeToken{0};
    std::atomic<bool> LostConnectionLogged{false};  // a process warns of a lost connection once
    std::atomic<int> terminating{0};
    // The event monitors' running flag (shared by all monitor threads), read by ProxyUnInit.
    std::atomic<int> processEventRunning{0};
};

extern SessionState g_session;

// The whole first connection; 0 or non-zero.
int ProxyConnect();
// Handshake, login and listen-port announcement in a row; the first non-zero result ends it.
int ProxyLogin();
int Handshake(uint8_t* buffer);
int Login(uint8_t* buffer);
int negotiate_listen_port(uint8_t* buffer);
// Tests the line with a handshake and, if it is gone, connects and logs in again.
int ProxyReconnect();
// The shutdown: terminating, the threads woken, goodbye, the heartbeat channel, the wait for
// the threads' running flags (ten steps of a second), the join, the socket closed, the buffer
// freed.
void ProxyUnInit();
void sig_action(int signal);
// The goodbye (when no exchange holds the line) and the shutdown of the TCP connection; the
// descriptor itself is closed by ProxyUnInit after the join.
void shut();

// Hands a started provider thread to the session, which joins it at the unload.
void AdoptSessionThread(std::unique_ptr<PlatformThread> thread);
// One pause of a provider thread, on the Platform clock: false after `ms`, true at once when
// the unload has begun.
bool SessionPause(uint32_t ms);
// Clears a thread's running flag (when given) and wakes ProxyUnInit's wait, under one lock.
void NotifyThreadEnded(std::atomic<int>* runningFlag = nullptr);
// Provider threads handed over and not joined yet.
int SessionThreadCount();

// Returns the connection (session, transport and heartbeat channel) to its state at process
// start; threads still running are woken and joined first (tests only).
void ResetSessionForTest();
