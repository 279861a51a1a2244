// Kelvane: the client of the proxy service's management commands.
//
// Every command is one exchange in the packet buffer, run by CommandExchange, the one piece that
// carries the reply rule:
//
//   CommandExchange x(kSpec);                  // takes kelvane_lock_vds, logs the entry line
//   uint8_t* pkt = x.Begin(dataLen, cleared);  // header, DataLen, payload zeroed if `cleared`
//   ... store the request fields at their packet offsets ...
//   int rc = x.Run();                          // exchange and judge the reply: 0, -1 or the code
//   if (rc == 0) ... read the reply from pkt ...
//                                              // the lock goes with x at the end of the scope
//
// Run() sends 36 + DataLen bytes, takes up to 36 bytes of reply with one receive, reads the
// payload only when exactly 36 came and DataLen isn't 0, then checks DataType (RSREPLY) and
// OpCode, then error_code. Each failure is logged in the method's own name (or the name the
// spec'd log borrows) and fails with -1; a non-zero error_code is returned as the value for
// commands whose result kind is "code". A reply that announces more payload than the packet
// buffer holds fails without reading it: the buffer is never overrun.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/platform.h"
#include "proxy/wire.h"

// The mutex of one command exchange; made at module load. Null: commands run unlocked.
extern MutexHandle hVdsMutex;

struct CommandSpec {
    const char* method;   // "get_percent": log lines read "Kelvane::get_percent ..."
    const char* opName;   // "GET_PERCENT_COMPLETED": named in the DataType-or-OpCode line
    uint32_t opcode;
    bool codeResult;      // a non-zero error_code is the method's value (else -1)
    // Where a command's failure lines borrow another command's texts (kept on purpose): the
    // name used in them and the value shown with opName. Zero/null: the method's own.
    const char* logMethod = nullptr;
    uint32_t shownOpcode = UINT32_MAX;
};

class CommandExchange {
public:
    explicit CommandExchange(const CommandSpec& spec);
    ~CommandExchange();
    CommandExchange(const CommandExchange&) = delete;
    CommandExchange& operator=(const CommandExchange&) = delete;

    // Builds the header in the packet buffer, stores DataLen and, for a "cleared" command,
    // zeroes the payload. Returns the packet (header at 0, payload from 36). Null when the
    // session has no packet buffer (the connect sequence never ran or the provider unloaded).
    uint8_t* Begin(uint32_t dataLen, bool cleared);
    // Steps of the reply rule. The error word is read at `errorOffset` (40; get_subsystems: 36,
    // where it is tested without conversion).
    int Run(size_t errorOffset = wire::kErrorCodeOffset);

    uint8_t* packet() const { return pkt_; }
    // The reply's error word (host order) once Run() got that far; 0 otherwise.
    uint32_t errorCode() const { return errorCode_; }
    // The reply's DataLen as received (0 when no reply was judged).
    uint32_t replyDataLen() const { return replyLen_; }
    // True when Run() failed on error_code alone: the reply itself was well formed.
    bool failedOnErrorCode() const { return failedOnCode_; }

private:
    const CommandSpec& spec_;
    uint8_t* pkt_ = nullptr;
    uint32_t dataLen_ = 0;
    uint32_t errorCode_ = 0;
    uint32_t replyLen_ = 0;
    bool failedOnCode_ = false;
    bool locked_ = false;
};

class Kelvane {
public:
    // The subsystem list: up to 7 entries of the reply, handles converted.
    static int get_subsystems(std::vector<SubsystemEntry>& list);
};
