#include "render.h"

#include <algorithm>
#include <cstdio>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "platform/hresult.h"
#include "platform/platform.h"
#include "platform/vds_errors.h"
#include "platform/wstr.h"
#include "words.h"

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

bool IsSizeKey(const std::string& key) {
    return key.rfind("ull", 0) == 0 && (key.find("Size") != std::string::npos || key.find("Space") != std::string::npos);
}

// The text form of a field for people: enums and flags in words with their number beside,
// sizes in binary units with the bytes beside, an address as ADDRESS:PORT.
std::string ValueText(const std::string& key, const Json& v, const Json& record) {
    if (v.is_string()) return v.get<std::string>();
    if (v.is_boolean()) return v.get<bool>() ? "yes" : "no";
    if (v.is_array()) {
        std::string out;
        for (const Json& e : v) out += (out.empty() ? "" : ", ") + ValueText(key, e, record);
        return out.empty() ? "none" : out;
    }
    if (v.is_object()) {
        if (v.contains("wszTextAddress"))
            return v["wszTextAddress"].get<std::string>() + ":" + std::to_string(v.value("ulPort", 0u)) +
                   (v.contains("typeText") ? " (" + v["typeText"].get<std::string>() + ")" : "");
        return v.dump();
    }
    std::string textKey = key + "Text";
    if (record.contains(textKey) && record[textKey].is_string()) {
        std::string words = record[textKey].get<std::string>();
        if (key == "ulFlags")
            return (words.empty() ? std::string("none") : words) + " (" + Hex(v.get<uint32_t>()) + ")";
        return words + " (" + v.dump() + ")";
    }
    if (v.is_number_unsigned() && IsSizeKey(key))
        return SizeText(v.get<uint64_t>()) + " (" + std::to_string(v.get<uint64_t>()) + " bytes)";
    if (v.is_number_unsigned() && key.rfind("ul", 0) == 0 && key.find("Flags") != std::string::npos)
        return std::to_string(v.get<uint64_t>()) + " (" + Hex(v.get<uint32_t>()) + ")";
    return v.dump();
}

bool IsTextForm(const std::string& key, const Json& record) {
    return key.size() > 4 && key.compare(key.size() - 4, 4, "Text") == 0 && record.contains(key.substr(0, key.size() - 4));
}

std::string Str(const Json& r, const char* key) {
    return r.contains(key) && r[key].is_string() ? r[key].get<std::string>() : std::string();
}

std::string SizeOf(const Json& r, const char* key) {
    return r.contains(key) && r[key].is_number() ? SizeText(r[key].get<uint64_t>()) : std::string();
}

}  // namespace

std::string HrText(HRESULT hr) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%08X", static_cast<uint32_t>(hr));
    const char* name = HResultName(hr);
    return name ? std::string(name) + " (" + buf + ")" : std::string(buf);
}

std::string SuccessMeaning(HRESULT hr, const std::string& command) {
    if (hr == S_FALSE && command.find("delete") != std::string::npos)
        return "the array deleted it, but the provider's refresh did not take it out of the tree in time; it "
               "goes at the next refresh";
    if (hr == VDS_S_NAME_TRUNCATED) {
        if (command.find("subsystem") != std::string::npos)
            return "the name was too long and was cut: the array keeps 80 characters, and the old name stays in "
                   "view until the next refresh";
        return "the name was too long and was cut to the length the array keeps";
    }
    return {};
}

// --- records ---------------------------------------------------------------------------------

Json ProviderJson(VDS_PROVIDER_PROP& p) {
    return {{"id", GuidToString(p.id)},
            {"pwszName", Take(p.pwszName)},
            {"guidVersionId", GuidToString(p.guidVersionId)},
            {"pwszVersion", Take(p.pwszVersion)},
            {"type", p.type},
            {"typeText", ProviderTypeText(p.type)},
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
    case Kind::Plex: return "plex of " + SizeText(r["ullSize"].get<uint64_t>());
    default: return r["pwszFriendlyName"].get<std::string>();
    }
}

// --- tables --------------------------------------------------------------------------------

