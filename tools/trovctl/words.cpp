#include "words.h"

#include <cstdio>
#include <iterator>
#include <utility>
#include <vector>

namespace trovctl {

namespace {

using Json = nlohmann::ordered_json;

struct Word {
    int64_t value;
    const char* text;
};

template <size_t N>
std::string Lookup(const Word (&words)[N], int64_t value) {
    for (const Word& w : words)
        if (w.value == value) return w.text;
    return std::to_string(value);
}

// The states share their values across the kinds of object.
const Word kStatus[] = {{0, "unknown"}, {1, "online"}, {2, "not ready"},        {4, "offline"},
                        {5, "failed"},  {8, "removed"}, {9, "partially managed"}};
const Word kHealth[] = {{0, "unknown"},
                        {1, "healthy"},
                        {2, "rebuilding"},
                        {3, "stale"},
                        {4, "failing"},
                        {5, "failing redundancy"},
                        {6, "failed redundancy"},
                        {7, "failed redundancy, failing"},
                        {8, "failed"},
                        {9, "replaced"},
                        {10, "pending failure"},
                        {11, "degraded"}};
const Word kTransition[] = {{0, "unknown"},   {1, "stable"},       {2, "extending"},
                            {3, "shrinking"}, {4, "reconfiguring"}, {5, "restriping"}};
// LUN and plex types share their values.
const Word kLunType[] = {{0, "unknown"}, {1, "default"}, {2, "faulttolerant"}, {3, "nonfaulttolerant"},
                         {10, "simple"}, {11, "span"},   {12, "stripe"},       {13, "mirror"},
                         {14, "parity"}, {15, "RAID2"},  {16, "RAID3"},        {17, "RAID4"},
                         {18, "RAID5"},  {19, "RAID6"},  {20, "RAID01"},       {21, "RAID03"},
                         {22, "RAID05"}, {23, "RAID10"}, {24, "RAID15"},       {25, "RAID30"},
                         {26, "RAID50"}, {27, "RAID51"}, {28, "RAID53"},       {29, "RAID60"},
                         {30, "RAID61"}};
const Word kRaidType[] = {{0, "unknown"},  {10, "RAID0"},  {11, "RAID1"},  {12, "RAID2"},  {13, "RAID3"},
                          {14, "RAID4"},   {15, "RAID5"},  {16, "RAID6"},  {17, "RAID01"}, {18, "RAID03"},
                          {19, "RAID05"},  {20, "RAID10"}, {21, "RAID15"}, {22, "RAID30"}, {23, "RAID50"},
                          {24, "RAID51"},  {25, "RAID53"}, {26, "RAID60"}, {27, "RAID61"}};
const Word kBusType[] = {{0, "unknown"}, {1, "SCSI"},  {2, "ATAPI"},  {3, "ATA"},   {4, "1394"},
                         {5, "SSA"},     {6, "Fibre"}, {7, "USB"},    {8, "RAID"},  {9, "iSCSI"},
                         {10, "SAS"},    {11, "SATA"}, {12, "SD"},    {13, "MMC"},  {14, "virtual"},
                         {15, "file-backed virtual"}, {16, "spaces"}, {17, "NVMe"}, {18, "SCM"}, {19, "UFS"}};
const Word kPoolType[] = {{0, "unknown"}, {1, "primordial"}, {2, "concrete"}};
const Word kAddressType[] = {{0, "text"}, {1, "IPv4"}, {2, "IPv6"}, {3, "empty"}};
const Word kProviderType[] = {{0, "unknown"}, {1, "software"}, {2, "hardware"}, {3, "virtual disk"}};

const Word kDriveFlags[] = {
    {0x1, "hotspare"}, {0x2, "assigned"}, {0x4, "unassigned"}, {0x8, "hotspare in use"}, {0x10, "standby"}};
const Word kLunFlags[] = {{0x1, "LBN remap"},     {0x2, "read-back verify"}, {0x4, "write-through"},
                          {0x8, "checksum"},      {0x10, "read cache"},      {0x20, "write cache"},
                          {0x40, "media scan"},   {0x80, "consistency check"}, {0x100, "snapshot"}};

template <size_t N>
std::string Flags(const Word (&words)[N], uint64_t value) {
    std::string out;
    uint64_t rest = value;
    for (const Word& w : words)
        if (value & uint64_t(w.value)) {
            out += (out.empty() ? "" : ", ") + std::string(w.text);
            rest &= ~uint64_t(w.value);
        }
    if (rest) {
        char hex[24];
        std::snprintf(hex, sizeof hex, "0x%llx", static_cast<unsigned long long>(rest));
        out += (out.empty() ? "" : ", ") + std::string(hex);
    }
    return out;
}

bool IsLunLike(Kind k) { return k == Kind::Lun || k == Kind::Plex; }

}  // namespace

std::string SizeText(uint64_t bytes) {
    static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    size_t unit = 0;
    while (unit + 1 < std::size(kUnits) && bytes >= (uint64_t(1) << (10 * (unit + 1)))) ++unit;
    if (unit == 0) return std::to_string(bytes) + " B";
    uint64_t scale = uint64_t(1) << (10 * unit);
    char buf[32];
    if (bytes % scale == 0) {
        std::snprintf(buf, sizeof buf, "%llu %s", static_cast<unsigned long long>(bytes / scale), kUnits[unit]);
    } else {
        // Tenths, rounded half up, without the doubles' rounding of large values.
        uint64_t tenths = (bytes / scale) * 10 + ((bytes % scale) * 10 + scale / 2) / scale;
        std::snprintf(buf, sizeof buf, "%llu.%llu %s", static_cast<unsigned long long>(tenths / 10),
                      static_cast<unsigned long long>(tenths % 10), kUnits[unit]);
    }
    return buf;
}

std::string EnumText(Kind kind, const std::string& field, int64_t value) {
    if (field == "status") return Lookup(kStatus, value);
    if (field == "health") return Lookup(kHealth, value);
    if (field == "TransitionState") return Lookup(kTransition, value);
    if (field == "busType") return Lookup(kBusType, value);
    if (field == "raidType") return Lookup(kRaidType, value);
    if (field == "type") {
        if (IsLunLike(kind)) return Lookup(kLunType, value);
        if (kind == Kind::Pool) return Lookup(kPoolType, value);
        if (kind == Kind::Portal) return Lookup(kAddressType, value);  // the address's type
    }
    return {};
}

std::string ProviderTypeText(int64_t value) { return Lookup(kProviderType, value); }

std::string FlagsText(Kind kind, const std::string& field, uint64_t value) {
    if (field != "ulFlags") return {};
    if (kind == Kind::Drive) return Flags(kDriveFlags, value);
    if (kind == Kind::Lun) return Flags(kLunFlags, value);
    return {};
}

Json WithTextForms(Kind kind, const Json& record) {
    if (!record.is_object()) return record;
    Json out = Json::object();
    for (auto it = record.begin(); it != record.end(); ++it) {
        const std::string& key = it.key();
        if (it.value().is_object()) {
            out[key] = WithTextForms(kind, it.value());
            continue;
        }
        out[key] = it.value();
        if (!it.value().is_number_integer()) continue;
        std::string text = key == "ulFlags" ? FlagsText(kind, key, it.value().get<uint64_t>())
                                            : EnumText(kind, key, it.value().get<int64_t>());
        if (key == "ulFlags" && (kind == Kind::Drive || kind == Kind::Lun))
            out[key + "Text"] = text;
        else if (!text.empty())
            out[key + "Text"] = text;
    }
    return out;
}

std::string StateText(Kind kind, const Json& r) {
    std::string status = r.contains("status") ? EnumText(kind, "status", r["status"].get<int64_t>()) : "";
    if (!r.contains("health")) return status;
    int64_t health = r["health"].get<int64_t>();
    if (health == 0 || health == 1) return status;
    std::string h = EnumText(kind, "health", health);
    return r.contains("status") && r["status"].get<int64_t>() != 1 ? status + ", " + h : h;
}

bool NeedsAttention(const Json& r) {
    if (r.contains("health")) {
        int64_t h = r["health"].get<int64_t>();
        if (h != 0 && h != 1) return true;
    }
    if (r.contains("status")) {
        int64_t s = r["status"].get<int64_t>();
        if (s != 0 && s != 1) return true;
    }
    return false;
}

}  // namespace trovctl
