// The provider's side of the host sink (platform/host_sink.h): reports, failure reasons and
// console lines go to the sink a host installed, and elsewhere as before when there is none.
#pragma once

#include <cstdint>

#include "platform/host_sink.h"

void SetHostSink(const TrovHostSink* sink);
// An Event Log report as it is written.
void HostEventReport(uint16_t type, uint32_t id, const char* text);
// Why the provider has no array or lost its connection; printf-style, one line. Costs nothing
// without a sink.
void NoteHostFailure(const char* format, ...) __attribute__((format(printf, 1, 2)));
// A console line: to the sink, else to standard output.
void HostConsole(const char* text);
bool HostSinkInstalled();
