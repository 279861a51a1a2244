// What the provider tells the program that loaded it, beyond the published interfaces.
//
// On its original platform an operator reads the provider's Event Log reports in the system's
// event viewer and its console lines in a console. A Linux host has neither at hand, so the module
// exports TrovSetHostSink: a host that installs a sink receives the Event Log reports as they are
// written (they still go to syslog), the console lines (instead of standard output, which may
// carry the host's own output), and one line for each failure that leaves the provider without an
// array or without its connection: what failed and why (configuration, refused service, refused
// login, protocol version, lost connection at a command). Callbacks may come from any of the
// provider's threads and must not call back into the provider.
#pragma once

#include <stdint.h>

extern "C" {

struct TrovHostSink {
    void* context;
    // type: 1 error, 2 warning, 4 information; id: the event id; text: the report.
    void (*eventReport)(void* context, uint16_t type, uint32_t id, const char* text);
    // One line, no newline: why the provider has no array or lost its connection.
    void (*failure)(void* context, const char* reason);
    // Text the provider prints for an operator at a console.
    void (*console)(void* context, const char* text);
};

// Installs a sink (copied), or removes it with null. Exported by the module.
typedef void (*TrovSetHostSinkFn)(const TrovHostSink* sink);
void TrovSetHostSink(const TrovHostSink* sink);
}
