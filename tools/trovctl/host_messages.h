// What the provider tells trovctl beyond the published interfaces (platform/host_sink.h): its
// Event Log reports go to standard error as they are written, one line each with their severity
// ("trovctl: warning: The VDS Provider has lost its connection ..."), like an administrator's
// event viewer; its console lines go to standard error as they are; its failure lines (why it has
// no array, or lost its connection) are kept - those of the running command apart from those that
// come while no command runs (the monitor's, in the shell) - for the shell to report.
// The callbacks come from any of the provider's threads; everything here is under one mutex.
#pragma once

#include <iosfwd>
#include <mutex>
#include <string>
#include <vector>

#include "platform/host_sink.h"

namespace trovctl {

class HostMessages {
public:
    explicit HostMessages(std::ostream& err) : err_(err) {}

    // The sink to install in the module; it points at this object, which must outlive it.
    TrovHostSink Sink();

    // A command starts: the failure lines from now on are its own.
    void BeginCommand();
    // The running command's failure lines so far, oldest first.
    std::vector<std::string> Failures() const;
    // The running command's failure lines; the command is over.
    std::vector<std::string> EndCommand();
    // The failure lines that came while no command ran, since the last call; oldest first.
    std::vector<std::string> TakeBetween();

    // The word an event viewer shows for a report's type: error, warning, information.
    static const char* Severity(uint16_t type);

private:
    static void OnEvent(void* context, uint16_t type, uint32_t id, const char* text);
    static void OnFailure(void* context, const char* reason);
    static void OnConsole(void* context, const char* text);
    void Write(const std::string& text);

    // Bounds the lines kept between commands: a monitor that retries for hours must not grow them.
    static constexpr size_t kMaxKept = 64;

    std::ostream& err_;
    mutable std::mutex mu_;
    bool inCommand_ = false;
    std::vector<std::string> command_, between_;
};

}  // namespace trovctl
