// Fuzzes the kelvane.conf reader on arbitrary file contents.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "proxy/kelvane_conf.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;  // fmemopen refuses an empty buffer
    std::vector<uint8_t> copy(data, data + size);
    FILE* stream = fmemopen(copy.data(), copy.size(), "r");
    if (!stream) return 0;
    ProxyConfig cfg;
    std::memset(&cfg, 0, sizeof cfg);
    ReadProxyConfigStream(stream, &cfg);
    std::fclose(stream);

    // The stored texts stay within their limits and terminated.
    if (strnlen(cfg.username, sizeof cfg.username) > 32) __builtin_trap();
    if (strnlen(cfg.password, sizeof cfg.password) > 48) __builtin_trap();
    (void)ProxyConfigComplete(cfg);
    return 0;
}
