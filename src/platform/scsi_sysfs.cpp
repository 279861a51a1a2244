#include "platform/scsi_sysfs.h"

#include <algorithm>
#include <tuple>

#include "platform/platform.h"

namespace {

bool ParseU32(const std::string& s, size_t from, size_t to, uint32_t* out) {
    if (to <= from || to - from > 10) return false;
    uint64_t v = 0;
    for (size_t i = from; i < to; ++i) {
        if (s[i] < '0' || s[i] > '9') return false;
        v = v * 10 + static_cast<uint64_t>(s[i] - '0');
    }
    if (v > UINT32_MAX) return false;
    *out = static_cast<uint32_t>(v);
    return true;
}

// The first safe name in a folder, or "".
std::string FirstEntry(const std::string& dir) {
    std::vector<std::string> names;
    int err = 0;
    if (!Plat()->ListDirectory(dir, &names, &err)) return {};
    for (const std::string& n : names)
        if (IsSafeSysfsName(n)) return n;
    return {};
}

std::string Basename(const std::string& path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

bool ParseScsiAddress(const std::string& text, uint32_t* h, uint32_t* c, uint32_t* t, uint32_t* l) {
    uint32_t v[4];
    size_t start = 0;
    for (int i = 0; i < 4; ++i) {
        size_t end = i < 3 ? text.find(':', start) : text.size();
        if (end == std::string::npos || !ParseU32(text, start, end, &v[i])) return false;
        start = end + 1;
    }
    *h = v[0], *c = v[1], *t = v[2], *l = v[3];
    return true;
}

bool IsSafeSysfsName(const std::string& name) {
    if (name.empty() || name.size() > 64 || name == "." || name == "..") return false;
    return std::all_of(name.begin(), name.end(), [](char ch) {
        return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') || ch == '_' ||
               ch == '.' || ch == ':' || ch == '-';
    });
}

bool ReadSysfsBytes(const std::string& path, size_t maxBytes, std::string* out) {
    int err = 0;
    if (!Plat()->ReadTextFile(path, out, &err)) return false;
    if (out->size() > maxBytes) out->resize(maxBytes);
    return true;
}

bool ReadSysfsText(const std::string& path, std::string* out) {
    if (!ReadSysfsBytes(path, kMaxSysfsText, out)) return false;
    size_t nul = out->find('\0');
    if (nul != std::string::npos) out->resize(nul);
    while (!out->empty() && (out->back() == '\n' || out->back() == ' ' || out->back() == '\t' || out->back() == '\r'))
        out->pop_back();
    return true;
}

bool ListHostScsiDevices(const std::string& root, std::vector<HostScsiDevice>* out, int* err) {
    out->clear();
    std::string classDir = root + "/sys/class/scsi_device";
    std::vector<std::string> names;
    if (!Plat()->ListDirectory(classDir, &names, err)) return false;
    for (const std::string& name : names) {
        if (out->size() >= kMaxHostScsiDevices) break;
        HostScsiDevice d;
        if (!ParseScsiAddress(name, &d.host, &d.channel, &d.target, &d.lun)) continue;
        d.address = name;
        d.sysPath = classDir + "/" + name + "/device";
        std::string text;
        if (ReadSysfsText(d.sysPath + "/type", &text)) {
            uint32_t type;
            if (ParseU32(text, 0, text.size(), &type) && type <= 0x1F) d.type = static_cast<int>(type);
        }
        ReadSysfsText(d.sysPath + "/vendor", &d.vendor);
        ReadSysfsText(d.sysPath + "/model", &d.model);
        ReadSysfsText(d.sysPath + "/rev", &d.rev);
        d.blockName = FirstEntry(d.sysPath + "/block");
        d.sgName = FirstEntry(d.sysPath + "/scsi_generic");
        out->push_back(std::move(d));
    }
    std::sort(out->begin(), out->end(), [](const HostScsiDevice& a, const HostScsiDevice& b) {
        return std::tie(a.host, a.channel, a.target, a.lun) < std::tie(b.host, b.channel, b.target, b.lun);
    });
    *err = 0;
    return true;
}

bool ListHostScsiHosts(const std::string& root, std::vector<uint32_t>* out, int* err) {
    out->clear();
    std::vector<std::string> names;
    if (!Plat()->ListDirectory(root + "/sys/class/scsi_host", &names, err)) return false;
    for (const std::string& n : names) {
        uint32_t number;
        if (out->size() >= kMaxHostScsiHosts) break;
        if (n.size() > 4 && n.compare(0, 4, "host") == 0 && ParseU32(n, 4, n.size(), &number)) out->push_back(number);
    }
    std::sort(out->begin(), out->end());
    *err = 0;
    return true;
}

bool FindHostScsiDevice(const std::string& root, const std::string& device, HostScsiDevice* out) {
    std::vector<HostScsiDevice> all;
    int err = 0;
    if (!ListHostScsiDevices(root, &all, &err)) return false;
    uint32_t h, c, t, l;
    if (ParseScsiAddress(device, &h, &c, &t, &l)) {
        for (const HostScsiDevice& d : all)
            if (d.host == h && d.channel == c && d.target == t && d.lun == l) return *out = d, true;
        return false;
    }
    std::string name = Basename(device);
    if (!IsSafeSysfsName(name)) return false;
    for (const HostScsiDevice& d : all)
        if (d.blockName == name || d.sgName == name) return *out = d, true;
    return false;
}

std::string HostDeviceNode(const std::string& root, const HostScsiDevice& d) {
    if (!d.blockName.empty()) return root + "/dev/" + d.blockName;
    if (!d.sgName.empty()) return root + "/dev/" + d.sgName;
    return {};
}
