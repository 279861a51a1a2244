#include "platform/recorded_host.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/scsi_sysfs.h"

namespace {

constexpr uint8_t kStatusGood = 0x00;
constexpr uint8_t kStatusCheckCondition = 0x02;
constexpr uint8_t kSenseIllegalRequest = 0x05;
constexpr uint8_t kAscInvalidOpcode = 0x20;
constexpr uint8_t kAscInvalidFieldInCdb = 0x24;
// No page a unit answers is longer than an allocation length can ask for.
constexpr size_t kMaxRecordedPage = 65535;

class RecordedDevice : public PlatformDevice {
public:
    RecordedDevice(int fd, std::string sysPath) : fd_(fd), sysPath_(std::move(sysPath)) {}
    ~RecordedDevice() override { ::close(fd_); }

    int Descriptor() override { return fd_; }

    bool ScsiPassThrough(ScsiRequest* r, int* err) override {
        *err = 0;
        r->status = kStatusGood;
        r->residual = r->dataLength;
        r->senseLength = 0;
        r->hostStatus = r->driverStatus = 0;
        if (r->cdbLength == 0 || r->cdbLength > sizeof r->cdb) {
            *err = EINVAL;
            return false;
        }
        switch (r->cdb[0]) {
            case 0x00: return true;  // TEST UNIT READY
            case 0x12: return Inquiry(r);
            default: return Check(r, kAscInvalidOpcode);
        }
    }

private:
    bool Inquiry(ScsiRequest* r) {
        bool evpd = (r->cdb[1] & 1) != 0;
        uint8_t page = r->cdb[2];
        uint32_t alloc = static_cast<uint32_t>(r->cdb[3]) << 8 | r->cdb[4];
        if (!evpd && page != 0) return Check(r, kAscInvalidFieldInCdb);
        char file[16];
        std::snprintf(file, sizeof file, "vpd_pg%02x", page);
        std::string bytes;
        if (!ReadSysfsBytes(sysPath_ + "/" + (evpd ? file : "inquiry"), kMaxRecordedPage, &bytes))
            return Check(r, kAscInvalidFieldInCdb);
        size_t n = std::min<size_t>({bytes.size(), alloc, r->direction == ScsiDirection::FromDevice ? r->dataLength : 0u});
        if (n && r->data) std::memcpy(r->data, bytes.data(), n);
        r->residual = r->dataLength - static_cast<uint32_t>(n);
        return true;
    }

    bool Check(ScsiRequest* r, uint8_t asc) {
        uint8_t sense[18] = {0x70, 0, kSenseIllegalRequest, 0, 0, 0, 0, 10, 0, 0, 0, 0, asc, 0, 0, 0, 0, 0};
        r->status = kStatusCheckCondition;
        if (r->sense && r->senseCapacity) {
            r->senseLength = static_cast<uint8_t>(std::min<size_t>(sizeof sense, r->senseCapacity));
            std::memcpy(r->sense, sense, r->senseLength);
        }
        return true;
    }

    int fd_;
    std::string sysPath_;
};

bool StartsWith(const std::string& s, const std::string& prefix) {
    return s.size() >= prefix.size() && s.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

std::unique_ptr<PlatformDevice> OpenRecordedDevice(const std::string& root, const std::string& path, int* err) {
    std::string devDir = root + "/dev/";
    HostScsiDevice d;
    if (!StartsWith(path, devDir) || !IsSafeSysfsName(path.substr(devDir.size())) ||
        !FindHostScsiDevice(root, path.substr(devDir.size()), &d)) {
        *err = ENOENT;
        return nullptr;
    }
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *err = errno;
        return nullptr;
    }
    *err = 0;
    return std::make_unique<RecordedDevice>(fd, d.sysPath);
}

std::string RecordedCommandFileName(const std::string& command) {
    std::string out;
    bool gap = false;
    for (char ch : command) {
        bool plain = (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') || ch == '-' ||
                     ch == '.' || ch == ':';
        if (!plain) {
            gap = !out.empty();
            continue;
        }
        if (gap) out += '_';
        gap = false;
        out += ch;
        if (out.size() >= 120) break;
    }
    return out;
}

bool RecordedMultipathCommand(const std::string& root, const std::string& command, std::string* reply, int* err) {
    reply->clear();
    std::string dir = root + "/multipathd";
    std::vector<std::string> names;
    if (!Plat()->ListDirectory(dir, &names, err)) {
        *err = ECONNREFUSED;
        return false;
    }
    std::string file = RecordedCommandFileName(command);
    if (file.empty()) {
        *reply = "fail\n";
        *err = 0;
        return true;
    }
    if (std::find(names.begin(), names.end(), file + ".silent") != names.end()) {
        *err = ETIMEDOUT;
        return false;
    }
    if (std::find(names.begin(), names.end(), file) != names.end())
        return Plat()->ReadTextFile(dir + "/" + file, reply, err);
    if (StartsWith(command, "show") || StartsWith(command, "list")) {
        *reply = "fail\n";  // what the daemon says to a question it doesn't know
        *err = 0;
        return true;
    }
    // A command that changes something: recorded, and answered as the daemon answers it.
    std::string received;
    int readErr = 0;
    Plat()->ReadTextFile(dir + "/received", &received, &readErr);
    received += command + "\n";
    if (!Plat()->WriteTextFile(dir + "/received", received, err)) return false;
    *reply = "ok\n";
    *err = 0;
    return true;
}
