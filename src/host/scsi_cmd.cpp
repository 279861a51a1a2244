#include "host/scsi_cmd.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/scsi_sysfs.h"
#include "support/debuglog.h"
#include "support/host_notice.h"

namespace {

constexpr uint8_t kOpRequestSense = 0x03;
constexpr uint8_t kStatusCheckCondition = 0x02;
constexpr char kLongFormPrefix[] = "\\\\.\\Scsi";

// The process-wide values shared by every ScsiCmd.
struct ScsiCmdGlobals {
    ScsiAddressValues address;
    char portName[64] = {};
    bool longForm = false;
    int traceCount = 0;
    bool retriesSwitch = false;
};
ScsiCmdGlobals g_scsi;

void Console(const std::string& text) { HostConsole(text.c_str()); }

// Reads "<digits>" at *p into *v (saturating at 32 bits); false when no digit stands there.
bool Number(const char** p, uint32_t* v) {
    const char* s = *p;
    if (*s < '0' || *s > '9') return false;
    uint64_t n = 0;
    while (*s >= '0' && *s <= '9') {
        n = std::min<uint64_t>(n * 10 + static_cast<uint64_t>(*s - '0'), UINT32_MAX);
        ++s;
    }
    *v = static_cast<uint32_t>(n);
    *p = s;
    return true;
}

bool Literal(const char** p, const char* text) {
    size_t n = std::strlen(text);
    if (std::strncmp(*p, text, n) != 0) return false;
    *p += n;
    return true;
}

// Reads "\\.\Scsi%d:Bus%d:ID%d:LUN%d" as far as it matches, as a scan of that format does: the
// values not reached stay 0.
void ParseLongForm(const char* name, ScsiAddressValues* a) {
    *a = ScsiAddressValues{};
    const char* p = std::strstr(name, kLongFormPrefix) + sizeof kLongFormPrefix - 1;
    if (!Number(&p, &a->portNumber) || !Literal(&p, ":Bus") || !Number(&p, &a->pathId) || !Literal(&p, ":ID") ||
        !Number(&p, &a->targetId) || !Literal(&p, ":LUN"))
        return;
    Number(&p, &a->lun);
}

}  // namespace

uint32_t ScsiCmd::CdbLength(uint8_t opcode) {
    static constexpr uint32_t kByGroup[8] = {6, 10, 10, 0, 16, 12, 0, 0};
    return kByGroup[opcode >> 5];
}

ScsiAddressValues ScsiCmd::LastAddress() { return g_scsi.address; }
bool ScsiCmd::LastNameWasLongForm() { return g_scsi.longForm; }
const char* ScsiCmd::PortOpenName() { return g_scsi.portName; }
void ScsiCmd::SetTraceCount(int count) { g_scsi.traceCount = count; }
int ScsiCmd::TraceCount() { return g_scsi.traceCount; }
void ScsiCmd::SetRetriesSwitch(bool on) { g_scsi.retriesSwitch = on; }
void ScsiCmd::ResetForTest() { g_scsi = ScsiCmdGlobals{}; }

ScsiCmd::ScsiCmd(const char* deviceName) {
    std::snprintf(deviceName_, sizeof deviceName_, "%s", deviceName ? deviceName : "");
    if (g_scsi.retriesSwitch) retries_ = kRetryCount;
    open(deviceName_);
    owner_ = handle_ != nullptr;
    if (!handle_ && g_scsi.traceCount)
        Console(TrovFormatString("ScsiCmd(): %s %s", "cannot open device", deviceName_));
}

ScsiCmd::ScsiCmd(PlatformDevice* handle) : handle_(handle) {
    if (g_scsi.retriesSwitch) retries_ = kRetryCount;
}

ScsiCmd::~ScsiCmd() {
    if (owner_) owned_.reset();
}

void ScsiCmd::open(const char* name) {
    std::string root = Plat()->HostRoot();
    int err = 0;
    if (std::strstr(name, kLongFormPrefix)) {
        ParseLongForm(name, &g_scsi.address);
        std::snprintf(g_scsi.portName, sizeof g_scsi.portName, "\\\\.\\Scsi%u:", g_scsi.address.portNumber);
        g_scsi.longForm = true;
        // The port's device addresses its units by path, target and LUN; on Linux each unit has
        // a node of its own, which stands for the port with that address.
        char address[64];
        std::snprintf(address, sizeof address, "%u:%u:%u:%u", g_scsi.address.portNumber, g_scsi.address.pathId,
                      g_scsi.address.targetId, g_scsi.address.lun);
        HostScsiDevice unit;
        if (FindHostScsiDevice(root, address, &unit)) {
            std::string node = HostDeviceNode(root, unit);
            if (!node.empty()) owned_ = Plat()->OpenDevice(node, &err);
        }
        handle_ = owned_.get();
        return;
    }
    g_scsi.address = ScsiAddressValues{};
    g_scsi.longForm = false;
    owned_ = Plat()->OpenDevice(name, &err);
    handle_ = owned_.get();
    // The address request goes to the device that was opened; without one it simply fails.
    HostScsiDevice unit;
    if (handle_ && FindHostScsiDevice(root, name, &unit))
        g_scsi.address = ScsiAddressValues{unit.host, unit.channel, unit.target, unit.lun};
}

