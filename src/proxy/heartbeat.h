// The heartbeat channel: the service connects to "@TROV_Proxy_<n>" (n = the low 16 bits of the
// process id, the listen port announced in the session), sends a heartbeat and is answered with
// a 36-byte header of DataType 5 and OpCode 0. One thread, recv_events, serves it from the
// connect sequence to the shutdown; the session joins it.
//
// An abstract socket has no file permissions, so the channel checks who connects: root, and the
// user that the setting ServiceUser names (or, without it, this process's own user). Others are
// refused with a log line. A client that sends nothing within the read time-out is dropped.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/platform.h"

int create_listen();
void delete_listener();
void recv_events();

// What the loop of recv_events does after one client's turn.
enum class HeartbeatNext {
    kAccept,  // take the next client (the connection ended, or goes on being read)
    kPause,   // pause five seconds first (unless terminating)
};

// One turn of a connected client: reads its packet (and the payload behind a lone header),
// answers a heartbeat, ignores anything else, and ends the connection as the rules say.
// `buffer` holds `size` bytes, at least a header's; nothing the peer sends goes past it.
HeartbeatNext ServeHeartbeatClient(LocalChannel& pipe, uint8_t* buffer, uint32_t size);

// Who may connect and how long a connected client may stay silent, from the settings.
LocalChannelPolicy HeartbeatPolicy();
// The read time-out of each accepted connection.
constexpr uint32_t kHeartbeatReadTimeoutMs = 3000;

uint16_t ListenPort();
// "TROV_Proxy_<n>", the channel's name in the abstract namespace (without the leading NUL).
std::string ListenerName();
// True while the channel exists (from create_listen to the thread's end).
bool ListenerValid();
// 1 from the thread's start to its end.
extern std::atomic<int>& recvEventsRunning;

// Returns the channel's state to process start; the thread must have been joined (tests only).
void ResetHeartbeatForTest();