namespace {

struct Column {
    const char* header;
    bool right;
    std::string (*cell)(const Row&);
};

std::string More(const Row& r, const char* key) {
    auto it = r.more.find(key);
    return it == r.more.end() ? std::string("-") : it->second;
}

std::string State(Kind k, const Row& r) { return StateText(k, r.props); }
std::string Id(const Row& r) { return Str(r.props, "id"); }
std::string Name(const Row& r) { return Str(r.props, "pwszFriendlyName"); }
std::string Slot(const Row& r) {
    const Json& p = r.props;
    if (!p.contains("sInternalBusNumber")) return "-";
    return std::to_string(p["sInternalBusNumber"].get<int>()) + ":" + std::to_string(p["sSlotNumber"].get<int>());
}
std::string Flags(const Row& r) {
    std::string f = Str(r.props, "ulFlagsText");
    return f.empty() ? "-" : f;
}

const std::vector<Column>& ColumnsOf(Kind kind) {
    static const std::vector<Column> subsystem = {
        {"NAME", false, Name},
        {"STATE", false, [](const Row& r) { return State(Kind::Subsystem, r); }},
        {"IDENTIFICATION", false, [](const Row& r) { return Str(r.props, "pwszIdentification"); }},
        {"ID", false, Id}};
    static const std::vector<Column> controller = {
        {"NAME", false, Name},
        {"STATE", false, [](const Row& r) { return State(Kind::Controller, r); }},
        {"PORTS", true, [](const Row& r) { return r.props.contains("sNumberOfPorts") ? r.props["sNumberOfPorts"].dump() : "-"; }},
        {"ID", false, Id}};
    static const std::vector<Column> port = {
        {"NAME", false, Name}, {"STATE", false, [](const Row& r) { return State(Kind::Port, r); }}, {"ID", false, Id}};
    static const std::vector<Column> drive = {
        {"SLOT", false, Slot},
        {"SERIAL", false, [](const Row& r) { return Str(r.props, "pwszIdentification"); }},
        {"SIZE", true, [](const Row& r) { return SizeOf(r.props, "ullSize"); }},
        {"BUS", false, [](const Row& r) { return Str(r.props, "busTypeText"); }},
        {"STATE", false, [](const Row& r) { return State(Kind::Drive, r); }},
        {"USE", false, Flags},
        {"ID", false, Id}};
    static const std::vector<Column> lun = {
        {"NAME", false, Name},
        {"SIZE", true, [](const Row& r) { return SizeOf(r.props, "ullSize"); }},
        {"TYPE", false, [](const Row& r) { return Str(r.props, "typeText"); }},
        {"STATE", false, [](const Row& r) { return State(Kind::Lun, r); }},
        {"POOL", false, [](const Row& r) { return More(r, "POOL"); }},
        {"LUN", true, [](const Row& r) { return More(r, "LUN"); }},
        {"HOSTS", false, [](const Row& r) { return More(r, "HOSTS"); }},
        {"ID", false, Id}};
    static const std::vector<Column> plex = {
        {"LUN", false, [](const Row& r) { return More(r, "LUN"); }},
        {"SIZE", true, [](const Row& r) { return SizeOf(r.props, "ullSize"); }},
        {"TYPE", false, [](const Row& r) { return Str(r.props, "typeText"); }},
        {"STATE", false, [](const Row& r) { return State(Kind::Plex, r); }},
        {"ID", false, Id}};
    static const std::vector<Column> pool = {
        {"NAME", false, [](const Row& r) { return Str(r.props, "pwszName"); }},
        {"KIND", false, [](const Row& r) { return Str(r.props, "typeText"); }},
        {"RAID", false, [](const Row& r) { return r.props.contains("raidTypeText") ? Str(r.props, "raidTypeText") : "-"; }},
        {"STATE", false, [](const Row& r) { return State(Kind::Pool, r); }},
        {"FREE", true, [](const Row& r) { return SizeOf(r.props, "ullRemainingFreeSpace"); }},
        {"TOTAL", true, [](const Row& r) { return SizeOf(r.props, "ullTotalManagedSpace"); }},
        {"ID", false, Id}};
    static const std::vector<Column> target = {
        {"NAME", false, [](const Row& r) { return Str(r.props, "pwszIscsiName"); }},
        {"FRIENDLY NAME", false, Name},
        {"CHAP", false, [](const Row& r) { return std::string(r.props.value("bChapEnabled", false) ? "yes" : "no"); }},
        {"ID", false, Id}};
    static const std::vector<Column> portal = {
        {"ADDRESS", false, [](const Row& r) { return RowLabel(Kind::Portal, r.props); }},
        {"STATE", false, [](const Row& r) { return State(Kind::Portal, r); }},
        {"ID", false, Id}};
    static const std::vector<Column> group = {
        {"TAG", true, [](const Row& r) { return r.props.contains("tag") ? r.props["tag"].dump() : "-"; }},
        {"ID", false, Id}};
    switch (kind) {
    case Kind::Subsystem: return subsystem;
    case Kind::Controller: return controller;
    case Kind::Port: return port;
    case Kind::Drive: return drive;
    case Kind::Lun: return lun;
    case Kind::Plex: return plex;
    case Kind::Pool: return pool;
    case Kind::Target: return target;
    case Kind::Portal: return portal;
    case Kind::PortalGroup: return group;
    }
    return port;
}

constexpr const char* kRed = "\033[1;31m";
constexpr const char* kYellow = "\033[1;33m";
constexpr const char* kPlain = "\033[0m";

}  // namespace

