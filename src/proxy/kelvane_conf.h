// Reader of kelvane.conf, the file that names the proxy service's address, port and login.
//
// One setting a line, "key:value", where the key is exactly nine columns including its padding
// blanks ("version  ", "ipaddress", "username ", "password ", "port     "). The reader follows the
// service's own rules to the letter: the last line counts only if it ends in a newline, the
// tail of a line loses every byte below 32 as a signed char (control characters and bytes of
// 0x80 and above), '#' starts a comment, the value ends at a second colon, keys without their
// blanks are skipped in silence, and a repeated key replaces the earlier one. A file that can't
// be read as a whole counts as one that can't be opened.
#pragma once

#include <cstdint>
#include <string>

struct ProxyConfig {
    int version;
    uint32_t ipaddress;  // inet_addr result, network order
    char username[260];  // at most 32 bytes copied from the file
    char password[260];  // at most 48 bytes copied from the file
    uint16_t port;
};

// Reads the file at `path` (through the Platform) into *cfg. Fields the file doesn't set keep
// what the caller put there (callers zero the record). Returns 0, or -1 with errno set when the
// file cannot be opened or read.
int ReadProxyConfig(const char* path, ProxyConfig* cfg);

// The same rules on the file's contents, taken line by line as fgets takes them into a 260-byte
// buffer: a line longer than 259 bytes is read in pieces, each a line of its own.
void ReadProxyConfigText(const std::string& text, ProxyConfig* cfg);

// True when all five settings are present: version, address and port non-zero, user name and
// password non-empty.
bool ProxyConfigComplete(const ProxyConfig& cfg);
