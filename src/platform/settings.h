// The settings store: keys and typed values in the registry's export format.
//
//   Windows Registry Editor Version 5.00
//   [HKEY_LOCAL_MACHINE\SYSTEM\CurrentControlSet\Services\TroviSCSIVDSProvider\Parameters]
//   "Name"="Halden iSCSI VDS Provider"
//   "Options"=dword:00008000
//
// Key paths are kept relative to HKEY_LOCAL_MACHINE and compared without regard to case, as the
// registry does. A string value accepts the escapes \\ and \". A line that is not understood is
// skipped; a value of another type (hex:, or a dword that is not eight hex digits) is kept as
// "other", so that reading it as a string or dword finds it missing.
#pragma once

#include <cstdint>
#include <map>
#include <string>

class SettingsStore {
public:
    enum class Type { String, Dword, Other };
    struct Value {
        Type type = Type::Other;
        std::string text;   // String: UTF-8 text
        uint32_t dword = 0; // Dword
    };

    void Clear() { keys_.clear(); }
    // Parses `text` and adds its keys and values (a later value of the same name replaces).
    void Parse(const std::string& text);
    bool KeyExists(const std::string& keyPath) const;
    const Value* Find(const std::string& keyPath, const std::string& name) const;
    // Setters for tests and tools.
    void SetString(const std::string& keyPath, const std::string& name, const std::string& value);
    void SetDword(const std::string& keyPath, const std::string& name, uint32_t value);
    void SetOther(const std::string& keyPath, const std::string& name);
    void RemoveValue(const std::string& keyPath, const std::string& name);
    void AddKey(const std::string& keyPath);

    static std::string NormalizeKey(const std::string& keyPath);

private:
    struct CaseLess {
        bool operator()(const std::string& a, const std::string& b) const;
    };
    std::map<std::string, std::map<std::string, Value, CaseLess>, CaseLess> keys_;
};

// UTF-8 <-> UTF-16 helpers used by the settings readers.
std::u16string Utf8ToUtf16(const std::string& s);
std::string Utf16ToUtf8(const std::u16string& s);
