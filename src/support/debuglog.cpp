// The debug log: configuration from the Debug settings key, the debug file, the debugger sink,
// the hex dump and the event reports.
//
// The log takes no lock. The call count and the line flag are atomics with relaxed order, the
// file pointer is atomic, and the live configuration's numeric fields are read and written
// through atomic_ref (a re-read stores only the fields that changed), so that threads logging at
// once behave as plain variables would, without undefined data races. Lines of different threads
// can still interleave; the "[pid/tid] " prefix tells them apart. The file is the Platform's
// (opened for appending, each piece one write), so that a test can make it fail.
#include "support/debuglog.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>

#include "platform/platform.h"
#include "support/host_notice.h"

namespace {

struct DebugLogState {
    DebugConfig config{};                // zeroed until the first read: nothing goes anywhere
    std::atomic<PlatformFile*> file{nullptr};  // owned; from DebugOpen to the last DebugClose
    std::atomic<int> openCount{0};
    std::atomic<uint32_t> callCount{0};  // never reset while the process runs
    std::atomic<bool> lineFlag{false};   // the present line's time stamp is already written
};

constinit DebugLogState g_log;

constexpr const char* kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

const char* MonthName(int mon) { return (mon >= 0 && mon < 12) ? kMonths[mon] : "???"; }

uint32_t LoadField(const uint32_t& field) {
    return std::atomic_ref<uint32_t>(const_cast<uint32_t&>(field)).load(std::memory_order_relaxed);
}

void StoreField(uint32_t& field, uint32_t value) {
    std::atomic_ref<uint32_t> ref(field);
    if (ref.load(std::memory_order_relaxed) != value) ref.store(value, std::memory_order_relaxed);
}

// Copies a freshly read record into `to`. The live record is shared with logging threads, so its
// numeric fields change only when their value does.
void PublishConfig(DebugConfig* to, const DebugConfig& from) {
    if (to != &g_log.config) {
        *to = from;
        return;
    }
    if (std::strncmp(to->FileName, from.FileName, sizeof to->FileName) != 0)
        std::memcpy(to->FileName, from.FileName, sizeof to->FileName);
    StoreField(to->ToFile, from.ToFile);
    StoreField(to->ToDebugger, from.ToDebugger);
    StoreField(to->TimeStamp, from.TimeStamp);
    StoreField(to->ForceFlush, from.ForceFlush);
    StoreField(to->MaxFileLength, from.MaxFileLength);
    StoreField(to->DebugLevel, from.DebugLevel);
}

// The settings store reads wide text of at most 1024 bytes, terminator included; a longer value
// fails to read and so counts as missing.
constexpr size_t kMaxFileNameBytes = 1024;

void ReadFileNameValue(Platform* p, char (&out)[256]) {
    std::u16string wide;
    if (!p->ReadStringValue(TROV_DEBUG_KEY, "FileName", &wide)) return;
    if ((wide.size() + 1) * sizeof(WCHAR) > kMaxFileNameBytes) return;
    // Narrowed by keeping the low byte of each character: paths are expected in ASCII.
    size_t n = 0;
    while (n < wide.size() && n + 1 < sizeof out && wide[n] != 0) {
        out[n] = static_cast<char>(wide[n] & 0xFF);
        if (out[n] == '\0') break;
        ++n;
    }
    out[n] = '\0';
}

void ReadFlag(Platform* p, const char* name, uint32_t* field) {
    uint32_t v;
    if (p->ReadDwordValue(TROV_DEBUG_KEY, name, &v)) *field = v ? 1 : 0;
}

void ReadNumber(Platform* p, const char* name, uint32_t* field) {
    uint32_t v;
    if (p->ReadDwordValue(TROV_DEBUG_KEY, name, &v)) *field = v;
}

void WriteText(PlatformFile* f, const char* text) { (void)f->Write(text, std::strlen(text)); }

// True when some sink takes text now: the debugger, or an open file with ToFile.
bool SinkActive() {
    const DebugConfig& c = g_log.config;
    return LoadField(c.ToDebugger) || (g_log.file.load() && LoadField(c.ToFile));
}

// Counts one log call and, on every 100th, re-reads the settings and checks the file's length,
// so that settings changed in the store take effect within 100 calls (the file is never reopened
// here). True when the call's text goes anywhere.
//
// The original formats every message whether or not a sink takes it. We skip the formatting
// when none does (no file open and ToDebugger off), the usual case, which makes a log call
// nearly free; the count and the re-read go on as before, so a sink switched on in the settings
// still starts within 100 calls. While nothing is written the line flag stays as it is.
bool CountCall() {
    uint32_t count = g_log.callCount.fetch_add(1, std::memory_order_relaxed) + 1;
    if (count % 100 == 0) {
        // Settings changed in the store take effect within 100 calls; the file is never reopened.
        // Out of memory, the settings stay as they are until the next re-read: logging never throws.
        try {
            ReadDebugConfig(&g_log.config);
        } catch (const std::bad_alloc&) {
        }
        if (g_log.callCount.load(std::memory_order_relaxed) % 100 == 0) CheckDebugFileLength(g_log.file.load());
    }
    return SinkActive();
}

// Writes a formatted text to the sinks, one newline-terminated piece at a time (a last piece
// without a newline counts as a piece). Write errors are ignored.
void WritePieces(const char* buf) {
    const DebugConfig& c = g_log.config;
    const char* p = buf;
    for (;;) {
        const char* nl = std::strchr(p, '\n');
        size_t len = nl ? static_cast<size_t>(nl - p) + 1 : std::strlen(p);
        PlatformFile* f = g_log.file.load();
        bool toFile = f && LoadField(c.ToFile);

        if (LoadField(c.TimeStamp) && !g_log.lineFlag.load(std::memory_order_relaxed)) {
            // The time stamp goes to the file only, never to the debugger.
            if (toFile) {
                struct tm t = Plat()->LocalTime();
                char stamp[64];
                std::snprintf(stamp, sizeof stamp, "%s %02u, %u %02u:%02u:%02u: ", MonthName(t.tm_mon),
                              static_cast<unsigned>(t.tm_mday), static_cast<unsigned>(t.tm_year + 1900),
                              static_cast<unsigned>(t.tm_hour), static_cast<unsigned>(t.tm_min),
                              static_cast<unsigned>(t.tm_sec));
                WriteText(f, stamp);
            }
            g_log.lineFlag.store(true, std::memory_order_relaxed);
        }
        if (LoadField(c.ToDebugger)) {
            char piece[2048];
            std::memcpy(piece, p, len);
            piece[len] = '\0';
            Plat()->DebuggerOutput(piece);
        }
        if (toFile && len) {
            (void)f->Write(p, len);
            if (LoadField(c.ForceFlush)) (void)f->Flush();
        }
        if (nl) g_log.lineFlag.store(false, std::memory_order_relaxed);
        p += len;
        if (!nl || !*p) break;
    }
}

void LogEvent(EventType type, const char* logLine, const char* format, va_list ap) {
    char text[256];
    TrovVFormat(text, sizeof text, format, ap);
    // A source that cannot be registered drops the event; the log line is written all the same.
    (void)Plat()->ReportEvent(type, 1, text);
    HostEventReport(type, 1, text);
    DebugTrace(logLine, text);
}

}  // namespace

