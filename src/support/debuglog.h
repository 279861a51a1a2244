// The debug log and the event reports.
//
// DebugTrace is the log call of all code: it prefixes "[pid/tid] " and hands the line to
// DebugWrite, which writes it piece by piece (one piece per newline) to the debug file (with a
// time stamp at the start of each line) and to the debugger sink, as the Debug settings say.
// A call costs no formatting while neither sink takes text. Errors of the file are ignored.
// The format strings are the system's own and understand, besides printf's conversions, %S and
// %ls for UTF-16 strings (WCHAR*) and %I64d / %I64u / %I64x for 64-bit integers.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>

#include "platform/wintypes.h"

class PlatformFile;

struct DebugConfig {
    char FileName[256];
    uint32_t ToFile;
    uint32_t ToDebugger;
    uint32_t TimeStamp;
    uint32_t ForceFlush;
    uint32_t MaxFileLength;
    uint32_t DebugLevel;
};

void DebugOpen(const char* fileName);
void DebugClose();
void DebugTrace(const char* format, ...);
// Whether a log call's text goes anywhere now. A caller whose arguments cost work of their own
// (hex dumps, GUID texts) passes empty ones when it does not; the call itself is still made, so
// the count of calls stays what it would be.
bool DebugSinkActive();
void DebugWrite(const char* format, ...);
void DebugDump(const char* title, const void* data, int length);
void LogErrorEvent(const char* format, ...);
void LogWarningEvent(const char* format, ...);
void LogInfoEvent(const char* format, ...);
void ReadDebugConfig(DebugConfig* config);
void PrintDebugConfig();
// Cuts the debug file to zero length when it is longer than MaxFileLength; 1 without a file.
int CheckDebugFileLength(PlatformFile* file);
void PrintUnmaskList(const WCHAR* list);
// The live configuration record (read by code that depends on DebugLevel).
const DebugConfig& CurrentDebugConfig();

// Reads DWORD "DisabeSepcialLun" of the Debug key afresh on each call and logs it; true unless
// the value is present and non-zero.
bool IsSupportSpecialLun();

// The formatter behind every log call: printf's conversions plus %S/%ls (UTF-16) and %I64.
// Writes at most size-1 characters and a terminator; returns the length written.
int TrovVFormat(char* buf, size_t size, const char* format, va_list ap);
int TrovFormat(char* buf, size_t size, const char* format, ...);
std::string TrovFormatString(const char* format, ...);

// Number of DebugWrite calls so far (the count behind the re-read every 100 calls).
uint32_t DebugCallCount();

// Returns the log to its state at process start (tests only).
void DebugLogResetForTest();
