#include "render.h"

#include <algorithm>
#include <cstdio>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "platform/hresult.h"
#include "platform/platform.h"
#include "platform/wstr.h"

namespace trovctl {

namespace {

std::string Take(LPWSTR& s) {
    std::string out = s ? WideToUtf8(s) : std::string();
    CoTaskMemFree(s);
    s = nullptr;
    return out;
}

std::string Hex(uint32_t v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%x", v);
    return buf;
}

// The text form of a value: numbers as they are, flags also in hexadecimal.
std::string ValueText(const std::string& key, const Json& v) {
    if (v.is_string()) return v.get<std::string>();
    if (v.is_boolean()) return v.get<bool>() ? "true" : "false";
    if (v.is_number_unsigned() && (key.rfind("ul", 0) == 0 && key.find("Flags") != std::string::npos))
        return std::to_string(v.get<uint64_t>()) + " (" + Hex(v.get<uint32_t>()) + ")";
    return v.dump();
}

}  // namespace

std::string HrText(HRESULT hr) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%08X", static_cast<uint32_t>(hr));
    const char* name = HResultName(hr);
    return name ? std::string(name) + " (" + buf + ")" : std::string(buf);
}

std::string Gib(uint64_t bytes) {
    std::ostringstream s;
    s << std::fixed << std::setprecision(1) << double(bytes) / (1024.0 * 1024 * 1024) << " GiB";
    return s.str();
}

// --- records ---------------------------------------------------------------------------------

Json ProviderJson(VDS_PROVIDER_PROP& p) {
    return {{"id", GuidToString(p.id)},
            {"pwszName", Take(p.pwszName)},
            {"guidVersionId", GuidToString(p.guidVersionId)},
            {"pwszVersion", Take(p.pwszVersion)},
            {"type", p.type},
            {"ulFlags", p.ulFlags},
            {"ulStripeSizeFlags", p.ulStripeSizeFlags},
            {"sRebuildPriority", p.sRebuildPriority}};
}

Json SubsystemJson(VDS_SUB_SYSTEM_PROP2& p) {
    return {{"id", GuidToString(p.id)},
            {"pwszFriendlyName", Take(p.pwszFriendlyName)},
            {"pwszIdentification", Take(p.pwszIdentification)},
            {"ulFlags", p.ulFlags},
            {"ulStripeSizeFlags", p.ulStripeSizeFlags},
            {"ulSupportedRaidTypeFlags", p.ulSupportedRaidTypeFlags},
            {"status", p.status},
            {"health", p.health},
            {"sNumberOfInternalBuses", p.sNumberOfInternalBuses},
            {"sMaxNumberOfSlotsEachBus", p.sMaxNumberOfSlotsEachBus},
            {"sMaxNumberOfControllers", p.sMaxNumberOfControllers},
            {"sRebuildPriority", p.sRebuildPriority},
            {"ulNumberOfEnclosures", p.ulNumberOfEnclosures}};
}

Json ControllerJson(VDS_CONTROLLER_PROP& p) {
    return {{"id", GuidToString(p.id)},
            {"pwszFriendlyName", Take(p.pwszFriendlyName)},
            {"pwszIdentification", Take(p.pwszIdentification)},
            {"status", p.status},
            {"health", p.health},
            {"sNumberOfPorts", p.sNumberOfPorts}};
}

Json PortJson(VDS_PORT_PROP& p) {
    return {{"id", GuidToString(p.id)},
            {"pwszFriendlyName", Take(p.pwszFriendlyName)},
            {"pwszIdentification", Take(p.pwszIdentification)},
            {"status", p.status}};
}

Json DriveJson(VDS_DRIVE_PROP2& p) {
    return {{"id", GuidToString(p.id)},
            {"ullSize", p.ullSize},
            {"pwszFriendlyName", Take(p.pwszFriendlyName)},
            {"pwszIdentification", Take(p.pwszIdentification)},
            {"ulFlags", p.ulFlags},
            {"status", p.status},
            {"health", p.health},
            {"sInternalBusNumber", p.sInternalBusNumber},
            {"sSlotNumber", p.sSlotNumber},
            {"ulEnclosureNumber", p.ulEnclosureNumber},
            {"busType", p.busType},
            {"ulSpindleSpeed", p.ulSpindleSpeed}};
}