const DebugConfig& CurrentDebugConfig() { return g_log.config; }

uint32_t DebugCallCount() { return g_log.callCount.load(std::memory_order_relaxed); }

void ReadDebugConfig(DebugConfig* config) {
    DebugConfig c{};
    c.ToFile = 1;
    c.ToDebugger = 0;
    c.TimeStamp = 1;
    c.ForceFlush = 1;
    c.MaxFileLength = 0;
    // The level defaults on because some sink is on by default.
    c.DebugLevel = (c.ToFile || c.ToDebugger) ? 1 : 0;

    Platform* p = Plat();
    if (p->KeyExists(TROV_DEBUG_KEY)) {
        ReadFileNameValue(p, c.FileName);
        ReadFlag(p, "ToFile", &c.ToFile);
        ReadFlag(p, "ToDebugger", &c.ToDebugger);
        ReadFlag(p, "TimeStamp", &c.TimeStamp);
        ReadFlag(p, "ForceFlush", &c.ForceFlush);
        ReadNumber(p, "MaxFileLength", &c.MaxFileLength);
        ReadNumber(p, "DebugLevel", &c.DebugLevel);
    }
    if (config) PublishConfig(config, c);
}

void PrintDebugConfig() {
    const DebugConfig& c = g_log.config;
    DebugWrite("Current debug configuration:\n");
    DebugWrite("    FileName=%s\n", c.FileName);
    DebugWrite("    ToFile=%u\n", LoadField(c.ToFile));
    DebugWrite("    ToDebugger=%u\n", LoadField(c.ToDebugger));
    DebugWrite("    TimeStamp=%u\n", LoadField(c.TimeStamp));
    DebugWrite("    ForceFlush=%u\n", LoadField(c.ForceFlush));
    DebugWrite("    MaxFileLength=%u\n", LoadField(c.MaxFileLength));
    DebugWrite("    DebugLevel=%u\n", LoadField(c.DebugLevel));
}

