#include "support/host_notice.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace {

// Never destroyed: a provider thread may still report while the process exits.
std::mutex& g_sinkMu = *new std::mutex;
TrovHostSink g_sink{};
bool g_installed = false;

}  // namespace

void SetHostSink(const TrovHostSink* sink) {
    std::lock_guard<std::mutex> g(g_sinkMu);
    g_installed = sink != nullptr;
    g_sink = sink ? *sink : TrovHostSink{};
}

bool HostSinkInstalled() {
    std::lock_guard<std::mutex> g(g_sinkMu);
    return g_installed;
}

void HostEventReport(uint16_t type, uint32_t id, const char* text) {
    std::lock_guard<std::mutex> g(g_sinkMu);
    if (g_installed && g_sink.eventReport) g_sink.eventReport(g_sink.context, type, id, text);
}

void NoteHostFailure(const char* format, ...) {
    std::lock_guard<std::mutex> g(g_sinkMu);
    if (!g_installed || !g_sink.failure) return;
    char line[512];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
    g_sink.failure(g_sink.context, line);
}

void HostConsole(const char* text) {
    {
        std::lock_guard<std::mutex> g(g_sinkMu);
        if (g_installed && g_sink.console) {
            g_sink.console(g_sink.context, text);
            return;
        }
    }
    std::fputs(text, stdout);
}
