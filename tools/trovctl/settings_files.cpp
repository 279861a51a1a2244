#include "settings_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace trovctl {

const char* const kParametersKey =
    "HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\TroviSCSIVDSProvider\\Parameters";

namespace {
constexpr const char* kHeader = "Windows Registry Editor Version 5.00\n";
}  // namespace

bool WriteSettingsFor(const std::string& conf, const std::string& path) {
    std::ofstream out(path);
    out << kHeader << "\n"
        << "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\kelvane\\Parameters]\n"
        << "\"ConfigurationFile\"=\"" << conf << "\"\n";
    return static_cast<bool>(out);
}

bool WriteTimeoutOverlay(const std::string& base, uint32_t seconds, const std::string& path, std::string* err) {
    std::string text;
    std::ifstream in(base, std::ios::binary);
    if (in) {
        std::stringstream ss;
        ss << in.rdbuf();
        text = ss.str();
    } else if (errno != ENOENT && !base.empty()) {
        *err = "cannot read " + base + ": " + std::strerror(errno);
        return false;
    }
    if (text.empty()) text = kHeader;
    if (text.back() != '\n') text += '\n';
    char dword[16];
    std::snprintf(dword, sizeof dword, "%08x", seconds);
    // Appended: the key's later value replaces any ReplyTimeout the settings already carry.
    text += std::string("\n[") + kParametersKey + "]\n\"ReplyTimeout\"=dword:" + dword + "\n";
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out) {
        *err = "cannot write " + path;
        return false;
    }
    return true;
}

std::string UnreadableFile(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return std::strerror(errno);
    if (S_ISDIR(st.st_mode)) return "is a directory";
    std::ifstream in(path);
    if (!in) return std::strerror(errno ? errno : EACCES);
    return {};
}

TempFile::TempFile(const char* prefix) {
    std::string tmpl = std::string("/tmp/") + prefix + ".XXXXXX";
    int fd = mkstemp(tmpl.data());
    if (fd < 0) return;
    close(fd);
    path_ = tmpl;
}

TempFile::~TempFile() {
    if (!path_.empty()) std::remove(path_.c_str());
}

}  // namespace trovctl