int CheckDebugFileLength(PlatformFile* file) {
    if (!file) return 1;
    uint32_t maxLength = LoadField(g_log.config.MaxFileLength);
    if (maxLength == 0) return 0;
    int64_t length = file->Length();
    if (length > static_cast<int64_t>(maxLength)) {
        // No rotation: old content is thrown away. Writing goes on at the (new) end.
        if (!file->Truncate()) return 0;
        DebugWrite("Truncated debug file, length was %I64d\n", static_cast<long long>(length));
    }
    return 0;
}

void DebugOpen(const char* fileName) {
    DebugConfig& c = g_log.config;
    ReadDebugConfig(&c);
    if (fileName) {
        std::strncpy(c.FileName, fileName, sizeof c.FileName - 1);
        c.FileName[sizeof c.FileName - 1] = '\0';
    }

    PlatformFile* existing = g_log.file.load();
    if (!existing && LoadField(c.ToFile) && c.FileName[0]) {
        int err = 0;
        std::unique_ptr<PlatformFile> opened = Plat()->OpenAppendFile(c.FileName, &err);
        if (!opened) {
            std::fprintf(stderr, "Error '%s' (%d) opening debug output file.\n", std::strerror(err), err);
        } else {
            PlatformFile* f = opened.release();
            g_log.file.store(f);
            CheckDebugFileLength(f);
            if (LoadField(c.ToFile)) {
                WriteText(f, (std::string(80, '#') + "\n").c_str());
                struct tm t = Plat()->LocalTime();
                char line[96];
                std::snprintf(line, sizeof line, "# Debug file opened on %s %02u, %u %02u:%02u:%02u.\n",
                              MonthName(t.tm_mon), static_cast<unsigned>(t.tm_mday),
                              static_cast<unsigned>(t.tm_year + 1900), static_cast<unsigned>(t.tm_hour),
                              static_cast<unsigned>(t.tm_min), static_cast<unsigned>(t.tm_sec));
                WriteText(f, line);
                if (LoadField(c.ForceFlush)) (void)f->Flush();
            }
            PrintDebugConfig();
        }
    } else if (existing) {
        WriteText(existing, "Debug File already opened.\n");
        if (LoadField(c.ForceFlush)) (void)existing->Flush();
    }
    g_log.openCount.fetch_add(1);
}

