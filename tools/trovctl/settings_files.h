// The files trovctl writes for one run and the file arguments it reads: a settings file that
// points the provider at a kelvane.conf, a copy of the settings in use with a reply time-out
// of the operator's choosing laid over them, and a private copy of a kelvane.conf with a password
// that was kept out of the file. Both are in the registry's export format
// (platform/settings.h); a later value of a key replaces an earlier one, which the overlay uses.
#pragma once

#include <cstdint>
#include <string>

namespace trovctl {

// The key of the provider's own parameters, where ReplyTimeout is read.
extern const char* const kParametersKey;
// The reply time-out --timeout accepts, in seconds.
constexpr uint32_t kMinTimeout = 1;
constexpr uint32_t kMaxTimeout = 600;

// Writes a settings file at `path` whose kelvane key names `conf`.
bool WriteSettingsFor(const std::string& conf, const std::string& path);
// Writes at `path` the settings of `base` (none when it does not exist) with the DWORD
// ReplyTimeout = `seconds` under the provider's Parameters key. False with *err on failure.
bool WriteTimeoutOverlay(const std::string& base, uint32_t seconds, const std::string& path, std::string* err);
// Why a password cannot go into a kelvane.conf ("is longer than 48 characters", "contains a
// colon"); empty when it can.
std::string PasswordProblem(const std::string& password);
// Writes at `path` the kelvane.conf `conf` with its password line (if any) replaced by one that
// holds `password`. The file at `path` is made readable by its owner only. False with *err.
bool WriteConfWithPassword(const std::string& conf, const std::string& password, const std::string& path,
                           std::string* err);

// Why a file named on the command line cannot be read ("No such file or directory", "is a
// directory"); empty when it can.
std::string UnreadableFile(const std::string& path);

// A file in /tmp that is removed when this goes; empty path when it could not be made.
class TempFile {
public:
    explicit TempFile(const char* prefix);
    ~TempFile();
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace trovctl
