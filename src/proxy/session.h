// The session with the proxy service: configuration, connection, handshake, login, listen-port
// announcement, reconnect and shutdown.
#pragma once

#include <atomic>
#include <cstdint>

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
// The shutdown: terminating, goodbye, the heartbeat channel, the wait for the threads.
void ProxyUnInit();
void sig_action(int signal);
void shut();

// Clears a thread's running flag (when given) and wakes ProxyUnInit's wait, under one lock.
void NotifyThreadEnded(std::atomic<int>* runningFlag = nullptr);

// Returns the session to its state at process start (tests only).
void ResetSessionForTest();
