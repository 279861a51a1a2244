#include "support/lang.h"

#include <libintl.h>

#include <clocale>
#include <cstring>
#include <string>

#include "platform/platform.h"
#include "support/debuglog.h"

const char kTextDomain[] = "vdsprovider";

namespace {

// On the service's home platform the fallback is the root of drive C, "C:\". Here there are no
// drives; the file system's root plays the same part, so a missing PATH gives "/locale".
constexpr const char* kRootFolder = "/";

void CopyBounded(char* buffer, size_t size, const char* text) {
    if (size == 0) return;
    std::strncpy(buffer, text, size - 1);
    buffer[size - 1] = '\0';
}

}  // namespace

void GetServicePath(char* buffer, size_t size) {
    if (!buffer || size == 0) return;
    bool found = false;
    std::u16string wide;
    // The value is read into a buffer of size-1 bytes, terminator included; a longer one fails.
    if (Plat()->ReadStringValue(TROV_PARAMETERS_KEY, "PATH", &wide) &&
        (wide.size() + 1) * sizeof(char16_t) <= size - 1) {
        // Narrowed by keeping the low byte of each character.
        size_t n = 0;
        while (n < wide.size() && n + 1 < size && (wide[n] & 0xFF) != 0) {
            buffer[n] = static_cast<char>(wide[n] & 0xFF);
            ++n;
        }
        buffer[n] = '\0';
        // The value names the service's file; its folder ends at the last separator, which stays.
        // The backslash is the service's own; a Linux path uses '/', so both count.
        char* sep = std::strrchr(buffer, '\\');
        char* slash = std::strrchr(buffer, '/');
        if (!sep || (slash && slash > sep)) sep = slash;
        if (sep) {
            sep[1] = '\0';
            found = true;
        }
    }
    if (!found) CopyBounded(buffer, size, kRootFolder);
    DebugTrace("GetServicePath():szPath=%s\n", buffer);
}

void LangInit() {
    const char* locale = std::setlocale(LC_ALL, "");

    char dir[1024];
    GetServicePath(dir, sizeof dir);
    std::strncat(dir, "locale", sizeof dir - std::strlen(dir) - 1);

    if (locale) DebugTrace("LangInit: Current Locale is: %s\n", locale);
    else DebugTrace("LangInit: Set Locale fail.\n");

    const char* bound = bindtextdomain(kTextDomain, dir);
    if (bound) DebugTrace("LangInit: bindtextdomain is: %s\n", bound);
    else DebugTrace("LangInit: bindtextdomain fail.\n");

    // The provider lives inside a host process: making "vdsprovider" the process's default
    // domain with textdomain() would take the host's own translations away. The domain is
    // therefore named at each lookup (dgettext) and the default domain is left alone; the log
    // reports the domain that the provider's lookups use.
    DebugTrace("LangInit: textdomain is: %s\n", kTextDomain);
}

const char* TranslateEventText(const char* text) {
    if (!text) return text;
    return dgettext(kTextDomain, text);
}
