#include "platform/settings.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <strings.h>

bool SettingsStore::CaseLess::operator()(const std::string& a, const std::string& b) const {
    return strcasecmp(a.c_str(), b.c_str()) < 0;
}

std::string SettingsStore::NormalizeKey(const std::string& keyPath) {
    std::string k = keyPath;
    static const char* kRoots[] = {"HKEY_LOCAL_MACHINE\\", "HKLM\\"};
    for (const char* r : kRoots) {
        size_t n = std::strlen(r);
        if (k.size() >= n && strncasecmp(k.c_str(), r, n) == 0) {
            k = k.substr(n);
            break;
        }
    }
    while (!k.empty() && k.back() == '\\') k.pop_back();
    return k;
}

static std::string Trim(const std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
    return s.substr(b, e - b);
}

// Reads a quoted string starting at s[i] == '"'; advances i past the closing quote.
static bool ReadQuoted(const std::string& s, size_t& i, std::string* out) {
    if (i >= s.size() || s[i] != '"') return false;
    ++i;
    std::string r;
    while (i < s.size()) {
        char c = s[i++];
        if (c == '\\' && i < s.size()) {
            r += s[i++];
        } else if (c == '"') {
            *out = r;
            return true;
        } else {
            r += c;
        }
    }
    return false;
}

void SettingsStore::Parse(const std::string& text) {
    std::istringstream in(text);
    std::string line;
    std::string current;
    bool haveKey = false;
    while (std::getline(in, line)) {
        line = Trim(line);
        if (line.empty() || line[0] == ';') continue;
        if (line.front() == '[' && line.back() == ']') {
            std::string k = line.substr(1, line.size() - 2);
            if (!k.empty() && k[0] == '-') {  // a deletion in the export format
                keys_.erase(NormalizeKey(k.substr(1)));
                haveKey = false;
                continue;
            }
            current = NormalizeKey(k);
            keys_[current];
            haveKey = true;
            continue;
        }
        if (!haveKey || line[0] != '"') continue;
        size_t i = 0;
        std::string name;
        if (!ReadQuoted(line, i, &name)) continue;
        while (i < line.size() && std::isspace(static_cast<unsigned char>(line[i]))) ++i;
        if (i >= line.size() || line[i] != '=') continue;
        ++i;
        while (i < line.size() && std::isspace(static_cast<unsigned char>(line[i]))) ++i;
        Value v;
        if (i < line.size() && line[i] == '"') {
            std::string s;
            if (!ReadQuoted(line, i, &s)) continue;
            v.type = Type::String;
            v.text = s;
        } else if (line.compare(i, 6, "dword:") == 0) {
            std::string hex = line.substr(i + 6);
            bool ok = hex.size() == 8;
            for (char c : hex) ok = ok && std::isxdigit(static_cast<unsigned char>(c));
            if (ok) {
                v.type = Type::Dword;
                v.dword = static_cast<uint32_t>(std::strtoul(hex.c_str(), nullptr, 16));
            }
        } else if (line.compare(i, 1, "-") == 0) {
            keys_[current].erase(name);
            continue;
        }
        keys_[current][name] = v;
    }
}

bool SettingsStore::KeyExists(const std::string& keyPath) const { return keys_.count(NormalizeKey(keyPath)) != 0; }

const SettingsStore::Value* SettingsStore::Find(const std::string& keyPath, const std::string& name) const {
    auto k = keys_.find(NormalizeKey(keyPath));
    if (k == keys_.end()) return nullptr;
    auto v = k->second.find(name);
    return v == k->second.end() ? nullptr : &v->second;
}

void SettingsStore::SetString(const std::string& keyPath, const std::string& name, const std::string& value) {
    Value v;
    v.type = Type::String;
    v.text = value;
    keys_[NormalizeKey(keyPath)][name] = v;
}

void SettingsStore::SetDword(const std::string& keyPath, const std::string& name, uint32_t value) {
    Value v;
    v.type = Type::Dword;
    v.dword = value;
    keys_[NormalizeKey(keyPath)][name] = v;
}

void SettingsStore::SetOther(const std::string& keyPath, const std::string& name) {
    keys_[NormalizeKey(keyPath)][name] = Value{};
}

void SettingsStore::RemoveValue(const std::string& keyPath, const std::string& name) {
    auto k = keys_.find(NormalizeKey(keyPath));
    if (k != keys_.end()) k->second.erase(name);
}

void SettingsStore::AddKey(const std::string& keyPath) { keys_[NormalizeKey(keyPath)]; }

std::u16string Utf8ToUtf16(const std::string& s) {
    std::u16string out;
    for (size_t i = 0; i < s.size();) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        uint32_t cp;
        size_t n;
        if (c < 0x80) { cp = c; n = 1; }
        else if ((c >> 5) == 6 && i + 1 < s.size()) { cp = c & 0x1F; n = 2; }
        else if ((c >> 4) == 14 && i + 2 < s.size()) { cp = c & 0x0F; n = 3; }
        else if ((c >> 3) == 30 && i + 3 < s.size()) { cp = c & 0x07; n = 4; }
        else { out += u'?'; ++i; continue; }
        for (size_t k = 1; k < n; ++k) cp = cp << 6 | (static_cast<unsigned char>(s[i + k]) & 0x3F);
        i += n;
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out += static_cast<char16_t>(0xD800 + (cp >> 10));
            out += static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
        } else {
            out += static_cast<char16_t>(cp);
        }
    }
    return out;
}

std::string Utf16ToUtf8(const std::u16string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        uint32_t cp = s[i];
        if (cp >= 0xD800 && cp < 0xDC00 && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] < 0xE000) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (s[i + 1] - 0xDC00);
            ++i;
        }
        if (cp < 0x80) out += static_cast<char>(cp);
        else if (cp < 0x800) { out += static_cast<char>(0xC0 | cp >> 6); out += static_cast<char>(0x80 | (cp & 0x3F)); }
        else if (cp < 0x10000) {
            out += static_cast<char>(0xE0 | cp >> 12);
            out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | cp >> 18);
            out += static_cast<char>(0x80 | (cp >> 12 & 0x3F));
            out += static_cast<char>(0x80 | (cp >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        }
    }
    return out;
}
