#include "provision.h"

#include <cctype>
#include <cstddef>
#include <cstdio>
#include <limits>

#include "platform/trov_hints.h"
#include "tree.h"
#include "words.h"

namespace trovctl {

namespace {

struct TypeName {
    const char* name;
    VDS_LUN_TYPE type;
};

const TypeName kTypes[] = {
    {"default", VDS_LT_DEFAULT}, {"faulttolerant", VDS_LT_FAULT_TOLERANT}, {"nonfaulttolerant", VDS_LT_NON_FAULT_TOLERANT},
    {"simple", VDS_LT_SIMPLE},   {"span", VDS_LT_SPAN},                     {"stripe", VDS_LT_STRIPE},
    {"mirror", VDS_LT_MIRROR},   {"parity", VDS_LT_PARITY},                 {"raid2", VDS_LT_RAID2},
    {"raid3", VDS_LT_RAID3},     {"raid4", VDS_LT_RAID4},                   {"raid5", VDS_LT_RAID5},
    {"raid6", VDS_LT_RAID6},     {"raid01", VDS_LT_RAID01},                 {"raid03", VDS_LT_RAID03},
    {"raid05", VDS_LT_RAID05},   {"raid10", VDS_LT_RAID10},                 {"raid15", VDS_LT_RAID15},
    {"raid30", VDS_LT_RAID30},   {"raid50", VDS_LT_RAID50},                 {"raid51", VDS_LT_RAID51},
    {"raid53", VDS_LT_RAID53},   {"raid60", VDS_LT_RAID60},                 {"raid61", VDS_LT_RAID61},
};

bool AllDigits(const std::string& s) {
    if (s.empty()) return false;
    for (char c : s)
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    return true;
}

// a * b + c within 64 bits.
bool MulAdd(uint64_t a, uint64_t b, uint64_t c, uint64_t* out) {
    unsigned __int128 v = static_cast<unsigned __int128>(a) * b + c;
    if (v > std::numeric_limits<uint64_t>::max()) return false;
    *out = static_cast<uint64_t>(v);
    return true;
}

// --- hints -----------------------------------------------------------------------------------

struct FlagHint {
    const char* word;
    ULONGLONG bit;
    BOOL VDS_HINTS2::*field;
};

const FlagHint kFlags[] = {
    {"fastcrashrecovery", VDS_HINT_FASTCRASHRECOVERYREQUIRED, &VDS_HINTS2::bFastCrashRecoveryRequired},
    {"mostlyreads", VDS_HINT_MOSTLYREADS, &VDS_HINTS2::bMostlyReads},
    {"sequentialreads", VDS_HINT_OPTIMIZEFORSEQUENTIALREADS, &VDS_HINTS2::bOptimizeForSequentialReads},
    {"sequentialwrites", VDS_HINT_OPTIMIZEFORSEQUENTIALWRITES, &VDS_HINTS2::bOptimizeForSequentialWrites},
    {"readbackverify", VDS_HINT_READBACKVERIFYENABLED, &VDS_HINTS2::bReadBackVerifyEnabled},
    {"remap", VDS_HINT_REMAPENABLED, &VDS_HINTS2::bRemapEnabled},
    {"writethrough", VDS_HINT_WRITETHROUGHCACHINGENABLED, &VDS_HINTS2::bWriteThroughCachingEnabled},
    {"checksum", VDS_HINT_HARDWARECHECKSUMENABLED, &VDS_HINTS2::bHardwareChecksumEnabled},
    {"yankable", VDS_HINT_ISYANKABLE, &VDS_HINTS2::bIsYankable},
    {"hotspare", VDS_HINT_ALLOCATEHOTSPARE, &VDS_HINTS2::bAllocateHotSpare},
    {"mirroredcache", VDS_HINT_USEMIRROREDCACHE, &VDS_HINTS2::bUseMirroredCache},
    {"readcache", VDS_HINT_READCACHINGENABLED, &VDS_HINTS2::bReadCachingEnabled},
    {"writecache", VDS_HINT_WRITECACHINGENABLED, &VDS_HINTS2::bWriteCachingEnabled},
    {"mediascan", VDS_HINT_MEDIASCANENABLED, &VDS_HINTS2::bMediaScanEnabled},
    {"consistencycheck", VDS_HINT_CONSISTENCYCHECKENABLED, &VDS_HINTS2::bConsistencyCheckEnabled},
};

// The provider's own bits. The RAID words are read by the provider only with bMostlyReads, so
// they bring it along.
struct PrivateHint {
    const char* word;
    ULONGLONG bit;
};

const PrivateHint kPrivate[] = {
    {"backingstore", TROV_HINT_BACKING_STORE}, {"master", TROV_HINT_MASTER_VOLUME},
    {"snapshot", TROV_HINT_SNAPSHOT},          {"convertmaster", TROV_HINT_CONVERT_MASTER},
    {"dummy", TROV_HINT_DUMMY_LUN},            {"raid3", TROV_HINT_RAID3},
    {"raid50", TROV_HINT_RAID50},              {"raid5", TROV_HINT_RAID5},
};
constexpr ULONGLONG kRaidBits = TROV_HINT_RAID3 | TROV_HINT_RAID50 | TROV_HINT_RAID5;

enum class Number { Size32, Size64, Count, Priority, Bus };
struct NumberHint {
    const char* word;
    Number kind;
    ULONGLONG bit;  // 0: the field has no bit of its own
    size_t offset;
};

const NumberHint kNumbers[] = {
    {"maxdrives", Number::Count, 0, offsetof(VDS_HINTS2, ulMaximumDriveCount)},
    {"expectedsize", Number::Size64, 0, offsetof(VDS_HINTS2, ullExpectedMaximumSize)},
    {"readsize", Number::Size32, 0, offsetof(VDS_HINTS2, ulOptimalReadSize)},
    {"readalign", Number::Size32, 0, offsetof(VDS_HINTS2, ulOptimalReadAlignment)},
    {"writesize", Number::Size32, 0, offsetof(VDS_HINTS2, ulOptimalWriteSize)},
    {"writealign", Number::Size32, 0, offsetof(VDS_HINTS2, ulOptimalWriteAlignment)},
    {"rebuildpriority", Number::Priority, 0, offsetof(VDS_HINTS2, sRebuildPriority)},
    {"bustype", Number::Bus, VDS_HINT_BUSTYPE, offsetof(VDS_HINTS2, BusType)},
};

bool ParseFlagValue(const std::string& v, bool* on) {
    std::string w = Lower(v);
    if (w == "on" || w == "yes" || w == "true" || w == "1") return *on = true, true;
    if (w == "off" || w == "no" || w == "false" || w == "0") return *on = false, true;
    return false;
}

bool ParseBus(const std::string& v, int32_t* bus) {
    long n;
    if (ParseNumber(v, 0, 0x7f, &n)) return *bus = static_cast<int32_t>(n), true;
    for (int i = 1; i <= 0x13; ++i)
        if (Lower(EnumText(Kind::Drive, "busType", i)) == Lower(v)) return *bus = i, true;
    return false;
}

template <class T>
T& FieldAt(VDS_HINTS2* h, size_t offset) {
    return *reinterpret_cast<T*>(reinterpret_cast<char*>(h) + offset);
}

}  // namespace

bool ParseLunType(const std::string& word, VDS_LUN_TYPE* type) {
    std::string w = Lower(word);
    for (const TypeName& t : kTypes)
        if (w == t.name) return *type = t.type, true;
    long n;
    if (AllDigits(w) && ParseNumber(w, 0, 65535, &n)) return *type = static_cast<VDS_LUN_TYPE>(n), true;
    return false;
}

std::string LunTypeNames() {
    std::string out;
    for (const TypeName& t : kTypes) out += (out.empty() ? "" : ", ") + std::string(t.name);
    return out;
}

bool ParseSize(const std::string& word, uint64_t* bytes, std::string* why) {
    size_t i = 0;
    while (i < word.size() && std::isdigit(static_cast<unsigned char>(word[i]))) ++i;
    std::string whole = word.substr(0, i), fraction;
    if (i < word.size() && word[i] == '.') {
        size_t from = ++i;
        while (i < word.size() && std::isdigit(static_cast<unsigned char>(word[i]))) ++i;
        fraction = word.substr(from, i - from);
        if (fraction.empty()) whole.clear();  // "1." is no number
    }
    std::string unit = Lower(word.substr(i));
    if (whole.empty()) {
        *why = "\"" + word + "\" is no size (bytes, or a number with KB, MB, GB or TB)";
        return false;
    }
    static const struct {
        const char* a;
        const char* b;
        const char* c;
        unsigned shift;
    } kUnits[] = {{"", "b", "b", 0},        {"kb", "kib", "k", 10}, {"mb", "mib", "m", 20},
                  {"gb", "gib", "g", 30}, {"tb", "tib", "t", 40}, {"pb", "pib", "p", 50}};
    int shift = -1;
    for (const auto& u : kUnits)
        if (unit == u.a || unit == u.b || unit == u.c) shift = static_cast<int>(u.shift);
    if (shift < 0) {
        *why = "\"" + word + "\": unknown unit \"" + word.substr(word.size() - unit.size()) +
               "\" (B, KB, MB, GB, TB, PB: powers of 1024)";
        return false;
    }
    const uint64_t scale = uint64_t(1) << shift;
    uint64_t value = 0;
    for (char c : whole)
        if (!MulAdd(value, 10, uint64_t(c - '0'), &value)) {
            *why = "\"" + word + "\" is too large (at most 16 EiB less one byte)";
            return false;
        }
    if (!MulAdd(value, scale, 0, &value)) {
        *why = "\"" + word + "\" is too large (at most 16 EiB less one byte)";
        return false;
    }
    if (!fraction.empty()) {
        // The fraction in bytes must be whole: 0.5KB is 512 bytes, 0.1KB is no number of bytes.
        if (fraction.size() > 18) fraction.resize(18);  // beyond what any unit can make whole
        unsigned __int128 num = 0, den = 1;
        for (char c : fraction) num = num * 10 + unsigned(c - '0'), den *= 10;
        num *= scale;
        if (num % den != 0) {
            *why = "\"" + word + "\" is no whole number of bytes";
            return false;
        }
        if (!MulAdd(1, value, static_cast<uint64_t>(num / den), &value)) {
            *why = "\"" + word + "\" is too large (at most 16 EiB less one byte)";
            return false;
        }
    }
    *bytes = value;
    return true;
}

int ApplyHintWord(const std::string& word, VDS_HINTS2* h, std::string* why) {
    size_t eq = word.find('=');
    std::string key = Lower(word.substr(0, eq));
    bool hasValue = eq != std::string::npos;
    std::string value = hasValue ? word.substr(eq + 1) : std::string();
    for (const FlagHint& f : kFlags) {
        if (key != f.word) continue;
        bool on = true;
        if (hasValue && !ParseFlagValue(value, &on)) {
            *why = "hint " + key + " is on or off, not \"" + value + "\"";
            return -1;
        }
        h->ullHintMask |= f.bit;
        h->*f.field = on ? 1 : 0;
        return 1;
    }
    for (const PrivateHint& p : kPrivate) {
        if (key != p.word) continue;
        bool on = true;
        if (hasValue && !ParseFlagValue(value, &on)) {
            *why = "hint " + key + " is on or off, not \"" + value + "\"";
            return -1;
        }
        if (on)
            h->ullHintMask |= p.bit;
        else
            h->ullHintMask &= ~p.bit;
        if (on && (p.bit & kRaidBits)) {
            if ((h->ullHintMask & kRaidBits) != p.bit) {
                *why = "choose one of the hints raid5, raid50 and raid3";
                return -1;
            }
            h->ullHintMask |= VDS_HINT_MOSTLYREADS;
            h->bMostlyReads = 1;
        }
        return 1;
    }
    for (const NumberHint& n : kNumbers) {
        if (key != n.word) continue;
        if (!hasValue || value.empty()) {
            *why = "hint " + key + " takes a value (" + key + "=...)";
            return -1;
        }
        uint64_t v = 0;
        long l = 0;
        int32_t bus = 0;
        switch (n.kind) {
        case Number::Size32:
        case Number::Size64:
            if (!ParseSize(value, &v, why)) return -1;
            if (n.kind == Number::Size32 && v > 0xFFFFFFFFull) {
                *why = "hint " + key + " is at most 4 GiB less one byte, not " + value;
                return -1;
            }
            if (n.kind == Number::Size32)
                FieldAt<ULONG>(h, n.offset) = static_cast<ULONG>(v);
            else
                FieldAt<ULONGLONG>(h, n.offset) = v;
            break;
        case Number::Count:
            if (!ParseNumber(value, 0, 0x7FFFFFFFL, &l)) {
                *why = "hint " + key + " takes a count, not \"" + value + "\"";
                return -1;
            }
            FieldAt<ULONG>(h, n.offset) = static_cast<ULONG>(l);
            break;
        case Number::Priority:
            if (!ParseNumber(value, -32768, 32767, &l)) {
                *why = "hint " + key + " takes a number from -32768 to 32767, not \"" + value + "\"";
                return -1;
            }
            FieldAt<SHORT>(h, n.offset) = static_cast<SHORT>(l);
            break;
        case Number::Bus:
            if (!ParseBus(value, &bus)) {
                *why = "hint bustype takes a bus (sas, sata, fibre, iscsi, ...) or its number, not \"" + value + "\"";
                return -1;
            }
            FieldAt<VDS_STORAGE_BUS_TYPE>(h, n.offset) = static_cast<VDS_STORAGE_BUS_TYPE>(bus);
            break;
        }
        h->ullHintMask |= n.bit;
        return 1;
    }
    return 0;
}

std::vector<const char*> HintWords() {
    std::vector<const char*> out;
    for (const FlagHint& f : kFlags) out.push_back(f.word);
    for (const PrivateHint& p : kPrivate) out.push_back(p.word);
    for (const NumberHint& n : kNumbers) out.push_back(n.word);
    return out;
}

bool ParseRequest(const std::vector<std::string>& words, unsigned keys, Request* r, std::string* why) {
    static const struct {
        const char* key;
        unsigned flag;
    } kKeys[] = {{"size", kKeySize}, {"drives", kKeyDrives}, {"stripe", kKeyStripe}, {"unmask", kKeyUnmask},
                 {"pool", kKeyPool}};
    unsigned seen = 0;
    size_t i = 0;
    for (; i < words.size(); ++i) {
        const std::string& w = words[i];
        size_t eq = w.find('=');
        std::string key = Lower(w.substr(0, eq));
        std::string value = eq == std::string::npos ? std::string() : w.substr(eq + 1);
        unsigned flag = 0;
        for (const auto& k : kKeys)
            if (eq != std::string::npos && key == k.key) flag = k.flag;
        if (flag) {
            if (!(keys & flag)) {
                *why = "this command takes no " + key + "=";
                return false;
            }
            if (seen & flag) {
                *why = key + "= is given twice";
                return false;
            }
            seen |= flag;
            if (flag == kKeySize) {
                if (!ParseSize(value, &r->size, why)) return false;
                r->sizeGiven = true;
            } else if (flag == kKeyStripe) {
                uint64_t stripe = 0;
                if (!ParseSize(value, &stripe, why)) return false;
                if (stripe > 0xFFFFFFFFull) {
                    *why = "stripe=" + value + " is too large";
                    return false;
                }
                r->hints.ulStripeSize = static_cast<ULONG>(stripe);
                r->stripeGiven = true;
            } else if (flag == kKeyDrives) {
                size_t from = 0;
                while (from <= value.size()) {
                    size_t comma = value.find(',', from);
                    std::string d = value.substr(from, comma == std::string::npos ? std::string::npos : comma - from);
                    if (d.empty()) {
                        *why = "drives=" + value + ": an empty drive name (drives=D,D,...)";
                        return false;
                    }
                    for (const std::string& before : r->drives)
                        if (Lower(before) == Lower(d)) {
                            *why = "drive " + d + " is named twice";
                            return false;
                        }
                    if (r->drives.size() == kMaxNamedDrives) {
                        *why = "drives= names at most " + std::to_string(kMaxNamedDrives) + " drives";
                        return false;
                    }
                    r->drives.push_back(d);
                    if (comma == std::string::npos) break;
                    from = comma + 1;
                }
            } else if (flag == kKeyUnmask) {
                // "-" for no host; the provider takes the list as it is, "*" or names joined by ';'.
                r->unmask = value == "-" ? std::string() : value;
                r->unmaskGiven = true;
            } else if (flag == kKeyPool) {
                if (value.empty()) {
                    *why = "pool= names a pool (its number, name or id)";
                    return false;
                }
                r->pool = value;
            }
            continue;
        }
        if (keys & kKeyHints) {
            int taken = ApplyHintWord(w, &r->hints, why);
            if (taken < 0) return false;
            if (taken > 0) continue;
        }
        break;
    }
    // The RAID hints are read with bMostlyReads: switching that off again leaves them unread.
    if ((r->hints.ullHintMask & kRaidBits) && !r->hints.bMostlyReads) {
        *why = "the hints raid5, raid50 and raid3 need mostlyreads (the provider reads them only with it)";
        return false;
    }
    r->target.assign(words.begin() + long(i), words.end());
    for (const std::string& w : r->target)
        if (w.find('=') != std::string::npos) {
            *why = "\"" + w + "\" is no word of this command" +
                   (r->target.size() > 2 ? std::string() : " (or it comes after the target)");
            return false;
        }
    if (r->target.size() > 2) {
        *why = "\"" + r->target[0] + "\" is no word of this command";
        return false;
    }
    return true;
}

std::string HintMaskText(uint64_t mask) {
    std::string out;
    uint64_t rest = mask;
    auto add = [&](uint64_t bit, const char* word) {
        if (!(mask & bit)) return;
        out += (out.empty() ? "" : ", ") + std::string(word);
        rest &= ~bit;
    };
    for (const FlagHint& f : kFlags) add(f.bit, f.word);
    add(VDS_HINT_BUSTYPE, "bustype");
    for (const PrivateHint& p : kPrivate) add(p.bit, p.word);
    if (rest) {
        char hex[24];
        std::snprintf(hex, sizeof hex, "0x%llx", static_cast<unsigned long long>(rest));
        out += (out.empty() ? "" : ", ") + std::string(hex);
    }
    return out;
}

namespace {

// The fields both hint records share, in their order.
template <class Hints>
nlohmann::ordered_json CommonHintsJson(const Hints& h) {
    return {{"ullHintMask", h.ullHintMask},
            {"ullHintMaskText", HintMaskText(h.ullHintMask)},
            {"ullExpectedMaximumSize", h.ullExpectedMaximumSize},
            {"ulOptimalReadSize", h.ulOptimalReadSize},
            {"ulOptimalReadAlignment", h.ulOptimalReadAlignment},
            {"ulOptimalWriteSize", h.ulOptimalWriteSize},
            {"ulOptimalWriteAlignment", h.ulOptimalWriteAlignment},
            {"ulMaximumDriveCount", h.ulMaximumDriveCount},
            {"ulStripeSize", h.ulStripeSize},
            {"bFastCrashRecoveryRequired", h.bFastCrashRecoveryRequired != 0},
            {"bMostlyReads", h.bMostlyReads != 0},
            {"bOptimizeForSequentialReads", h.bOptimizeForSequentialReads != 0},
            {"bOptimizeForSequentialWrites", h.bOptimizeForSequentialWrites != 0},
            {"bRemapEnabled", h.bRemapEnabled != 0},
            {"bReadBackVerifyEnabled", h.bReadBackVerifyEnabled != 0},
            {"bWriteThroughCachingEnabled", h.bWriteThroughCachingEnabled != 0},
            {"bHardwareChecksumEnabled", h.bHardwareChecksumEnabled != 0},
            {"bIsYankable", h.bIsYankable != 0}};
}

}  // namespace

nlohmann::ordered_json HintsJson(const VDS_HINTS2& h) {
    nlohmann::ordered_json j = CommonHintsJson(h);
    j["bAllocateHotSpare"] = h.bAllocateHotSpare != 0;
    j["bUseMirroredCache"] = h.bUseMirroredCache != 0;
    j["bReadCachingEnabled"] = h.bReadCachingEnabled != 0;
    j["bWriteCachingEnabled"] = h.bWriteCachingEnabled != 0;
    j["bMediaScanEnabled"] = h.bMediaScanEnabled != 0;
    j["bConsistencyCheckEnabled"] = h.bConsistencyCheckEnabled != 0;
    j["BusType"] = h.BusType;
    j["BusTypeText"] = EnumText(Kind::Drive, "busType", h.BusType);
    j["sRebuildPriority"] = h.sRebuildPriority;
    return j;
}

nlohmann::ordered_json HintsJson(const VDS_HINTS& h) {
    nlohmann::ordered_json j = CommonHintsJson(h);
    j["sRebuildPriority"] = h.sRebuildPriority;
    return j;
}

}  // namespace trovctl
