#include "settings_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
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

std::string PasswordProblem(const std::string& password) {
    // The reader keeps 48 characters, ends a value at a colon and trims blanks at its ends.
    if (password.empty()) return "is empty";
    if (password.size() > 48) return "is longer than 48 characters, more than a kelvane.conf holds";
    for (char c : password)
        if (c == ':' || c == '\n' || c == '\r' || c == '\0') return "contains a colon or a line break, which a kelvane.conf cannot hold";
    if (std::isspace(static_cast<unsigned char>(password.front())) ||
        std::isspace(static_cast<unsigned char>(password.back())))
        return "begins or ends with a blank, which a kelvane.conf drops";
    return {};
}

bool WriteConfWithPassword(const std::string& conf, const std::string& password, const std::string& path,
                           std::string* err) {
    std::ifstream in(conf, std::ios::binary);
    if (!in) {
        *err = "cannot read " + conf + ": " + std::strerror(errno);
        return false;
    }
    std::string text, line;
    while (std::getline(in, line)) {
        // Any password line of the file gives way; the key is compared as the reader compares it.
        std::string key = line.substr(0, line.find(':'));
        size_t start = key.find_first_not_of(" \t");
        if (start != std::string::npos && key.compare(start, 9, "password ") == 0) continue;
        text += line + "\n";
    }
    text += "password :" + password + "\n";
    int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || fchmod(fd, 0600) != 0) {
        *err = "cannot write " + path + ": " + std::strerror(errno);
        if (fd >= 0) close(fd);
        return false;
    }
    bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ok = close(fd) == 0 && ok;
    std::fill(text.begin(), text.end(), '\0');
    if (!ok) *err = "cannot write " + path;
    return ok;
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
