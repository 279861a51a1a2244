#include "proxy/kelvane_conf.h"

#include <arpa/inet.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"
#include "support/debuglog.h"

namespace {

// One line of the file, with the terminator: at most 259 characters.
constexpr int kLineBuffer = 260;
// The key is compared together with its terminator.
constexpr size_t kKeyCompare = 10;
constexpr size_t kUserNameStored = 32;
constexpr size_t kPasswordStored = 48;

bool IsBlank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Trims blanks at both ends in place; returns the new start.
char* Trim(char* s) {
    while (*s && IsBlank(*s)) ++s;
    size_t n = std::strlen(s);
    while (n > 0 && IsBlank(s[n - 1])) s[--n] = '\0';
    return s;
}

void StoreText(char (&target)[260], const char* value, size_t stored) {
    std::memset(target, 0, sizeof target);
    std::strncpy(target, value, stored);
}

void ApplySetting(const char* key, const char* value, ProxyConfig* cfg) {
    if (std::strncmp(key, "version  ", kKeyCompare) == 0) {
        cfg->version = std::atoi(value);
    } else if (std::strncmp(key, "ipaddress", kKeyCompare) == 0) {
        cfg->ipaddress = static_cast<uint32_t>(inet_addr(value));
    } else if (std::strncmp(key, "username ", kKeyCompare) == 0) {
        StoreText(cfg->username, value, kUserNameStored);
    } else if (std::strncmp(key, "password ", kKeyCompare) == 0) {
        StoreText(cfg->password, value, kPasswordStored);
    } else if (std::strncmp(key, "port     ", kKeyCompare) == 0) {
        cfg->port = static_cast<uint16_t>(std::atoi(value));
    }
    // Anything else, a key without its padding blanks included, is skipped in silence.
}

}  // namespace

void ReadProxyConfigText(const std::string& text, ProxyConfig* cfg) {
    char line[kLineBuffer];
    size_t at = 0;
    for (;;) {
        // One fgets into the 260-byte buffer: up to and with the next newline, at most 259 bytes.
        if (at >= text.size()) break;
        size_t n = 0;
        bool newline = false;
        while (n < sizeof line - 1 && at < text.size()) {
            char ch = text[at++];
            line[n++] = ch;
            if (ch == '\n') {
                newline = true;
                break;
            }
        }
        line[n] = '\0';
        // The read met the end of the file (it wanted more and there was none): the line that
        // ends there, without its newline, is dropped on purpose.
        if (!newline && n < sizeof line - 1) break;

        n = std::strlen(line);  // a NUL byte in the file ends the line's text
        while (n > 0 && static_cast<signed char>(line[n - 1]) < 32) line[--n] = '\0';
        char* trimmed = Trim(line);
        if (trimmed[0] == '#') continue;

        // strtok's rules: leading colons are skipped, and the value is the next token, so it ends
        // at the following colon.
        char* save = nullptr;
        char* key = strtok_r(trimmed, ":", &save);
        if (!key) continue;
        char* value = strtok_r(nullptr, ":", &save);
        if (!value) continue;  // no value: nothing to set
        ApplySetting(key, Trim(value), cfg);
    }
}

int ReadProxyConfig(const char* path, ProxyConfig* cfg) {
    std::string text;
    int err = 0;
    if (!path || !Plat()->ReadTextFile(path, &text, &err)) {
        DebugTrace("Cannot open file: %s\n", path ? path : "(null)");
        errno = path ? err : ENOENT;
        return -1;
    }
    DebugTrace("Open %s success.\n", path);
    ReadProxyConfigText(text, cfg);
    return 0;
}

bool ProxyConfigComplete(const ProxyConfig& cfg) {
    return cfg.version != 0 && cfg.ipaddress != 0 && cfg.username[0] != '\0' && cfg.password[0] != '\0' &&
           cfg.port != 0;
}