TableText TableOf(Kind kind, const std::vector<Row>& rows) {
    TableText t;
    const std::vector<Column>& cols = ColumnsOf(kind);
    t.header = {"#", "!"};
    t.rightAligned = {true, false};
    for (const Column& c : cols) {
        t.header.push_back(c.header);
        t.rightAligned.push_back(c.right);
    }
    for (const Row& r : rows) {
        bool attention = NeedsAttention(r.props);
        std::vector<std::string> line = {r.number >= 0 ? std::to_string(r.number) : "-", attention ? "!" : ""};
        for (const Column& c : cols) {
            std::string cell = c.cell(r);
            line.push_back(cell.empty() ? "-" : cell);
        }
        t.cells.push_back(std::move(line));
        t.attention.push_back(attention);
    }
    return t;
}

std::string FormatTable(const TableText& t, bool header, bool color) {
    std::vector<size_t> width(t.header.size(), 0);
    if (header)
        for (size_t i = 0; i < t.header.size(); ++i) width[i] = t.header[i].size();
    for (const auto& line : t.cells)
        for (size_t i = 0; i < line.size() && i < width.size(); ++i) width[i] = std::max(width[i], line[i].size());
    // The state column is coloured: find it by its header.
    size_t state = std::find(t.header.begin(), t.header.end(), "STATE") - t.header.begin();
    auto format = [&](const std::vector<std::string>& line, const char* paint) {
        std::string out;
        size_t last = line.size();
        while (last > 0 && line[last - 1].empty()) --last;  // no blanks at the end of a line
        for (size_t i = 0; i < last; ++i) {
            std::string cell = line[i];
            std::string pad(width[i] - std::min(width[i], cell.size()), ' ');
            bool painted = paint && (i == 1 || i == state) && !cell.empty();
            if (painted) cell = paint + cell + kPlain;
            if (i) out += "  ";
            if (t.rightAligned[i])
                out += pad + cell;
            else
                out += cell + (i + 1 < last ? pad : "");
        }
        return out + "\n";
    };
    std::string out;
    if (header) out += format(t.header, nullptr);
    for (size_t r = 0; r < t.cells.size(); ++r) {
        const char* paint = nullptr;
        if (color && t.attention[r]) {
            const std::string& s = state < t.cells[r].size() ? t.cells[r][state] : std::string();
            paint = s.find("fail") != std::string::npos || s.find("offline") != std::string::npos ? kRed : kYellow;
        }
        out += format(t.cells[r], paint);
    }
    return out;
}

std::string FormatTerse(const TableText& t, const std::string& sep, bool header) {
    auto join = [&](const std::vector<std::string>& line) {
        std::string out;
        for (size_t i = 0; i < line.size(); ++i) out += (i ? sep : "") + line[i];
        return out + "\n";
    };
    std::string out = header ? join(t.header) : std::string();
    for (const auto& line : t.cells) out += join(line);
    return out;
}

// --- output ----------------------------------------------------------------------------------