void DebugClose() {
    int remaining = g_log.openCount.fetch_sub(1) - 1;
    if (remaining > 0) return;
    delete g_log.file.exchange(nullptr);
}

bool DebugSinkActive() { return SinkActive(); }

void DebugTrace(const char* format, ...) {
    if (!CountCall()) return;
    // Prefix and message together are held to 1000 characters.
    char buf[1001];
    Platform* p = Plat();
    int n = TrovFormat(buf, sizeof buf, "[%04d/%04d] ", static_cast<int>(p->ProcessId()),
                       static_cast<int>(p->ThreadId()));
    va_list ap;
    va_start(ap, format);
    TrovVFormat(buf + n, sizeof buf - static_cast<size_t>(n), format, ap);
    va_end(ap);
    WritePieces(buf);
}

void DebugWrite(const char* format, ...) {
    if (!CountCall()) return;
    char buf[2048];
    va_list ap;
    va_start(ap, format);
    TrovVFormat(buf, sizeof buf, format, ap);
    va_end(ap);
    buf[sizeof buf - 1] = '\0';
    WritePieces(buf);
}

void DebugDump(const char* title, const void* data, int length) {
    if (!title) title = "";
    const char* prefix = "";
    if (title[0] != ' ') DebugTrace("====== %s ====== %d\n", title, length);
    else prefix = title;
    if (!data || length <= 0) return;

    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    // The row keeps its full width in the last row as well: a length that is no multiple of 16
    // shows the bytes that follow it, which callers' buffers hold.
    int width = length >= 16 ? 16 : length;
    for (int row = 0; row < length; row += 16) {
        char text[16 * 3 + 16 + 1];
        size_t n = 0;
        for (int i = 0; i < width; ++i) n += static_cast<size_t>(TrovFormat(text + n, sizeof text - n, "%02X ", bytes[row + i]));
        for (int i = width; i < 16; ++i) {
            std::memcpy(text + n, "   ", 3);
            n += 3;
        }
        for (int i = 0; i < width; ++i) {
            unsigned char b = bytes[row + i];
            text[n++] = (b > 32 && b < 127) ? static_cast<char>(b) : '.';
        }
        text[n] = '\0';
        DebugTrace("%s%s\n", prefix, text);
    }
}

void PrintUnmaskList(const WCHAR* list) {
    if (!list) return;
    const WCHAR* p = list;
    while (*p) {
        WCHAR name[257];
        size_t n = 0;
        while (*p && *p != u';' && n < 256) name[n++] = *p++;
        name[n] = 0;
        bool more = *p == u';';
        DebugTrace("  unmask %ls%s\n", name, more ? ";" : "");
        if (more) ++p;
    }
}

void LogErrorEvent(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    LogEvent(EVENTLOG_ERROR_TYPE, "Logging Error Event \"%s\".\n", format, ap);
    va_end(ap);
}

void LogWarningEvent(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    LogEvent(EVENTLOG_WARNING_TYPE, "Logging Warning Event \"%s\".\n", format, ap);
    va_end(ap);
}

void LogInfoEvent(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    LogEvent(EVENTLOG_INFORMATION_TYPE, "Logging Info Event \"%s\".\n", format, ap);
    va_end(ap);
}

bool IsSupportSpecialLun() {
    uint32_t disabled = 0;
    // Read afresh each time, so that an operator can switch it without a restart.
    (void)Plat()->ReadDwordValue(TROV_DEBUG_KEY, "DisabeSepcialLun", &disabled);
    DebugTrace("IsSupportSpecialLun(): DisabeSepcialLun = %d\n", static_cast<int>(disabled));
    return disabled == 0;
}

void DebugLogResetForTest() {
    delete g_log.file.exchange(nullptr);
    std::memset(&g_log.config, 0, sizeof g_log.config);
    g_log.openCount.store(0);
    g_log.callCount.store(0);
    g_log.lineFlag.store(false);
}