Json LunJson(VDS_LUN_PROP& p) {
    return {{"id", GuidToString(p.id)},
            {"ullSize", p.ullSize},
            {"pwszFriendlyName", Take(p.pwszFriendlyName)},
            {"pwszIdentification", Take(p.pwszIdentification)},
            {"pwszUnmaskingList", Take(p.pwszUnmaskingList)},
            {"ulFlags", p.ulFlags},
            {"type", p.type},
            {"status", p.status},
            {"health", p.health},
            {"TransitionState", p.TransitionState},
            {"sRebuildPriority", p.sRebuildPriority}};
}

Json PlexJson(const VDS_LUN_PLEX_PROP& p) {
    return {{"id", GuidToString(p.id)},       {"ullSize", p.ullSize},
            {"type", p.type},                 {"status", p.status},
            {"health", p.health},             {"TransitionState", p.TransitionState},
            {"ulFlags", p.ulFlags},           {"ulStripeSize", p.ulStripeSize},
            {"sRebuildPriority", p.sRebuildPriority}};
}

Json PoolJson(VDS_STORAGE_POOL_PROP& p, VDS_POOL_ATTRIBUTES* a) {
    Json j = {{"id", GuidToString(p.id)},
              {"status", p.status},
              {"health", p.health},
              {"type", p.type},
              {"pwszName", Take(p.pwszName)},
              {"pwszDescription", Take(p.pwszDescription)},
              {"ullTotalConsumedSpace", p.ullTotalConsumedSpace},
              {"ullTotalManagedSpace", p.ullTotalManagedSpace},
              {"ullRemainingFreeSpace", p.ullRemainingFreeSpace}};
    if (a) {
        j["ullAttributeMask"] = a->ullAttributeMask;
        j["raidType"] = a->raidType;
        j["busType"] = a->busType;
        j["pwszIntendedUsage"] = Take(a->pwszIntendedUsage);
        j["bSpinDown"] = a->bSpinDown != 0;
        j["bIsThinProvisioned"] = a->bIsThinProvisioned != 0;
        j["ullProvisionedSpace"] = a->ullProvisionedSpace;
        j["bNoSinglePointOfFailure"] = a->bNoSinglePointOfFailure != 0;
        j["ulStripeSize"] = a->ulStripeSize;
        j["ulStripeSizeMax"] = a->ulStripeSizeMax;
        j["ulStripeSizeMin"] = a->ulStripeSizeMin;
        j["ulDefaultStripeSize"] = a->ulDefaultStripeSize;
    }
    return j;
}

Json TargetJson(VDS_ISCSI_TARGET_PROP& p) {
    return {{"id", GuidToString(p.id)},
            {"pwszIscsiName", Take(p.pwszIscsiName)},
            {"pwszFriendlyName", Take(p.pwszFriendlyName)},
            {"bChapEnabled", p.bChapEnabled != 0}};
}

Json PortalJson(const VDS_ISCSI_PORTAL_PROP& p) {
    const VDS_IPADDRESS& a = p.address;
    Json addr = {{"type", a.type}, {"wszTextAddress", WideToUtf8(a.wszTextAddress)}, {"ulPort", a.ulPort}};
    if (a.type == VDS_IPT_IPV4) addr["ipv4Address"] = a.ipv4Address;
    return {{"id", GuidToString(p.id)}, {"address", addr}, {"status", p.status}};
}

Json GroupJson(const VDS_ISCSI_PORTALGROUP_PROP& p) { return {{"id", GuidToString(p.id)}, {"tag", p.tag}}; }

std::string RowLabel(Kind kind, const Json& r) {
    switch (kind) {
    case Kind::Pool: return r["pwszName"].get<std::string>();
    case Kind::Target: return r["pwszIscsiName"].get<std::string>();
    case Kind::Portal: return r["address"]["wszTextAddress"].get<std::string>() + ":" +
                              std::to_string(r["address"]["ulPort"].get<uint32_t>());
    case Kind::PortalGroup: return "tag " + std::to_string(r["tag"].get<int>());
    case Kind::Plex: return "plex of " + std::to_string(r["ullSize"].get<uint64_t>()) + " bytes";
    default: return r["pwszFriendlyName"].get<std::string>();
    }
}

