// Fuzzes the kelvane.conf reader on arbitrary file contents.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "proxy/kelvane_conf.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    ProxyConfig cfg;
    std::memset(&cfg, 0, sizeof cfg);
    ReadProxyConfigText(text, &cfg);

    // The stored texts stay within their limits and terminated.
    if (strnlen(cfg.username, sizeof cfg.username) > 32) __builtin_trap();
    if (strnlen(cfg.password, sizeof cfg.password) > 48) __builtin_trap();
    (void)ProxyConfigComplete(cfg);
    return 0;
}
