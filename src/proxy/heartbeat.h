// The heartbeat channel: the service connects to "@TROV_Proxy_<n>" (n = the low 16 bits of the
// process id, the listen port announced in the session), sends a heartbeat and is answered with
// a 36-byte header of DataType 5 and OpCode 0. One thread, recv_events, serves it from the
// connect sequence to the shutdown.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

int create_listen();
void delete_listener();
void recv_events();

uint16_t ListenPort();
// "TROV_Proxy_<n>", the channel's name in the abstract namespace (without the leading NUL).
std::string ListenerName();
// True while the channel exists (from create_listen to the thread's end).
bool ListenerValid();
// 1 from the thread's start to its end.
extern std::atomic<int> recvEventsRunning;
