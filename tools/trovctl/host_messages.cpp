#include "host_messages.h"

#include <ostream>

namespace trovctl {

namespace {

std::string Trimmed(const char* text) {
    std::string s = text ? text : "";
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
    return s;
}

}  // namespace

TrovHostSink HostMessages::Sink() { return TrovHostSink{this, &OnEvent, &OnFailure, &OnConsole}; }

const char* HostMessages::Severity(uint16_t type) {
    switch (type) {
    case 1: return "error";
    case 2: return "warning";
    case 4: return "information";
    default: return "event";
    }
}

void HostMessages::Write(const std::string& text) {
    // One write per line, so that lines from different threads don't mix.
    err_ << text;
    err_.flush();
}

void HostMessages::OnEvent(void* context, uint16_t type, uint32_t, const char* text) {
    auto* self = static_cast<HostMessages*>(context);
    std::lock_guard<std::mutex> g(self->mu_);
    self->Write(std::string("trovctl: ") + Severity(type) + ": " + Trimmed(text) + "\n");
}

void HostMessages::OnFailure(void* context, const char* reason) {
    auto* self = static_cast<HostMessages*>(context);
    std::lock_guard<std::mutex> g(self->mu_);
    std::vector<std::string>& to = self->inCommand_ ? self->command_ : self->between_;
    if (to.size() < kMaxKept) to.push_back(Trimmed(reason));
}

void HostMessages::OnConsole(void* context, const char* text) {
    auto* self = static_cast<HostMessages*>(context);
    std::lock_guard<std::mutex> g(self->mu_);
    std::string line = text ? text : "";
    if (!line.empty() && line.back() != '\n') line += '\n';
    self->Write(line);
}

void HostMessages::BeginCommand() {
    std::lock_guard<std::mutex> g(mu_);
    inCommand_ = true;
    command_.clear();
}

std::vector<std::string> HostMessages::Failures() const {
    std::lock_guard<std::mutex> g(mu_);
    return command_;
}

std::vector<std::string> HostMessages::EndCommand() {
    std::lock_guard<std::mutex> g(mu_);
    inCommand_ = false;
    std::vector<std::string> out;
    out.swap(command_);
    return out;
}

std::vector<std::string> HostMessages::TakeBetween() {
    std::lock_guard<std::mutex> g(mu_);
    std::vector<std::string> out;
    out.swap(between_);
    return out;
}

}  // namespace trovctl