uint32_t ScsiCmd::setTimeout(uint32_t seconds) {
    uint32_t old = timeout_;
    timeout_ = seconds ? seconds : kDefaultTimeout;
    return old;
}

uint32_t ScsiCmd::setRetries(uint32_t count) {
    uint32_t old = retries_;
    retries_ = count;
    return old;
}

void ScsiCmd::setCdb(const uint8_t* cdb) {
    std::memset(cdb_, 0, sizeof cdb_);
    std::memcpy(cdb_, cdb, CdbLength(cdb[0]));
    if (cdb[0] == kOpRequestSense && !data_) {
        data_ = sense_;
        dataLength_ = kSenseSize;
        dataIn_ = true;
    }
}

void ScsiCmd::setData(void* data, uint32_t length) {
    data_ = data;
    dataLength_ = length;
    dataIn_ = true;
}

uint32_t ScsiCmd::transferred() const {
    uint32_t moved = dataLength_ - std::min(residual_, dataLength_);
    return std::min(moved, dataLength_);
}

uint32_t ScsiCmd::senseLength() const { return std::min<uint32_t>(kSenseSize, kSenseSize - senseResidual_); }

bool ScsiCmd::execute() {
    if (!handle_) return false;
    scsiStatus_ = 0;
    for (uint32_t attempt = 0; attempt <= retries_; ++attempt) {
        // The request block is cleared for each attempt; its sense area is its own, not the
        // object's: the object's block holds only what a REQUEST SENSE brought back.
        ScsiRequest r;
        uint8_t requestSense[kSenseSize] = {};
        std::memcpy(r.cdb, cdb_, sizeof cdb_);
        r.cdbLength = static_cast<uint8_t>(CdbLength(cdb_[0]));
        r.direction = dataLength_ == 0 ? ScsiDirection::None
                      : dataIn_        ? ScsiDirection::FromDevice
                                       : ScsiDirection::ToDevice;
        r.data = data_;
        r.dataLength = data_ ? dataLength_ : 0;
        r.timeoutMs = timeout_ * 1000;
        r.sense = requestSense;
        r.senseCapacity = kSenseSize;
        int err = 0;
        bool ok = r.cdbLength != 0 && handle_->ScsiPassThrough(&r, &err);
        scsiStatus_ = r.status;
        residual_ = std::min(r.residual, dataLength_);
        senseResidual_ = static_cast<uint8_t>(kSenseSize - std::min<uint32_t>(r.senseLength, kSenseSize));
        if (g_scsi.traceCount) {
            if (ok)
                Console(TrovFormatString("%s: SCSI_PASS_THROUGH(%s) status 0x%x xfer'd %d:", deviceName_,
                                         ScsiOpcodeName(cdb_[0]), scsiStatus_, static_cast<int>(transferred())));
            else
                Console("SCSI_PASS_THROUGH failed for command \n");
        }
        if (ok && scsiStatus_ == 0) return true;
        if (ok && (scsiStatus_ & kStatusCheckCondition)) {
            if (senseLength() < 14) return false;
            uint8_t key = sense_[2] & 0x0F;
            uint8_t asc = sense_[12];
            if (key == 1) return true;
            if (key != 2 && key != 6) return false;
            if (asc == 0x29) Console(TrovFormatString("%s: %s", deviceName_, "device reset"));
            Plat()->Sleep(attempt * 500);
        }
    }
    return false;
}

bool ScsiCmd::executeTraced() {
    bool ok = execute();
    if (g_scsi.traceCount) {
        std::string line = "CDB : ";
        for (uint32_t i = 0; i < CdbLength(cdb_[0]); ++i) line += TrovFormatString(" %02x", cdb_[i]);
        line += "\nData: ";
        const auto* d = static_cast<const uint8_t*>(data_);
        uint32_t n = d ? transferred() : 0;
        for (uint32_t i = 0; i < n; ++i) {
            line += TrovFormatString(" %02x", d[i]);
            if (i % 16 == 15) line += "\n    : ";
        }
        line += "\n";
        Console(line);
    }
    return ok;
}

bool ScsiCmd::waitUntilReady(bool strict) {
    uint32_t limitMs = (timeout_ ? timeout_ : kDefaultTimeout) * 1000;
    uint32_t start = Plat()->TickCount();
    bool waited = false;
    uint8_t buffer[128];
    static constexpr uint8_t kModeSense6[6] = {0x1A, 0x08, 0x3F, 0x00, 0x80, 0x00};
    for (;;) {
        setCdb(kModeSense6);
        setData(buffer, sizeof buffer);
        if (execute()) break;
        bool check = (scsiStatus_ & kStatusCheckCondition) != 0;
        if (!strict && check) return true;  // the device answered
        if (check && senseLength() >= 18) {
            uint8_t key = sense_[2] & 0x0F;
            if (key == 4 || key == 5) return false;
        }
        if (Plat()->TickCount() - start > limitMs) {
            Console(TrovFormatString("%s: %s", deviceName_, "device did not become ready"));
            return false;
        }
        if (!waited) Console("waiting for device to be ready");
        waited = true;
        Plat()->Sleep(1000);
    }
    if (waited) Console("device is ready");
    return true;
}