// --- output ----------------------------------------------------------------------------------

void Render::Object(const Json& j) {
    if (json_) {
        out_ << j.dump(2) << "\n";
        return;
    }
    size_t width = 0;
    for (auto it = j.begin(); it != j.end(); ++it) width = std::max(width, it.key().size());
    for (auto it = j.begin(); it != j.end(); ++it)
        out_ << std::left << std::setw(int(width)) << it.key() << " : " << ValueText(it.key(), it.value()) << "\n";
}

void Render::Table(Kind kind, const Json& rows, const std::string& doubt) {
    if (json_) {
        if (doubt.empty()) {
            out_ << rows.dump(2) << "\n";
        } else {
            // Not a bare array: a program that takes the rows must see that they may be partial.
            Json doc = {{"incomplete", true}, {"reason", doubt}, {KindPlural(kind), rows}};
            out_ << doc.dump(2) << "\n";
        }
    } else {
        out_ << KindPlural(kind) << " (" << rows.size() << ")\n";
        int i = 0;
        for (const Json& r : rows) {
            out_ << "  " << std::setw(2) << std::right << i++ << "  " << r["id"].get<std::string>() << "  "
                 << std::left << std::setw(40) << RowLabel(kind, r);
            if (r.contains("status")) out_ << "  status " << r["status"].get<int>();
            if (r.contains("health")) out_ << "  health " << r["health"].get<int>();
            if (r.contains("ullSize")) out_ << "  " << Gib(r["ullSize"].get<uint64_t>());
            if (r.contains("ullTotalManagedSpace"))
                out_ << "  " << Gib(r["ullRemainingFreeSpace"].get<uint64_t>()) << " free of "
                     << Gib(r["ullTotalManagedSpace"].get<uint64_t>());
            if (kind == Kind::Drive) out_ << "  flags " << Hex(r["ulFlags"].get<uint32_t>());
            out_ << "\n";
        }
    }
    if (!doubt.empty()) Note("this listing may be incomplete: " + doubt);
}

void Render::List(const char* heading, const Json& rows, void (*line)(std::ostream&, const Json&)) {
    if (json_) {
        out_ << rows.dump(2) << "\n";
        return;
    }
    out_ << heading << " (" << rows.size() << ")\n";
    for (const Json& r : rows) {
        out_ << "  ";
        line(out_, r);
        out_ << "\n";
    }
}

void Render::Done(const std::string& what) {
    if (json_)
        out_ << Json{{"command", what}, {"result", "S_OK"}}.dump(2) << "\n";
    else
        out_ << what << ": done\n";
}

void Render::Error(const std::string& error, int64_t code, const std::string& message) {
    out_.flush();
    err_ << "trovctl: " << message << "\n";
    err_.flush();
    if (json_) out_ << Json{{"error", error}, {"code", code}, {"message", message}}.dump(2) << "\n";
}

void Render::Note(const std::string& text) {
    out_.flush();
    err_ << "trovctl: " << text << "\n";
    err_.flush();
}

// --- progress --------------------------------------------------------------------------------

ProgressBar::ProgressBar(std::ostream& err, std::string label, bool terminal, int width)
    : err_(err), label_(std::move(label)), terminal_(terminal), width_(std::max(width, 1)) {}

ProgressBar::~ProgressBar() { Finish(); }

std::string ProgressBar::Text(const std::string& label, int percent, int width) {
    percent = std::clamp(percent, 0, 100);
    width = std::max(width, 1);
    int filled = percent * width / 100;
    char pct[8];
    std::snprintf(pct, sizeof pct, "%3d%%", percent);
    return label + " [" + std::string(size_t(filled), '#') + std::string(size_t(width - filled), ' ') + "] " + pct;
}

void ProgressBar::Update(int percent) {
    percent = std::clamp(percent, 0, 100);
    if (finished_ || percent == shown_) return;
    shown_ = percent;
    if (!terminal_) return;
    err_ << "\r" << Text(label_, percent, width_);
    err_.flush();
}

void ProgressBar::Finish() {
    if (finished_) return;
    finished_ = true;
    if (shown_ < 0) return;
    if (terminal_)
        err_ << "\n";
    else
        err_ << Text(label_, shown_, width_) << "\n";
    err_.flush();
}

}  // namespace trovctl
