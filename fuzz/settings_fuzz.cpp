// Fuzzes the settings store's parser on arbitrary text, then looks up what was parsed.
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/platform.h"
#include "platform/settings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    SettingsStore store;
    store.Parse(text);

    static const char* const kKeys[] = {TROV_PARAMETERS_KEY, TROV_DEBUG_KEY, KELVANE_PARAMETERS_KEY,
                                        "HKEY_LOCAL_MACHINE\\" TROV_DEBUG_KEY, "", "\\", "a"};
    static const char* const kNames[] = {"Name", "PATH", "FileName", "ToFile", "DebugLevel", "Options",
                                         "StartingLUN", "ConfigurationFile", "", "\""};
    for (const char* key : kKeys) {
        (void)store.KeyExists(key);
        for (const char* name : kNames) {
            const SettingsStore::Value* v = store.Find(key, name);
            if (v && v->type == SettingsStore::Type::String) (void)Utf8ToUtf16(v->text);
        }
    }
    // Keys and names taken from the input itself: the first line as a key, the second as a name.
    size_t nl = text.find('\n');
    std::string key = text.substr(0, nl);
    std::string name = nl == std::string::npos ? std::string() : text.substr(nl + 1, text.find('\n', nl + 1) - nl - 1);
    (void)store.KeyExists(key);
    (void)store.Find(key, name);
    (void)SettingsStore::NormalizeKey(key);

    // A second parse over the first keeps the store consistent.
    store.Parse(text);
    (void)store.Find(key, name);
    return 0;
}