void Render::Object(const Json& j) {
    if (json_) {
        out_ << Dump(j) << "\n";
        return;
    }
    size_t width = 0;
    for (auto it = j.begin(); it != j.end(); ++it)
        if (!IsTextForm(it.key(), j)) width = std::max(width, it.key().size());
    for (auto it = j.begin(); it != j.end(); ++it)
        if (!IsTextForm(it.key(), j))
            out_ << std::left << std::setw(int(width)) << it.key() << " : " << ValueText(it.key(), it.value(), j)
                 << "\n";
}

void Render::Table(Kind kind, const std::vector<Row>& rows, const std::string& doubt) {
    if (json_) {
        Json list = Json::array();
        for (const Row& r : rows) list.push_back(r.props);
        if (doubt.empty()) {
            out_ << Dump(list) << "\n";
        } else {
            // Not a bare array: a program that takes the rows must see that they may be partial.
            Json doc = {{"incomplete", true}, {"reason", doubt}, {KindPlural(kind), list}};
            out_ << Dump(doc) << "\n";
        }
    } else if (!terse_.empty()) {
        out_ << FormatTerse(TableOf(kind, rows), terse_, headerAsked_ && header_);
    } else {
        if (header_) out_ << KindPlural(kind) << " (" << rows.size() << ")\n";
        if (!rows.empty()) out_ << FormatTable(TableOf(kind, rows), header_, color_);
    }
    if (!doubt.empty()) Note("this listing may be incomplete: " + doubt);
}

void Render::List(const char* heading, const Json& rows, void (*line)(std::ostream&, const Json&)) {
    if (json_) {
        out_ << Dump(rows) << "\n";
        return;
    }
    if (header_ && terse_.empty()) out_ << heading << " (" << rows.size() << ")\n";
    for (const Json& r : rows) {
        if (terse_.empty()) out_ << "  ";
        line(out_, r);
        out_ << "\n";
    }
}

void Render::Done(const std::string& what, HRESULT hr) {
    std::string meaning = hr == S_OK ? std::string() : SuccessMeaning(hr, what);
    if (json_) {
        Json doc = {{"command", what}};
        if (hr == S_OK) {
            doc["result"] = "S_OK";
        } else {
            const char* name = HResultName(hr);
            doc["result"] = name ? name : HrText(hr);
            doc["code"] = static_cast<uint32_t>(hr);
            if (!meaning.empty()) doc["message"] = meaning;
        }
        out_ << Dump(doc) << "\n";
    } else if (hr == S_OK) {
        out_ << what << ": done\n";
    } else {
        out_ << what << ": done, " << HrText(hr) << (meaning.empty() ? "" : ": " + meaning) << "\n";
    }
}

void Render::Waiting(const std::string& text) {
    out_.flush();
    err_ << "trovctl: " << text << "\n";
    err_.flush();
}

void Render::Error(const std::string& error, int64_t code, const std::string& message) {
    out_.flush();
    err_ << "trovctl: " << message << "\n";
    err_.flush();
    if (json_) out_ << Dump(Json{{"error", error}, {"code", code}, {"message", message}}) << "\n";
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

std::string ProgressBar::Text(const std::string& label, int percent, int width, const std::string& note) {
    percent = std::clamp(percent, 0, 100);
    width = std::max(width, 1);
    int filled = percent * width / 100;
    char pct[8];
    std::snprintf(pct, sizeof pct, "%3d%%", percent);
    return label + " [" + std::string(size_t(filled), '#') + std::string(size_t(width - filled), ' ') + "] " + pct +
           (note.empty() ? std::string() : "  " + note);
}

void ProgressBar::Update(int percent, const std::string& note) {
    percent = std::clamp(percent, 0, 100);
    if (finished_ || (percent == shown_ && note == note_)) return;
    shown_ = percent;
    note_ = note;
    if (!terminal_) return;
    std::string text = Text(label_, percent, width_, note);
    // A shorter line than the last one leaves no tail of it behind.
    std::string blank(drawn_ > text.size() ? drawn_ - text.size() : 0, ' ');
    drawn_ = text.size();
    err_ << "\r" << text << blank;
    err_.flush();
}

void ProgressBar::Finish() {
    if (finished_) return;
    finished_ = true;
    if (shown_ < 0) return;
    if (terminal_)
        err_ << "\n";
    else
        err_ << Text(label_, shown_, width_, note_) << "\n";
    err_.flush();
}

}  // namespace trovctl
